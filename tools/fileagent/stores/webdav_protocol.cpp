#include "stores/webdav_protocol.h"

#include <pugixml.hpp>

#include <cstdlib>
#include <cstring>

namespace velagent {

namespace {

const char kDav[] = "DAV:";

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The namespace of an element: its prefix looked up in the xmlns
// attributes of the element and its ancestors. Servers choose prefixes
// freely (Apache gives live properties "lp1:"), so names are compared by
// namespace and local name, never by prefix.
std::string namespaceOf(const pugi::xml_node& node) {
  const char* name = node.name();
  const char* colon = std::strchr(name, ':');
  std::string attribute =
      colon == nullptr ? "xmlns" : "xmlns:" + std::string(name, static_cast<size_t>(colon - name));
  for (pugi::xml_node at = node; at; at = at.parent()) {
    pugi::xml_attribute found = at.attribute(attribute.c_str());
    if (found) {
      return found.value();
    }
  }
  return "";
}

const char* localName(const pugi::xml_node& node) {
  const char* name = node.name();
  const char* colon = std::strchr(name, ':');
  return colon == nullptr ? name : colon + 1;
}

bool is(const pugi::xml_node& node, const char* ns, const char* local) {
  return node.type() == pugi::node_element && std::strcmp(localName(node), local) == 0 &&
         namespaceOf(node) == ns;
}

pugi::xml_node child(const pugi::xml_node& node, const char* ns, const char* local) {
  for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling()) {
    if (is(c, ns, local)) {
      return c;
    }
  }
  return pugi::xml_node();
}

// The code of a "HTTP/1.1 200 OK" status line, or 0.
int statusCode(const std::string& line) {
  size_t space = line.find(' ');
  if (space == std::string::npos) {
    return 0;
  }
  return std::atoi(line.c_str() + space + 1);
}

std::string trimmed(const char* text) {
  std::string s = text;
  size_t begin = s.find_first_not_of(" \t\r\n");
  size_t end = s.find_last_not_of(" \t\r\n");
  return begin == std::string::npos ? "" : s.substr(begin, end - begin + 1);
}

// A decimal number of at most 18 digits.
bool parseNumber(const std::string& text, long long& out) {
  if (text.empty() || text.size() > 18 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  out = std::atoll(text.c_str());
  return true;
}

bool parseDocument(const std::string& xml, pugi::xml_document& doc, pugi::xml_node& root,
                   std::string& error) {
  pugi::xml_parse_result parsed = doc.load_buffer(xml.data(), xml.size());
  if (!parsed) {
    error = std::string("not XML: ") + parsed.description();
    return false;
  }
  root = doc.document_element();
  if (!is(root, kDav, "multistatus")) {
    error = "not a multistatus answer";
    return false;
  }
  return true;
}

}  // namespace

std::string encodePath(const std::string& path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : path) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~' || c == '/') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

bool decodePercent(const std::string& text, std::string& out) {
  out.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) {
      return false;
    }
    int high = hexValue(text[i + 1]);
    int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0 || (high == 0 && low == 0)) {
      return false;
    }
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return true;
}

bool hrefPath(const std::string& href, std::string& out) {
  std::string path = trimmed(href.c_str());
  size_t scheme = path.find("://");
  if (scheme != std::string::npos && path.find('/') > scheme) {
    size_t slash = path.find('/', scheme + 3);
    path = slash == std::string::npos ? "/" : path.substr(slash);
  }
  size_t cut = path.find_first_of("?#");
  if (cut != std::string::npos) {
    path.resize(cut);
  }
  if (path.empty() || path[0] != '/') {
    return false;
  }
  return decodePercent(path, out);
}

std::string trimSlashes(const std::string& path) {
  size_t end = path.find_last_not_of('/');
  return end == std::string::npos ? "/" : path.substr(0, end + 1);
}

bool parseMultistatus(const std::string& xml, std::vector<DavNode>& out, std::string& error) {
  pugi::xml_document doc;
  pugi::xml_node root;
  if (!parseDocument(xml, doc, root, error)) {
    return false;
  }
  for (pugi::xml_node response = root.first_child(); response; response = response.next_sibling()) {
    if (!is(response, kDav, "response")) {
      continue;
    }
    DavNode node;
    pugi::xml_node href = child(response, kDav, "href");
    if (!href || !hrefPath(href.text().get(), node.path)) {
      error = "a response without a usable href";
      return false;
    }
    for (pugi::xml_node propstat = response.first_child(); propstat;
         propstat = propstat.next_sibling()) {
      if (!is(propstat, kDav, "propstat") ||
          statusCode(trimmed(child(propstat, kDav, "status").text().get())) != 200) {
        continue;
      }
      for (pugi::xml_node prop = child(propstat, kDav, "prop").first_child(); prop;
           prop = prop.next_sibling()) {
        long long number = 0;
        if (is(prop, kDav, "resourcetype")) {
          node.isDir = static_cast<bool>(child(prop, kDav, "collection"));
        } else if (is(prop, kDav, "getcontentlength")) {
          if (parseNumber(trimmed(prop.text().get()), number)) {
            node.size = number;
          }
        } else if (is(prop, kDav, "getlastmodified")) {
          node.timed = parseHttpDate(trimmed(prop.text().get()), node.mtime);
        } else if (is(prop, kDav, "getetag")) {
          node.etag = trimmed(prop.text().get());
        } else if (is(prop, kModeNamespace, "mode")) {
          if (parseNumber(trimmed(prop.text().get()), number) && number <= 07777) {
            node.mode = static_cast<unsigned>(number);
            node.hasMode = true;
          }
        }
      }
    }
    if (!node.hasMode) {
      node.mode = node.isDir ? kDefaultFolderMode : kDefaultFileMode;
    }
    out.push_back(node);
  }
  return true;
}

bool proppatchSucceeded(const std::string& xml, std::string& error) {
  pugi::xml_document doc;
  pugi::xml_node root;
  if (!parseDocument(xml, doc, root, error)) {
    return false;
  }
  for (pugi::xml_node response = child(root, kDav, "response"); response;
       response = response.next_sibling()) {
    for (pugi::xml_node part = response.first_child(); part; part = part.next_sibling()) {
      pugi::xml_node status = is(part, kDav, "propstat") ? child(part, kDav, "status")
                              : is(part, kDav, "status") ? part
                                                         : pugi::xml_node();
      std::string line = trimmed(status.text().get());
      int code = statusCode(line);
      if (status && (code < 200 || code > 299)) {
        error = line.substr(line.find(' ') + 1);
        return false;
      }
    }
  }
  return true;
}

bool parseHttpDate(const std::string& text, time_t& out) {
  struct tm parts;
  std::memset(&parts, 0, sizeof parts);
  // The C locale's day and month names: the agent never sets a locale.
  const char* end = ::strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
  if (end == nullptr || *end != '\0') {
    return false;
  }
  out = ::timegm(&parts);
  return true;
}

std::string propfindBody() {
  return std::string(
             "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
             "<D:propfind xmlns:D=\"DAV:\" xmlns:V=\"") +
         kModeNamespace +
         "\"><D:prop><D:resourcetype/><D:getcontentlength/><D:getlastmodified/><D:getetag/>"
         "<V:mode/>"
         "</D:prop></D:propfind>\n";
}

std::string modeUpdateBody(unsigned mode) {
  return std::string(
             "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
             "<D:propertyupdate xmlns:D=\"DAV:\" xmlns:V=\"") +
         kModeNamespace + "\"><D:set><D:prop><V:mode>" + std::to_string(mode & 07777) +
         "</V:mode></D:prop></D:set></D:propertyupdate>\n";
}

std::string propertyProbeBody() {
  return std::string(
             "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
             "<D:propertyupdate xmlns:D=\"DAV:\" xmlns:V=\"") +
         kModeNamespace +
         "\"><D:remove><D:prop><V:probe/></D:prop></D:remove></D:propertyupdate>\n";
}

DavServerKind serverKindOf(const std::string& serverHeader) {
  auto startsWith = [&](const char* prefix) {
    return serverHeader.compare(0, std::strlen(prefix), prefix) == 0;
  };
  if (startsWith("Apache")) return DavServerKind::kApache;
  if (startsWith("lighttpd")) return DavServerKind::kLighttpd;
  if (startsWith("nginx")) return DavServerKind::kNginx;
  return DavServerKind::kUnknown;
}

std::string strongForm(const std::string& tag) {
  return tag.compare(0, 2, "W/") == 0 ? tag.substr(2) : tag;
}

namespace {

// Apache's strong tag "<size>-<mtime>" or "<inode>-<size>-<mtime>" (hex,
// the time in microseconds): the time, or -1 for another form.
long long apacheTagTime(const std::string& tag) {
  if (tag.size() < 5 || tag.front() != '"' || tag.back() != '"') {
    return -1;
  }
  const std::string inner = tag.substr(1, tag.size() - 2);
  size_t dashes = 0;
  for (char c : inner) {
    if (c == '-') {
      ++dashes;
    } else if (hexValue(c) < 0) {
      return -1;
    }
  }
  size_t last = inner.rfind('-');
  if ((dashes != 1 && dashes != 2) || last == inner.size() - 1 || inner[0] == '-' ||
      inner.find("--") != std::string::npos || inner.size() - last - 1 > 15) {
    return -1;
  }
  return std::stoll(inner.substr(last + 1), nullptr, 16);
}

}  // namespace

DavVersion versionOf(const std::string& etag, time_t mtime, long long size, time_t serverDate,
                     DavServerKind kind) {
  DavVersion out;
  const bool weak = etag.compare(0, 2, "W/") == 0;
  out.text =
      etag.empty() ? "lm:" + std::to_string(mtime) + "-" + std::to_string(size) : strongForm(etag);
  out.settled = !weak && mtime >= 0 && serverDate >= 0 && serverDate - mtime >= 1;
  if (kind == DavServerKind::kApache && !weak && !etag.empty()) {
    long long micros = apacheTagTime(etag);
    out.identity =
        micros > 0 && micros / 1000000 == static_cast<long long>(mtime) && micros % 1000000 != 0;
  }
  return out;
}

}  // namespace velagent
