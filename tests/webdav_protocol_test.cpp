// The WebDAV texts of the agent's WebDAV store without a server: paths in
// URLs, hrefs in the forms servers write them, multistatus answers with
// their namespaces and failed properties, dates.
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

}  // namespace
