#include "stores/s3_protocol.h"

#include <pugixml.hpp>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace velagent {

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string trimmed(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t\r\n");
  size_t end = text.find_last_not_of(" \t\r\n");
  return begin == std::string::npos ? "" : text.substr(begin, end - begin + 1);
}

// S3 answers put their elements in one default namespace; a prefix, where
// a server writes one, is ignored.
const char* localName(const pugi::xml_node& node) {
  const char* name = node.name();
  const char* colon = std::strchr(name, ':');
  return colon == nullptr ? name : colon + 1;
}

pugi::xml_node child(const pugi::xml_node& node, const char* local) {
  for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling()) {
    if (c.type() == pugi::node_element && std::strcmp(localName(c), local) == 0) {
      return c;
    }
  }
  return pugi::xml_node();
}

std::string textOf(const pugi::xml_node& node, const char* local) {
  return child(node, local).child_value();
}

bool load(const std::string& xml, pugi::xml_document& doc, const char* rootName,
          pugi::xml_node& root, std::string& error) {
  pugi::xml_parse_result parsed = doc.load_buffer(xml.data(), xml.size());
  if (!parsed) {
    error = std::string("not XML: ") + parsed.description();
    return false;
  }
  root = doc.document_element();
  if (std::strcmp(localName(root), rootName) != 0) {
    error = std::string("not a ") + rootName + " answer";
    return false;
  }
  return true;
}

bool parseNumber(const std::string& text, long long& out) {
  std::string digits = trimmed(text);
  if (digits.empty() || digits.size() > 18 ||
      digits.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  out = std::atoll(digits.c_str());
  return true;
}

bool validBucket(const std::string& name) {
  if (name.size() < 3 || name.size() > 63) {
    return false;
  }
  for (char c : name) {
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.')) {
      return false;
    }
  }
  return std::isalnum(static_cast<unsigned char>(name.front())) &&
         std::isalnum(static_cast<unsigned char>(name.back()));
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
long long daysFromCivil(long long y, unsigned m, unsigned d) {
  y -= m <= 2;
  const long long era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<long long>(doe) - 719468;
}

}  // namespace

bool parseS3Url(const std::string& url, S3Location& out, std::string& error) {
  out = S3Location();
  std::string lowered = lower(url.substr(0, 8));
  size_t start = lowered.compare(0, 7, "http://") == 0    ? 7
                 : lowered.compare(0, 8, "https://") == 0 ? 8
                                                          : 0;
  if (start == 0) {
    error = "the S3 URL must begin with http:// or https://";
    return false;
  }
  out.scheme = start == 7 ? "http" : "https";
  if (url.find_first_of("?#") != std::string::npos) {
    error = "the S3 URL must not have a query or fragment";
    return false;
  }
  size_t slash = url.find('/', start);
  out.endpoint = lower(url.substr(start, slash == std::string::npos ? slash : slash - start));
  if (out.endpoint.empty()) {
    error = "the S3 URL names no server";
    return false;
  }
  if (out.endpoint.find('@') != std::string::npos) {
    error =
        "the S3 URL must not hold credentials; give them in AWS_ACCESS_KEY_ID and "
        "AWS_SECRET_ACCESS_KEY or with --s3-credentials";
    return false;
  }
  std::string path = slash == std::string::npos ? "" : url.substr(slash + 1);
  std::string decoded;
  if (!s3Decode(path, decoded)) {
    error = "the path of the S3 URL has a broken percent sign";
    return false;
  }
  size_t cut = decoded.find('/');
  out.bucket = decoded.substr(0, cut);
  if (out.bucket.empty()) {
    error = "the S3 URL names no bucket (http(s)://host[:port]/bucket[/prefix])";
    return false;
  }
  if (!validBucket(out.bucket)) {
    error =
        "the bucket name must have 3 to 63 lower-case letters, digits, '-' and '.', and begin "
        "and end with a letter or digit";
    return false;
  }
  std::string rest = cut == std::string::npos ? "" : decoded.substr(cut + 1);
  size_t from = 0;
  while (from < rest.size()) {
    size_t end = rest.find('/', from);
    std::string name = rest.substr(from, end == std::string::npos ? end : end - from);
    if (name == "." || name == "..") {
      error = "the key prefix of the S3 URL must not have '.' or '..' names";
      return false;
    }
    if (!name.empty()) {
      out.prefix += name + "/";
    }
    if (end == std::string::npos) {
      break;
    }
    from = end + 1;
  }
  // Amazon's own endpoints want the bucket in the host name; a bucket name
  // with dots would not match their certificate there.
  std::string host = out.endpoint.substr(0, out.endpoint.rfind(':') == std::string::npos
                                                ? std::string::npos
                                                : out.endpoint.rfind(':'));
  const std::string aws = ".amazonaws.com";
  out.virtualHosted = host.size() > aws.size() &&
                      host.compare(host.size() - aws.size(), aws.size(), aws) == 0 &&
                      host.compare(0, 3, "s3.") == 0 && out.bucket.find('.') == std::string::npos;
  return true;
}

std::string s3Identity(const S3Location& location) {
  return "s3:" + location.scheme + "://" + location.endpoint + "/" + location.bucket + "/" +
         location.prefix;
}

std::string s3Encode(const std::string& text, bool keepSlash) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~' || (keepSlash && c == '/')) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

bool s3Decode(const std::string& text, std::string& out) {
  out.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
    int low = high >= 0 ? hexValue(text[i + 2]) : -1;
    if (low < 0) {
      return false;
    }
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return true;
}

std::string s3Query(std::vector<std::pair<std::string, std::string>> parameters) {
  for (auto& parameter : parameters) {
    parameter.first = s3Encode(parameter.first, false);
    parameter.second = s3Encode(parameter.second, false);
  }
  std::sort(parameters.begin(), parameters.end());
  std::string out;
  for (const auto& parameter : parameters) {
    out += (out.empty() ? "" : "&") + parameter.first + "=" + parameter.second;
  }
  return out;
}

std::string s3Url(const S3Location& location, const std::string& key, const std::string& query) {
  std::string url = location.scheme + "://";
  if (location.virtualHosted) {
    url += location.bucket + "." + location.endpoint + "/" + s3Encode(key, true);
  } else {
    url +=
        location.endpoint + "/" + location.bucket + (key.empty() ? "" : "/") + s3Encode(key, true);
  }
  return query.empty() ? url : url + "?" + query;
}

bool parseS3Error(const std::string& xml, S3Error& out) {
  pugi::xml_document doc;
  pugi::xml_node root;
  std::string ignored;
  if (xml.empty() || !load(xml, doc, "Error", root, ignored)) {
    return false;
  }
  out.code = trimmed(textOf(root, "Code"));
  out.message = trimmed(textOf(root, "Message"));
  return !out.code.empty();
}

bool parseListing(const std::string& xml, S3Listing& out, std::string& error) {
  out = S3Listing();
  pugi::xml_document doc;
  pugi::xml_node root;
  if (!load(xml, doc, "ListBucketResult", root, error)) {
    return false;
  }
  for (pugi::xml_node node = root.first_child(); node; node = node.next_sibling()) {
    const char* name = localName(node);
    if (std::strcmp(name, "Contents") == 0) {
      S3Object object;
      object.key = textOf(node, "Key");
      if (!parseNumber(textOf(node, "Size"), object.size) ||
          !parseIsoTime(trimmed(textOf(node, "LastModified")), object.modified)) {
        error = "a listed object without size or time: " + object.key;
        return false;
      }
      object.etag = bareEtag(textOf(node, "ETag"));
      out.objects.push_back(std::move(object));
    } else if (std::strcmp(name, "CommonPrefixes") == 0) {
      out.prefixes.push_back(textOf(node, "Prefix"));
    }
  }
  out.truncated = trimmed(textOf(root, "IsTruncated")) == "true";
  out.nextToken = textOf(root, "NextContinuationToken");
  if (out.truncated && out.nextToken.empty()) {
    error = "a truncated listing without a continuation token";
    return false;
  }
  return true;
}

bool parseUploadId(const std::string& xml, std::string& out, std::string& error) {
  pugi::xml_document doc;
  pugi::xml_node root;
  if (!load(xml, doc, "InitiateMultipartUploadResult", root, error)) {
    return false;
  }
  out = trimmed(textOf(root, "UploadId"));
  if (out.empty()) {
    error = "no UploadId in the answer";
    return false;
  }
  return true;
}

std::string completeBody(const std::vector<std::string>& partEtags) {
  pugi::xml_document doc;
  pugi::xml_node root = doc.append_child("CompleteMultipartUpload");
  root.append_attribute("xmlns") = "http://s3.amazonaws.com/doc/2006-03-01/";
  for (size_t i = 0; i < partEtags.size(); ++i) {
    pugi::xml_node part = root.append_child("Part");
    part.append_child("PartNumber").text() = static_cast<unsigned long long>(i + 1);
    part.append_child("ETag").text() = ("\"" + bareEtag(partEtags[i]) + "\"").c_str();
  }
  std::string out;
  struct Writer : pugi::xml_writer {
    std::string* target;
    void write(const void* data, size_t size) override {
      target->append(static_cast<const char*>(data), size);
    }
  } writer;
  writer.target = &out;
  doc.save(writer, "", pugi::format_raw);
  return out;
}

bool parseCompleteResult(const std::string& xml, std::string& etag) {
  pugi::xml_document doc;
  pugi::xml_node root;
  std::string error;
  if (!load(xml, doc, "CompleteMultipartUploadResult", root, error)) {
    return false;
  }
  etag = bareEtag(textOf(root, "ETag"));
  return true;
}

bool parseUploads(const std::string& xml, std::vector<S3Upload>& out, std::string& error) {
  out.clear();
  pugi::xml_document doc;
  pugi::xml_node root;
  if (!load(xml, doc, "ListMultipartUploadsResult", root, error)) {
    return false;
  }
  for (pugi::xml_node node = root.first_child(); node; node = node.next_sibling()) {
    if (std::strcmp(localName(node), "Upload") == 0) {
      out.push_back({textOf(node, "Key"), trimmed(textOf(node, "UploadId"))});
    }
  }
  return true;
}

bool parseCopyResult(const std::string& xml, std::string& etag, S3Error& failure) {
  if (parseS3Error(xml, failure)) {
    return false;
  }
  pugi::xml_document doc;
  pugi::xml_node root;
  std::string error;
  if (!load(xml, doc, "CopyObjectResult", root, error)) {
    failure = {"InvalidAnswer", error};
    return false;
  }
  etag = bareEtag(textOf(root, "ETag"));
  return true;
}

std::string deleteBody(const std::vector<std::string>& keys) {
  pugi::xml_document doc;
  pugi::xml_node root = doc.append_child("Delete");
  root.append_attribute("xmlns") = "http://s3.amazonaws.com/doc/2006-03-01/";
  root.append_child("Quiet").text() = "true";
  for (const std::string& key : keys) {
    root.append_child("Object").append_child("Key").text() = key.c_str();
  }
  std::string out;
  struct Writer : pugi::xml_writer {
    std::string* target;
    void write(const void* data, size_t size) override {
      target->append(static_cast<const char*>(data), size);
    }
  } writer;
  writer.target = &out;
  doc.save(writer, "", pugi::format_raw);
  return out;
}

bool parseDeleteResult(const std::string& xml, std::vector<std::pair<std::string, S3Error>>& failed,
                       std::string& error) {
  failed.clear();
  pugi::xml_document doc;
  pugi::xml_node root;
  if (!load(xml, doc, "DeleteResult", root, error)) {
    return false;
  }
  for (pugi::xml_node node = root.first_child(); node; node = node.next_sibling()) {
    if (std::strcmp(localName(node), "Error") == 0) {
      failed.push_back({textOf(node, "Key"),
                        S3Error{trimmed(textOf(node, "Code")), trimmed(textOf(node, "Message"))}});
    }
  }
  return true;
}

bool parseIsoTime(const std::string& text, time_t& out) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, used = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &year, &month, &day, &hour, &minute,
                  &second, &used) != 6 ||
      used != 19) {
    return false;
  }
  size_t at = 19;
  if (at < text.size() && text[at] == '.') {
    ++at;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) {
      ++at;
    }
  }
  long long offset = 0;
  if (at < text.size() && (text[at] == 'Z' || text[at] == 'z')) {
    ++at;
  } else if (at + 6 == text.size() && (text[at] == '+' || text[at] == '-') && text[at + 3] == ':') {
    int hours = std::atoi(text.substr(at + 1, 2).c_str());
    int minutes = std::atoi(text.substr(at + 4, 2).c_str());
    offset = (text[at] == '+' ? 1 : -1) * (hours * 3600LL + minutes * 60LL);
    at += 6;
  } else {
    return false;
  }
  if (at != text.size() || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 ||
      minute > 59 || second > 60) {
    return false;
  }
  out = static_cast<time_t>(
      daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 86400LL +
      hour * 3600LL + minute * 60LL + second - offset);
  return true;
}

std::string bareEtag(const std::string& etag) {
  std::string tag = trimmed(etag);
  if (tag.compare(0, 2, "W/") == 0) {
    tag = tag.substr(2);
  }
  if (tag.size() >= 2 && tag.front() == '"' && tag.back() == '"') {
    tag = tag.substr(1, tag.size() - 2);
  }
  // Some servers write the quotes as entities that the XML reader has
  // already turned into '"'; either way none is left.
  return tag;
}

bool isContentEtag(const std::string& bare) {
  return bare.size() == 32 && bare.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

std::string formatMode(unsigned mode, bool folder) {
  char text[16];
  std::snprintf(text, sizeof text, "%o", (folder ? 040000u : 0100000u) | (mode & 07777));
  return text;
}

bool parseMode(const std::string& text, unsigned& out) {
  std::string digits = trimmed(text);
  if (digits.empty() || digits.size() > 11 ||
      digits.find_first_not_of("01234567") != std::string::npos) {
    return false;
  }
  out = static_cast<unsigned>(std::strtoul(digits.c_str(), nullptr, 8)) & 07777;
  return true;
}

std::string formatMtime(time_t seconds, long nanoseconds) {
  char text[48];
  std::snprintf(text, sizeof text, "%lld.%09ld", static_cast<long long>(seconds), nanoseconds);
  return text;
}

bool parseMtime(const std::string& text, time_t& out) {
  std::string value = trimmed(text);
  if (value.find('T') != std::string::npos) {
    return parseIsoTime(value, out);
  }
  size_t dot = value.find('.');
  std::string whole = value.substr(0, dot);
  bool negative = !whole.empty() && whole[0] == '-';
  long long seconds = 0;
  if (!parseNumber(negative ? whole.substr(1) : whole, seconds)) {
    return false;
  }
  if (dot != std::string::npos &&
      (dot + 1 == value.size() ||
       value.find_first_not_of("0123456789", dot + 1) != std::string::npos)) {
    return false;
  }
  out = static_cast<time_t>(negative ? -seconds : seconds);
  return true;
}

bool parseCredentials(const std::string& text, S3Credentials& out, std::string& error) {
  out = S3Credentials();
  bool inDefault = true;
  size_t from = 0;
  int lineNumber = 0;
  while (from <= text.size()) {
    size_t end = text.find('\n', from);
    std::string line = trimmed(text.substr(from, end == std::string::npos ? end : end - from));
    from = end == std::string::npos ? text.size() + 1 : end + 1;
    ++lineNumber;
    if (line.empty() || line[0] == '#' || line[0] == ';') {
      continue;
    }
    if (line[0] == '[') {
      inDefault = trimmed(line.substr(1, line.find(']') - 1)) == "default";
      continue;
    }
    if (!inDefault) {
      continue;
    }
    size_t equals = line.find('=');
    if (equals == std::string::npos) {
      error = "line " + std::to_string(lineNumber) + " is no 'name = value'";
      return false;
    }
    std::string name = lower(trimmed(line.substr(0, equals)));
    std::string value = trimmed(line.substr(equals + 1));
    if (name == "aws_access_key_id") {
      out.accessKey = value;
    } else if (name == "aws_secret_access_key") {
      out.secretKey = value;
    } else if (name == "aws_session_token") {
      out.sessionToken = value;
    } else if (name == "region") {
      out.region = value;
    }
  }
  if (out.accessKey.empty() || out.secretKey.empty()) {
    error = "the [default] section needs aws_access_key_id and aws_secret_access_key";
    return false;
  }
  return true;
}

}  // namespace velagent
