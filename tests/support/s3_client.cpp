#include "support/s3_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <regex>

namespace veltest {

namespace {

std::string encode(const std::string& text, bool keepSlash) {
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || std::strchr("-._~", c) != nullptr || (keepSlash && c == '/')) {
      out += static_cast<char>(c);
    } else {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02X", c);
      out += hex;
    }
  }
  return out;
}

std::string unescapeXml(std::string text) {
  static const std::pair<const char*, const char*> kEntities[] = {
      {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}, {"&amp;", "&"}};
  for (const auto& entity : kEntities) {
    for (size_t at = text.find(entity.first); at != std::string::npos;
         at = text.find(entity.first, at + 1)) {
      text.replace(at, std::strlen(entity.first), entity.second);
    }
  }
  return text;
}

// The texts of every <tag>...</tag> in `xml`.
std::vector<std::string> elements(const std::string& xml, const std::string& tag) {
  std::vector<std::string> out;
  const std::regex pattern("<" + tag + ">([^<]*)</" + tag + ">");
  for (std::sregex_iterator it(xml.begin(), xml.end(), pattern), end; it != end; ++it) {
    out.push_back(unescapeXml((*it)[1].str()));
  }
  return out;
}

size_t collect(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

size_t header(char* data, size_t size, size_t count, void* user) {
  S3Client::Answer& answer = *static_cast<S3Client::Answer*>(user);
  std::string line(data, size * count);
  size_t colon = line.find(':');
  if (colon != std::string::npos) {
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    value.erase(value.find_last_not_of(" \t\r\n") + 1);
    if (name == "etag") {
      value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
      answer.etag = value;
    } else if (name.compare(0, 11, "x-amz-meta-") == 0) {
      answer.meta[name.substr(11)] = value;
    }
  }
  return size * count;
}

}  // namespace

S3Client::S3Client(const S3Service& service, const std::string& prefix)
    : service_(service), prefix_(prefix), curl_(curl_easy_init()) {}

S3Client::~S3Client() { curl_easy_cleanup(static_cast<CURL*>(curl_)); }

S3Client::Answer S3Client::perform(const std::string& method, const std::string& key,
                                   const std::string& query, const std::string& body,
                                   const std::vector<std::string>& headers) {
  Answer answer;
  CURL* curl = static_cast<CURL*>(curl_);
  curl_easy_reset(curl);
  const std::string url = service_.endpoint + "/" + service_.bucket +
                          (key.empty() ? "" : "/" + encode(key, true)) +
                          (query.empty() ? "" : "?" + query);
  const std::string signing = "aws:amz:" + service_.region + ":s3";
  struct curl_slist* list = curl_slist_append(nullptr, "x-amz-content-sha256: UNSIGNED-PAYLOAD");
  for (const std::string& h : headers) {
    list = curl_slist_append(list, h.c_str());
  }
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, signing.c_str());
  curl_easy_setopt(curl, CURLOPT_USERNAME, service_.accessKey.c_str());
  curl_easy_setopt(curl, CURLOPT_PASSWORD, service_.secretKey.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, header);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &answer);
  if (method == "HEAD") {
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  } else if (method != "GET") {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
  }
  if (method == "PUT" || method == "POST") {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  }
  answer.body.clear();
  if (curl_easy_perform(curl) == CURLE_OK) {
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
  }
  curl_slist_free_all(list);
  return answer;
}

S3Client::Answer S3Client::put(const std::string& rel, const std::string& body,
                               const std::map<std::string, std::string>& meta) {
  std::vector<std::string> headers = {"Content-Type: application/octet-stream"};
  for (const auto& [name, value] : meta) {
    headers.push_back("x-amz-meta-" + name + ": " + value);
  }
  return perform("PUT", prefix_ + rel, "", body, headers);
}

S3Client::Answer S3Client::get(const std::string& rel) {
  return perform("GET", prefix_ + rel, "", "", {});
}

S3Client::Answer S3Client::head(const std::string& rel) {
  return perform("HEAD", prefix_ + rel, "", "", {});
}

S3Client::Answer S3Client::remove(const std::string& rel) {
  return perform("DELETE", prefix_ + rel, "", "", {});
}

std::vector<std::string> S3Client::keys(const std::string& relPrefix) {
  std::vector<std::string> out;
  std::string token;
  do {
    std::string query = (token.empty() ? "" : "continuation-token=" + encode(token, false) + "&") +
                        "list-type=2&prefix=" + encode(prefix_ + relPrefix, false);
    Answer answer = perform("GET", "", query, "", {});
    if (answer.status != 200) {
      return {"<listing failed: " + std::to_string(answer.status) + ">"};
    }
    for (const std::string& key : elements(answer.body, "Key")) {
      out.push_back(key.substr(std::min(prefix_.size(), key.size())));
    }
    std::vector<std::string> next = elements(answer.body, "NextContinuationToken");
    token = next.empty() ? "" : next[0];
  } while (!token.empty());
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> S3Client::uploads() {
  Answer answer = perform("GET", "", "prefix=" + encode(prefix_, false) + "&uploads=", "", {});
  if (answer.status != 200) {
    return {"<listing failed: " + std::to_string(answer.status) + ">"};
  }
  std::vector<std::string> out;
  for (const std::string& key : elements(answer.body, "Key")) {
    out.push_back(key.substr(std::min(prefix_.size(), key.size())));
  }
  return out;
}

void S3Client::putFile(const std::string& rel, const std::string& content, unsigned mode) {
  size_t slash = rel.rfind('/');
  if (slash != std::string::npos) {
    for (size_t end = rel.find('/'); end != std::string::npos; end = rel.find('/', end + 1)) {
      if (head(rel.substr(0, end) + "/").status != 200) {
        put(rel.substr(0, end) + "/", "");
      }
    }
  }
  char text[16];
  std::snprintf(text, sizeof text, "%o", 0100000u | mode);
  put(rel, content,
      mode == 0 ? std::map<std::string, std::string>()
                : std::map<std::string, std::string>{{"mode", text}});
}

void S3Client::putFolder(const std::string& rel, unsigned mode) {
  for (size_t end = rel.find('/'); end != std::string::npos; end = rel.find('/', end + 1)) {
    if (head(rel.substr(0, end) + "/").status != 200) {
      put(rel.substr(0, end) + "/", "");
    }
  }
  char text[16];
  std::snprintf(text, sizeof text, "%o", 040000u | mode);
  put(rel + "/", "", {{"mode", text}});
}

bool S3Client::exists(const std::string& rel) {
  return head(rel).status == 200 || !keys(rel + "/").empty();
}

int S3Client::mode(const std::string& rel) {
  for (const std::string& key : {rel, rel + "/"}) {
    Answer answer = head(key);
    if (answer.status == 200) {
      auto it = answer.meta.find("mode");
      if (it == answer.meta.end()) {
        return key == rel ? 0640 : 0750;
      }
      return static_cast<int>(std::strtoul(it->second.c_str(), nullptr, 8) & 07777);
    }
  }
  return keys(rel + "/").empty() ? -1 : 0750;
}

}  // namespace veltest
