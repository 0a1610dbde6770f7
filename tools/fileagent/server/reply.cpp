#include "server/reply.h"

#include <utility>

namespace velagent {

Reply Reply::status(const std::string& text) {
  Reply r;
  r.kind = Kind::kStatus;
  r.text = text;
  return r;
}

Reply Reply::bulk(const std::string& text) {
  Reply r;
  r.kind = Kind::kBulk;
  r.text = text;
  return r;
}

Reply Reply::error(const std::string& text) {
  Reply r;
  r.kind = Kind::kError;
  r.text = text;
  return r;
}

Reply Reply::refusal(const std::string& text) {
  Reply r = error(text);
  r.refused = true;
  return r;
}

Reply Reply::integer(long long value) {
  Reply r;
  r.kind = Kind::kInt;
  r.number = value;
  return r;
}

Reply Reply::array(std::vector<std::string> items) {
  Reply r;
  r.kind = Kind::kArray;
  r.items = std::move(items);
  return r;
}

Reply Reply::nil() { return Reply(); }

Reply Reply::close() {
  Reply r;
  r.kind = Kind::kClose;
  return r;
}

Reply Reply::raw(const std::string& bytes) {
  Reply r;
  r.kind = Kind::kRaw;
  r.text = bytes;
  return r;
}

Reply Reply::stream(long long size, std::shared_ptr<BulkSource> source) {
  Reply r;
  r.kind = Kind::kStream;
  r.number = size;
  r.source = std::move(source);
  return r;
}

namespace {

std::string oneLine(const std::string& text) {
  std::string out = text;
  for (char& c : out) {
    if (c == '\r' || c == '\n') {
      c = ' ';
    }
  }
  return out;
}

void appendBulk(std::string& out, const std::string& text) {
  out += '$';
  out += std::to_string(text.size());
  out += "\r\n";
  out += text;
  out += "\r\n";
}

}  // namespace

std::string encode(const Reply& reply) {
  std::string out;
  switch (reply.kind) {
    case Reply::Kind::kStatus:
      out = "+" + oneLine(reply.text) + "\r\n";
      break;
    case Reply::Kind::kError:
      out = "-" + oneLine(reply.text) + "\r\n";
      break;
    case Reply::Kind::kBulk:
      appendBulk(out, reply.text);
      break;
    case Reply::Kind::kInt:
      out = ":" + std::to_string(reply.number) + "\r\n";
      break;
    case Reply::Kind::kArray:
      out = "*" + std::to_string(reply.items.size()) + "\r\n";
      for (const std::string& item : reply.items) {
        appendBulk(out, item);
      }
      break;
    case Reply::Kind::kNil:
      out = "$-1\r\n";
      break;
    case Reply::Kind::kClose:
      break;
    case Reply::Kind::kRaw:
      out = reply.text;
      break;
    case Reply::Kind::kStream:
      out = "$" + std::to_string(reply.number) + "\r\n";
      break;
  }
  return out;
}

size_t encodedSize(const Reply& reply) {
  if (reply.kind == Reply::Kind::kBulk) {
    return 5 + std::to_string(reply.text.size()).size() + reply.text.size();
  }
  if (reply.kind != Reply::Kind::kArray) {
    return encode(reply).size();
  }
  size_t size = 3 + std::to_string(reply.items.size()).size();
  for (const std::string& item : reply.items) {
    size += 5 + std::to_string(item.size()).size() + item.size();
  }
  return size;
}

}  // namespace velagent
