// The WebDAV texts of the agent's WebDAV store without a server: paths in
// URLs, hrefs in the forms servers write them, multistatus answers with
// their namespaces and failed properties, dates, and the versions made of
// what servers say of a file.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stores/webdav_protocol.h"

namespace {

using velagent::DavNode;

TEST(WebDavProtocolTest, PathsAreEncodedAndHrefsDecoded) {
  EXPECT_EQ(velagent::encodePath("a b/100%/#?/ü~-._"), "a%20b/100%25/%23%3F/%C3%BC~-._");
  struct Case {
    const char* href;
    bool ok;
    const char* path;
  };
  const Case cases[] = {
      {"/dav/a%20b/", true, "/dav/a b/"},
      {"http://127.0.0.1:8080/dav/x%23y", true, "/dav/x#y"},
      {"HTTPS://host/dav/%C3%BC", true, "/dav/ü"},
      {"https://host", true, "/"},
      {"  /dav/trimmed\n", true, "/dav/trimmed"},
      {"/dav/q?query", true, "/dav/q"},
      {"/dav/%2", false, ""},
      {"/dav/%zz", false, ""},
      {"/dav/nul%00", false, ""},
      {"relative/x", false, ""},
  };
  for (const Case& c : cases) {
    std::string path;
    EXPECT_EQ(velagent::hrefPath(c.href, path), c.ok) << c.href;
    if (c.ok) {
      EXPECT_EQ(path, c.path) << c.href;
    }
  }
  EXPECT_EQ(velagent::trimSlashes("/dav//"), "/dav");
  EXPECT_EQ(velagent::trimSlashes("//"), "/");
}

TEST(WebDavProtocolTest, MultistatusIsReadByNamespaceNotByPrefix) {
  const std::string xml = R"(<?xml version="1.0" encoding="utf-8"?>
<x:multistatus xmlns:x="DAV:" xmlns:m="urn:x-vel:props">
 <x:response xmlns:lp1="DAV:">
  <x:href>http://server/dav/dir/</x:href>
  <x:propstat><x:prop><lp1:resourcetype><x:collection/></lp1:resourcetype>
   <lp1:getlastmodified>Tue, 03 Feb 2026 04:05:06 GMT</lp1:getlastmodified></x:prop>
   <x:status>HTTP/1.1 200 OK</x:status></x:propstat>
  <x:propstat><x:prop><m:mode/></x:prop><x:status>HTTP/1.1 404 Not Found</x:status></x:propstat>
 </x:response>
 <response xmlns="DAV:"><href>/dav/dir/f%20g</href>
  <propstat><prop><resourcetype/><getcontentlength> 12 </getcontentlength>
   <mode xmlns="urn:x-vel:props">420</mode></prop><status>HTTP/1.1 200 OK</status></propstat>
 </response>
 <x:response><x:href>/dav/dir/other-ns</x:href>
  <x:propstat><x:prop><mode xmlns="urn:someone-else">511</mode><m:mode>99999</m:mode></x:prop>
   <x:status>HTTP/1.1 200 OK</x:status></x:propstat>
 </x:response>
</x:multistatus>)";
  std::vector<DavNode> nodes;
  std::string error;
  ASSERT_TRUE(velagent::parseMultistatus(xml, nodes, error)) << error;
  ASSERT_EQ(nodes.size(), 3u);
  EXPECT_EQ(nodes[0].path, "/dav/dir/");
  EXPECT_TRUE(nodes[0].isDir);
  EXPECT_EQ(nodes[0].mode, 0750u);  // the property was not found: the folder default
  EXPECT_EQ(nodes[0].mtime, 1770091506);
  EXPECT_EQ(nodes[1].path, "/dav/dir/f g");
  EXPECT_FALSE(nodes[1].isDir);
  EXPECT_EQ(nodes[1].size, 12);
  EXPECT_EQ(nodes[1].mode, 0644u);
  EXPECT_EQ(nodes[2].mode, 0640u);  // another namespace's mode, and one out of range

  for (const char* bad : {"not xml", "<a:multistatus xmlns:a=\"urn:not-dav\"/>",
                          "<D:multistatus xmlns:D=\"DAV:\"><D:response/></D:multistatus>"}) {
    std::vector<DavNode> none;
    EXPECT_FALSE(velagent::parseMultistatus(bad, none, error)) << bad;
  }
}

TEST(WebDavProtocolTest, PropertyUpdatesAndDates) {
  std::string error;
  EXPECT_TRUE(velagent::proppatchSucceeded(
      R"(<D:multistatus xmlns:D="DAV:"><D:response><D:href>/f</D:href><D:propstat>
         <D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response></D:multistatus>)",
      error));
  EXPECT_FALSE(velagent::proppatchSucceeded(
      R"(<D:multistatus xmlns:D="DAV:"><D:response><D:href>/f</D:href><D:propstat>
         <D:status>HTTP/1.1 403 Forbidden</D:status></D:propstat></D:response></D:multistatus>)",
      error));
  EXPECT_EQ(error, "403 Forbidden");
  EXPECT_NE(velagent::modeUpdateBody(0100644).find("<V:mode>420</V:mode>"), std::string::npos);

  time_t when = 0;
  EXPECT_TRUE(velagent::parseHttpDate("Thu, 01 Jan 1970 00:00:10 GMT", when));
  EXPECT_EQ(when, 10);
  EXPECT_FALSE(velagent::parseHttpDate("1970-01-01T00:00:10Z", when));
  EXPECT_FALSE(velagent::parseHttpDate("Thu, 01 Jan 1970 00:00:10 GMT trailing", when));
}

// The version of a file from the answers of each kind of server: a weak
// mark never makes another version, a version read within the second of
// the change is never settled, and only Apache's size-and-microsecond tag
// with a fraction of a second names its content alone.
TEST(WebDavProtocolTest, VersionsFromWhatServersSay) {
  using velagent::DavServerKind;
  const time_t change = 1795626576;  // Apache's "...-6611ce43e5659" (microseconds) names it
  struct Case {
    const char* etag;
    time_t mtime;
    time_t date;
    DavServerKind kind;
    const char* text;
    bool settled;
    bool identity;
  };
  const Case cases[] = {
      {"\"4-6611ce43e5659\"", change, change + 1, DavServerKind::kApache, "\"4-6611ce43e5659\"",
       true, true},
      {"W/\"4-6611ce43e5659\"", change, change, DavServerKind::kApache, "\"4-6611ce43e5659\"",
       false, false},
      {"W/\"4-6611ce43e5659\"", change, change + 5, DavServerKind::kApache, "\"4-6611ce43e5659\"",
       false, false},
      // inode, size and time; a whole second (set by a tool) may be shared
      {"\"a1b-4-6611ce4363400\"", change, change + 9, DavServerKind::kApache,
       "\"a1b-4-6611ce4363400\"", true, false},
      {"\"a1b-4-6611ce43e5659\"", change, change + 9, DavServerKind::kApache,
       "\"a1b-4-6611ce43e5659\"", true, true},
      // a tag of another time than the file's is no tag of that form
      {"\"4-6611ce43e5659\"", change + 60, change + 99, DavServerKind::kApache,
       "\"4-6611ce43e5659\"", true, false},
      {"\"4-6611ce43e5659\"", change, change + 1, DavServerKind::kLighttpd, "\"4-6611ce43e5659\"",
       true, false},
      {"\"4160526630\"", change, change + 1, DavServerKind::kLighttpd, "\"4160526630\"", true,
       false},
      {"\"4160526630\"", change, change, DavServerKind::kLighttpd, "\"4160526630\"", false, false},
      {"\"18eb58dec7dc63124\"", change, -1, DavServerKind::kUnknown, "\"18eb58dec7dc63124\"", false,
       false},
      {"", change, change + 1, DavServerKind::kNginx, "lm:1795626576-12", true, false},
      {"", change, change, DavServerKind::kNginx, "lm:1795626576-12", false, false},
      {"", -1, change, DavServerKind::kNginx, "lm:-1-12", false, false},
  };
  for (const Case& c : cases) {
    velagent::DavVersion v = velagent::versionOf(c.etag, c.mtime, 12, c.date, c.kind);
    const std::string name = std::string(c.etag) + " at " + std::to_string(c.mtime) + " read " +
                             std::to_string(c.date) + " from kind " +
                             std::to_string(static_cast<int>(c.kind));
    EXPECT_EQ(v.text, c.text) << name;
    EXPECT_EQ(v.settled, c.settled) << name;
    EXPECT_EQ(v.identity, c.identity) << name;
  }
  EXPECT_EQ(velagent::strongForm("W/\"x\""), "\"x\"");
  EXPECT_EQ(velagent::serverKindOf("Apache/2.4.71 (Debian)"), DavServerKind::kApache);
  EXPECT_EQ(velagent::serverKindOf("lighttpd/1.4.69"), DavServerKind::kLighttpd);
  EXPECT_EQ(velagent::serverKindOf("nginx/1.22.1"), DavServerKind::kNginx);
  EXPECT_EQ(velagent::serverKindOf("Caddy"), DavServerKind::kUnknown);
}

}  // namespace
