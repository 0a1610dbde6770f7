// The WebDAV texts the agent's WebDAV store sends and reads, kept apart from
// the transport so that they can be checked without a server: paths in
// URLs, the hrefs of a multistatus answer, its properties, and the
// request bodies.
//
// The mode of a file or folder lives in a dead property of the project's
// own, <mode xmlns="urn:x-vel:props">, holding the permission bits as a
// decimal number.
//
// Thread safety: plain functions without shared state.
#ifndef VEL_TOOLS_FILEAGENT_STORES_WEBDAV_PROTOCOL_H_
#define VEL_TOOLS_FILEAGENT_STORES_WEBDAV_PROTOCOL_H_

#include <ctime>
#include <string>
#include <vector>

namespace velagent {

constexpr const char* kModeNamespace = "urn:x-vel:props";
// Modes of nodes without the mode property.
constexpr unsigned kDefaultFileMode = 0640;
constexpr unsigned kDefaultFolderMode = 0750;

// `path` with every byte but letters, digits, "-._~" and the "/" between
// names percent-encoded (spaces, "%", "#", "?", UTF-8 bytes...).
std::string encodePath(const std::string& path);
// Decodes %XX sequences; false for a broken one or one that gives a NUL.
bool decodePercent(const std::string& text, std::string& out);

// The decoded path of an href: an absolute URL loses its scheme and
// authority, a query or fragment is dropped. False when it cannot be
// decoded or is not absolute.
bool hrefPath(const std::string& href, std::string& out);
// `path` without its trailing slashes ("/" stays "/").
std::string trimSlashes(const std::string& path);

// One response of a multistatus answer, from its successful properties.
struct DavNode {
  std::string path;  // decoded, as hrefPath gives it
  bool isDir = false;
  long long size = 0;
  time_t mtime = 0;
  unsigned mode = 0;  // the mode property, or the default of its kind
  std::string etag;   // the entity tag as the server gives it (quotes, W/), or ""
};

// The responses of a PROPFIND answer, in order. False with `error` set for
// text that is not a multistatus answer.
bool parseMultistatus(const std::string& xml, std::vector<DavNode>& out, std::string& error);
// For a PROPPATCH answer: true when every property it names was set; false
// with the first failing status in `error`.
bool proppatchSucceeded(const std::string& xml, std::string& error);

// An HTTP date (RFC 1123, as in getlastmodified), in seconds since the
// epoch; false for anything else.
bool parseHttpDate(const std::string& text, time_t& out);

// The bodies of PROPFIND (the properties the agent reads) and of the
// PROPPATCH that sets the mode.
std::string propfindBody();
std::string modeUpdateBody(unsigned mode);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_WEBDAV_PROTOCOL_H_
