// The agent's own log: one line per event on standard error (start, stop,
// every refused request), each written with a single write so that lines
// of concurrent connections never mix. Safe from any thread.
#ifndef VEL_TOOLS_FILEAGENT_SERVER_AGENT_LOG_H_
#define VEL_TOOLS_FILEAGENT_SERVER_AGENT_LOG_H_

#include <string>
#include <vector>

namespace velagent {

// Writes "velfileagent: <text>" and a newline; control characters in
// `text` are escaped so that it stays one line.
void logLine(const std::string& text);

// A request's words for the log: each argument quoted and cut after 120
// bytes; the data of tarn.write is given by its size only.
std::string describeRequest(const std::vector<std::string>& args);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SERVER_AGENT_LOG_H_
