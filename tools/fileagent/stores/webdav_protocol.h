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
  unsigned mode = 0;     // the mode property, or the default of its kind
  bool hasMode = false;  // the mode property was there
  std::string etag;      // the entity tag as the server gives it (quotes, W/), or ""
  bool timed = false;    // getlastmodified was there (`mtime` is 0 without it)
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

// The bodies of PROPFIND (the properties the agent reads), of the
// PROPPATCH that sets the mode, and of the PROPPATCH that removes a
// property nobody sets (asks, changing nothing, whether the server keeps
// dead properties at all).
std::string propfindBody();
std::string modeUpdateBody(unsigned mode);
std::string propertyProbeBody();

// The servers whose ways the store knows (docs/webdav-servers.md), told
// apart by their Server header.
enum class DavServerKind { kUnknown, kApache, kLighttpd, kNginx };
DavServerKind serverKindOf(const std::string& serverHeader);

// A file's version as the store reports it (see StoreStat in store.h).
struct DavVersion {
  std::string text;
  bool settled = false;
  bool identity = false;
};

// The version of a file from what the server says of it: its entity tag
// without a weak mark ("W/"), so that a tag that turns strong stays the
// same version; else "lm:<last-modified seconds>-<size>". `mtime` is -1
// when unknown, `serverDate` is the Date of the answer (-1 when absent).
//  - settled: the tag is not weak, and the answer was dated at least one
//    second after the last change (a change within the same second may
//    leave a time-and-size version, or a server's tag, as it was);
//  - identity: only Apache's strong tag "<size>-<microseconds>" (or with
//    the inode first), whose time names the file's last change and has a
//    fraction of a second: it moves with the file on a MOVE and no other
//    content gets it but by a copy of both size and microsecond. Every
//    other tag is a hash or a time and size that may collide, or unknown.
DavVersion versionOf(const std::string& etag, time_t mtime, long long size, time_t serverDate,
                     DavServerKind kind);
// `tag` without a leading weak mark.
std::string strongForm(const std::string& tag);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_WEBDAV_PROTOCOL_H_
