#include "server/control.h"

#include <json/json.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <sstream>

namespace velagent {

Journal::Journal(const std::string& path) : path_(path) {
  if (!path_.empty()) {
    file_ = std::fopen(path_.c_str(), "a");
  }
}

Journal::~Journal() {
  if (file_ != nullptr) {
    std::fclose(file_);
  }
}

void Journal::record(const std::vector<std::string>& args) {
  if (file_ == nullptr) {
    return;
  }
  Json::Value line(Json::arrayValue);
  for (const std::string& arg : args) {
    line.append(Json::Value(arg.data(), arg.data() + arg.size()));
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  std::string text = Json::writeString(builder, line);
  std::lock_guard<std::mutex> lock(mutex_);
  std::fprintf(file_, "%s\n", text.c_str());
  std::fflush(file_);
}

namespace {

bool textOf(const Json::Value& value, std::string& out) {
  if (value.isString()) {
    out = value.asString();
    return true;
  }
  return false;
}

bool parseReply(const Json::Value& rule, Reply& out, std::string& error) {
  if (!rule.isArray() || rule.size() < 1 || !rule[0].isString()) {
    error = "\"reply\" must be a list [kind, value]";
    return false;
  }
  const std::string kind = rule[0].asString();
  const Json::Value value = rule.size() > 1 ? rule[1] : Json::Value();
  std::string text;
  if (kind == "status" || kind == "bulk" || kind == "error") {
    if (!textOf(value, text)) {
      error = "reply kind \"" + kind + "\" needs a text value";
      return false;
    }
    out = kind == "status" ? Reply::status(text)
                           : (kind == "bulk" ? Reply::bulk(text) : Reply::error(text));
    return true;
  }
  if (kind == "int") {
    // isIntegral() also holds for unsigned values beyond what asInt64() takes.
    if (value.isInt64()) {
      out = Reply::integer(value.asInt64());
      return true;
    }
    error = "reply kind \"int\" needs an integer value";
    return false;
  }
  if (kind == "array") {
    if (!value.isArray()) {
      error = "reply kind \"array\" needs a list of texts";
      return false;
    }
    std::vector<std::string> items;
    for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
      if (!textOf(value[i], text)) {
        error = "reply kind \"array\" needs a list of texts";
        return false;
      }
      items.push_back(text);
    }
    out = Reply::array(std::move(items));
    return true;
  }
  if (kind == "nil") {
    out = Reply::nil();
    return true;
  }
  if (kind == "close") {
    out = Reply::close();
    return true;
  }
  if (kind == "raw") {
    if (!textOf(value, text)) {
      error = "reply kind \"raw\" needs a text value";
      return false;
    }
    out = Reply::raw(text);
    return true;
  }
  error = "unknown reply kind \"" + kind + "\"";
  return false;
}

}  // namespace

bool Rules::parse(const std::string& text, std::vector<Rule>& out, std::string& error) {
  out.clear();
  if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
    return true;
  }
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &error)) {
      return false;
    }
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
  if (!root.isArray()) {
    error = "the rules must be a JSON list";
    return false;
  }
  for (Json::ArrayIndex i = 0; i < root.size(); ++i) {
    const Json::Value& item = root[i];
    if (!item.isObject()) {
      error = "every rule must be an object";
      return false;
    }
    Rule rule;
    const Json::Value& match = item["match"];
    if (!match.isNull()) {
      if (!match.isArray()) {
        error = "\"match\" must be a list of texts";
        return false;
      }
      for (Json::ArrayIndex j = 0; j < match.size(); ++j) {
        std::string arg;
        if (!textOf(match[j], arg)) {
          error = "\"match\" must be a list of texts";
          return false;
        }
        rule.match.push_back(arg);
      }
    }
    if (item.isMember("reply")) {
      rule.hasReply = true;
      if (!parseReply(item["reply"], rule.reply, error)) {
        return false;
      }
    }
    if (item.isMember("crash")) {
      std::string point;
      if (!textOf(item["crash"], point) ||
          (point != kCrashAfterRename && point != kCrashAfterRecord)) {
        error = std::string("\"crash\" must be \"") + kCrashAfterRename + "\" or \"" +
                kCrashAfterRecord + "\"";
        return false;
      }
      rule.faults.crashAt = point;
    }
    if (item.isMember("record")) {
      std::string how;
      if (!textOf(item["record"], how) || how != "fail") {
        error = "\"record\" must be \"fail\"";
        return false;
      }
      rule.faults.recordFails = true;
    }
    if (item.isMember("store")) {
      std::string how;
      if (!textOf(item["store"], how) || (how != "conflict" && how != "not-modified")) {
        error = "\"store\" must be \"conflict\" or \"not-modified\"";
        return false;
      }
      rule.faults.store = how == "conflict" ? StoreFault::kConflict : StoreFault::kNotModified;
    }
    struct Count {
      const char* key;
      long* target;
      long long limit;
    };
    for (const Count& count :
         {Count{"delay_ms", &rule.delayMs, 3600000}, Count{"trickle_ms", &rule.trickleMs, 60000},
          Count{"skip", &rule.skip, 1000000000}, Count{"times", &rule.times, 1000000000}}) {
      const Json::Value& value = item[count.key];
      if (value.isNull()) {
        continue;
      }
      if (!value.isInt64() || value.asInt64() < 0 || value.asInt64() > count.limit) {
        error = std::string("\"") + count.key + "\" must be a non-negative integer";
        return false;
      }
      *count.target = static_cast<long>(value.asInt64());
    }
    out.push_back(std::move(rule));
  }
  return true;
}

void Rules::refresh() {
  struct stat st;
  if (::stat(path_.c_str(), &st) != 0) {
    seen_ = false;
    rules_.clear();
    return;
  }
  long long mtimeNs = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  if (seen_ && st.st_dev == dev_ && st.st_ino == ino_ && st.st_size == size_ &&
      mtimeNs == mtimeNs_) {
    return;
  }
  std::ifstream in(path_, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  std::vector<Rule> parsed;
  std::string error;
  if (!parse(buffer.str(), parsed, error)) {
    std::fprintf(stderr, "velfileagent: ignoring rules file %s: %s\n", path_.c_str(),
                 error.c_str());
    parsed.clear();
  }
  rules_ = std::move(parsed);
  seen_ = true;
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  size_ = st.st_size;
  mtimeNs_ = mtimeNs;
}

bool Rules::find(const std::vector<std::string>& args, Rule& out) {
  if (path_.empty()) {
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  refresh();
  for (Rule& rule : rules_) {
    if (rule.match.size() > args.size()) {
      continue;
    }
    bool same = true;
    for (size_t i = 0; i < rule.match.size() && same; ++i) {
      same = rule.match[i] == args[i];
    }
    if (!same || (rule.times >= 0 && rule.seen >= rule.skip + rule.times)) {
      continue;
    }
    if (rule.seen++ < rule.skip) {
      continue;
    }
    out = rule;
    return true;
  }
  return false;
}

}  // namespace velagent
