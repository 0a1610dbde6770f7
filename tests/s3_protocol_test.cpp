// The S3 texts of the agent's S3 store without a service: store URLs, the
// encoding signed requests need, listings and other answers as services
// write them, metadata values and the credentials file.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stores/s3_protocol.h"
#include "stores/s3_transport.h"

namespace {

using velagent::S3Location;

TEST(S3ProtocolTest, StoreUrlsNameEndpointBucketAndPrefix) {
  struct Case {
    const char* url;
    bool ok;
    const char* endpoint;
    const char* bucket;
    const char* prefix;
    bool virtualHosted;
  };
  const Case cases[] = {
      {"http://127.0.0.1:7480/vel", true, "127.0.0.1:7480", "vel", "", false},
      {"HTTPS://Gw.Example.org/team-data/a/b/", true, "gw.example.org", "team-data", "a/b/", false},
      {"http://h/bkt//x//y", true, "h", "bkt", "x/y/", false},
      {"http://h/bkt/sp%20ace", true, "h", "bkt", "sp ace/", false},
      {"https://s3.eu-west-1.amazonaws.com/mybucket/p", true, "s3.eu-west-1.amazonaws.com",
       "mybucket", "p/", true},
      // A dotted bucket would not match Amazon's certificate as a host name.
      {"https://s3.amazonaws.com/my.bucket", true, "s3.amazonaws.com", "my.bucket", "", false},
      {"http://h/ab", false, "", "", "", false},     // bucket names need 3 characters
      {"http://h/Upper", false, "", "", "", false},  // lower case only
      {"http://h/-dash", false, "", "", "", false},  // begins with a letter or digit
      {"http://h/", false, "", "", "", false},       // no bucket
      {"http://key:secret@h/bkt", false, "", "", "", false},
      {"http://h/bkt?x=1", false, "", "", "", false},
      {"http://h/bkt/a/../b", false, "", "", "", false},  // "." and ".." in the prefix
      {"ftp://h/bkt", false, "", "", "", false},
      {"http://h/bkt/%zz", false, "", "", "", false},
  };
  for (const Case& c : cases) {
    S3Location location;
    std::string error;
    EXPECT_EQ(velagent::parseS3Url(c.url, location, error), c.ok) << c.url << ": " << error;
    if (!c.ok) {
      EXPECT_FALSE(error.empty()) << c.url;
      EXPECT_EQ(error.find("secret"), std::string::npos) << error;
      continue;
    }
    EXPECT_EQ(location.endpoint, c.endpoint) << c.url;
    EXPECT_EQ(location.bucket, c.bucket) << c.url;
    EXPECT_EQ(location.prefix, c.prefix) << c.url;
    EXPECT_EQ(location.virtualHosted, c.virtualHosted) << c.url;
  }
  S3Location location;
  std::string error;
  ASSERT_TRUE(velagent::parseS3Url("http://127.0.0.1:7480/vel/p q", location, error));
  EXPECT_EQ(velagent::s3Identity(location), "s3:http://127.0.0.1:7480/vel/p q/");
  EXPECT_EQ(velagent::s3Url(location, "p q/ü+x", "list-type=2"),
            "http://127.0.0.1:7480/vel/p%20q/%C3%BC%2Bx?list-type=2");
  EXPECT_EQ(velagent::s3Url(location, "", ""), "http://127.0.0.1:7480/vel");
  ASSERT_TRUE(velagent::parseS3Url("https://s3.us-east-2.amazonaws.com/bkt", location, error));
  EXPECT_EQ(velagent::s3Url(location, "k", ""), "https://bkt.s3.us-east-2.amazonaws.com/k");
}

// libcurl signs the query as it stands in the URL: the parameters must go
// out encoded and sorted, or the service computes another signature.
TEST(S3ProtocolTest, QueriesAreEncodedAndSortedForSigning) {
  EXPECT_EQ(velagent::s3Encode("a b/c~d_e.f-g+h*i%", true), "a%20b/c~d_e.f-g%2Bh%2Ai%25");
  EXPECT_EQ(velagent::s3Encode("a/b", false), "a%2Fb");
  EXPECT_EQ(velagent::s3Query({{"prefix", "t1/x y/"},
                               {"list-type", "2"},
                               {"delimiter", "/"},
                               {"continuation-token", "1/+="}}),
            "continuation-token=1%2F%2B%3D&delimiter=%2F&list-type=2&prefix=t1%2Fx%20y%2F");
  EXPECT_EQ(velagent::s3Query({{"uploadId", "2~x"}, {"partNumber", "10"}}),
            "partNumber=10&uploadId=2~x");
  EXPECT_EQ(velagent::s3Query({{"uploads", ""}}), "uploads=");
  std::string decoded;
  EXPECT_TRUE(velagent::s3Decode("a%20b%2F", decoded));
  EXPECT_EQ(decoded, "a b/");
  EXPECT_FALSE(velagent::s3Decode("%4", decoded));
}

TEST(S3ProtocolTest, ListingsGiveObjectsPrefixesAndTheNextPage) {
  const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<ListBucketResult xmlns="http://s3.amazonaws.com/doc/2006-03-01/"><Name>vel</Name>
<Prefix>t/</Prefix><KeyCount>3</KeyCount><MaxKeys>2</MaxKeys><Delimiter>/</Delimiter>
<IsTruncated>true</IsTruncated><NextContinuationToken>1ueGcxLPRx1</NextContinuationToken>
<Contents><Key>t/</Key><LastModified>2026-11-25T17:19:44.220Z</LastModified>
<ETag>&quot;d41d8cd98f00b204e9800998ecf8427e&quot;</ETag><Size>0</Size></Contents>
<Contents><Key>t/a &amp; b</Key><LastModified>2026-11-25T17:19:45Z</LastModified>
<ETag>"a1511828e07c5aef31e961c427e9e413-2"</ETag><Size> 6000100 </Size></Contents>
<CommonPrefixes><Prefix>t/sub/</Prefix></CommonPrefixes></ListBucketResult>)";
  velagent::S3Listing listing;
  std::string error;
  ASSERT_TRUE(velagent::parseListing(xml, listing, error)) << error;
  ASSERT_EQ(listing.objects.size(), 2u);
  EXPECT_EQ(listing.objects[0].key, "t/");
  EXPECT_EQ(listing.objects[0].etag, "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(listing.objects[0].modified, 1795627184);
  EXPECT_EQ(listing.objects[1].key, "t/a & b");
  EXPECT_EQ(listing.objects[1].size, 6000100);
  EXPECT_EQ(listing.objects[1].etag, "a1511828e07c5aef31e961c427e9e413-2");
  EXPECT_EQ(listing.prefixes, std::vector<std::string>{"t/sub/"});
  EXPECT_TRUE(listing.truncated);
  EXPECT_EQ(listing.nextToken, "1ueGcxLPRx1");

  // A truncated page that does not say where to go on, an object without
  // its size, an error answer: none is a listing.
  for (const std::string& bad :
       {std::string("<ListBucketResult><IsTruncated>true</IsTruncated></ListBucketResult>"),
        std::string("<ListBucketResult><Contents><Key>k</Key><LastModified>2026-01-01T00:00:00Z"
                    "</LastModified></Contents></ListBucketResult>"),
        std::string("<Error><Code>NoSuchBucket</Code></Error>"),
        std::string("<ListBucketResult")}) {
    EXPECT_FALSE(velagent::parseListing(bad, listing, error)) << bad;
  }
}

TEST(S3ProtocolTest, ErrorsCopiesUploadsAndBatchRemovals) {
  velagent::S3Error failure;
  ASSERT_TRUE(velagent::parseS3Error(
      "<?xml version=\"1.0\"?><Error><Code>SlowDown</Code><Message>Please reduce your request "
      "rate.</Message><RequestId>tx1</RequestId></Error>",
      failure));
  EXPECT_EQ(failure.code, "SlowDown");
  EXPECT_EQ(failure.message, "Please reduce your request rate.");
  EXPECT_FALSE(velagent::parseS3Error("", failure));
  EXPECT_FALSE(velagent::parseS3Error("<CopyObjectResult/>", failure));

  // A copy answers 200 and may still have failed: the body says so.
  std::string etag;
  EXPECT_TRUE(velagent::parseCopyResult(
      "<CopyObjectResult><LastModified>2026-11-25T17:19:44.220Z</LastModified>"
      "<ETag>b1946ac92492d2347c6235b4d2611184</ETag></CopyObjectResult>",
      etag, failure));
  EXPECT_EQ(etag, "b1946ac92492d2347c6235b4d2611184");
  EXPECT_FALSE(
      velagent::parseCopyResult("<Error><Code>InternalError</Code></Error>", etag, failure));
  EXPECT_EQ(failure.code, "InternalError");

  std::string uploadId;
  std::string error;
  EXPECT_TRUE(velagent::parseUploadId(
      "<InitiateMultipartUploadResult><Bucket>b</Bucket><Key>k</Key><UploadId>2~e0Nh</UploadId>"
      "</InitiateMultipartUploadResult>",
      uploadId, error));
  EXPECT_EQ(uploadId, "2~e0Nh");
  EXPECT_FALSE(velagent::parseUploadId("<InitiateMultipartUploadResult/>", uploadId, error));
  EXPECT_EQ(velagent::completeBody({"\"aa\"", "bb"}),
            "<?xml version=\"1.0\"?><CompleteMultipartUpload "
            "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Part><PartNumber>1</PartNumber>"
            "<ETag>\"aa\"</ETag></Part><Part><PartNumber>2</PartNumber><ETag>\"bb\"</ETag></Part>"
            "</CompleteMultipartUpload>");
  std::string completed;
  EXPECT_TRUE(velagent::parseCompleteResult(
      "<CompleteMultipartUploadResult><Bucket>b</Bucket><Key>k</Key><ETag></ETag>"
      "</CompleteMultipartUploadResult>",
      completed));
  EXPECT_EQ(completed, "");
  EXPECT_TRUE(
      velagent::parseCompleteResult("<CompleteMultipartUploadResult><ETag>&quot;a15-2&quot;</"
                                    "ETag></CompleteMultipartUploadResult>",
                                    completed));
  EXPECT_EQ(completed, "a15-2");
  EXPECT_FALSE(
      velagent::parseCompleteResult("<Error><Code>InternalError</Code></Error>", completed));
  std::vector<velagent::S3Upload> uploads;
  EXPECT_TRUE(velagent::parseUploads(
      "<ListMultipartUploadsResult><Upload><Key>t/big</Key><UploadId>2~x</UploadId></Upload>"
      "</ListMultipartUploadsResult>",
      uploads, error));
  ASSERT_EQ(uploads.size(), 1u);
  EXPECT_EQ(uploads[0].key, "t/big");

  EXPECT_EQ(velagent::deleteBody({"t/a&b", "t/"}),
            "<?xml version=\"1.0\"?><Delete xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">"
            "<Quiet>true</Quiet><Object><Key>t/a&amp;b</Key></Object><Object><Key>t/</Key>"
            "</Object></Delete>");
  std::vector<std::pair<std::string, velagent::S3Error>> failed;
  EXPECT_TRUE(velagent::parseDeleteResult(
      "<DeleteResult><Deleted><Key>t/</Key></Deleted><Error><Key>t/x</Key><Code>AccessDenied"
      "</Code><Message>no</Message></Error></DeleteResult>",
      failed, error));
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].first, "t/x");
  EXPECT_EQ(failed[0].second.code, "AccessDenied");
}

TEST(S3ProtocolTest, EtagsTimesAndMetadata) {
  EXPECT_EQ(velagent::bareEtag(" \"abc\" "), "abc");
  EXPECT_EQ(velagent::bareEtag("W/\"abc\""), "abc");
  EXPECT_EQ(velagent::bareEtag("abc"), "abc");
  EXPECT_TRUE(velagent::isContentEtag("b1946ac92492d2347c6235b4d2611184"));
  EXPECT_FALSE(velagent::isContentEtag("a1511828e07c5aef31e961c427e9e413-2"));
  EXPECT_FALSE(velagent::isContentEtag("b1946ac92492d2347c6235b4d261118"));
  EXPECT_FALSE(velagent::isContentEtag(""));
  // Two parts uploaded to Ceph's gateway, and the ETag it gave the whole.
  EXPECT_EQ(velagent::multipartEtag(
                {"392c63afe238c9bc780311a7ef99eaf9", "b30f80aff1fc5633092b8da9ac0ea6eb"}),
            "a1511828e07c5aef31e961c427e9e413-2");
  EXPECT_EQ(velagent::multipartEtag({"392c63afe238c9bc780311a7ef99eaf9", "not-an-md5"}), "");

  struct TimeCase {
    const char* text;
    bool ok;
    time_t value;
  };
  for (const TimeCase& c : std::vector<TimeCase>{{"1970-01-01T00:00:00Z", true, 0},
                                                 {"2024-02-29T12:00:01.5Z", true, 1709208001},
                                                 {"2024-02-29T14:00:01+02:00", true, 1709208001},
                                                 {"2024-02-29 12:00:01Z", false, 0},
                                                 {"2024-13-01T00:00:00Z", false, 0},
                                                 {"2024-01-01T00:00:00", false, 0}}) {
    time_t value = -1;
    EXPECT_EQ(velagent::parseIsoTime(c.text, value), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(value, c.value) << c.text;
    }
  }

  EXPECT_EQ(velagent::formatMode(0644, false), "100644");
  EXPECT_EQ(velagent::formatMode(01751, true), "41751");
  unsigned mode = 0;
  EXPECT_TRUE(velagent::parseMode("100644", mode));
  EXPECT_EQ(mode, 0644u);
  EXPECT_TRUE(velagent::parseMode(" 0750", mode));
  EXPECT_EQ(mode, 0750u);
  EXPECT_FALSE(velagent::parseMode("644x", mode));
  EXPECT_FALSE(velagent::parseMode("", mode));
  EXPECT_FALSE(velagent::parseMode("8", mode));

  EXPECT_EQ(velagent::formatMtime(1700000000, 5), "1700000000.000000005");
  time_t mtime = 0;
  EXPECT_TRUE(velagent::parseMtime("1700000000.000000005", mtime));
  EXPECT_EQ(mtime, 1700000000);
  EXPECT_TRUE(velagent::parseMtime("1700000001", mtime));
  EXPECT_EQ(mtime, 1700000001);
  EXPECT_TRUE(velagent::parseMtime("2023-11-14T22:13:20Z", mtime));
  EXPECT_EQ(mtime, 1700000000);
  EXPECT_FALSE(velagent::parseMtime("17e8", mtime));
  EXPECT_FALSE(velagent::parseMtime("1700000000.", mtime));
}

TEST(S3ProtocolTest, CredentialsFileReadsTheDefaultSectionAndNeverQuotesIt) {
  velagent::S3Credentials credentials;
  std::string error;
  ASSERT_TRUE(
      velagent::parseCredentials("# keys\n[other]\naws_access_key_id = WRONG\n"
                                 "[default]\r\naws_access_key_id = AKID\r\n"
                                 "aws_secret_access_key=se=cret \n"
                                 "aws_session_token = tok\nregion = eu-west-1\n"
                                 "[later]\naws_secret_access_key = WRONG\n",
                                 credentials, error))
      << error;
  EXPECT_EQ(credentials.accessKey, "AKID");
  EXPECT_EQ(credentials.secretKey, "se=cret");
  EXPECT_EQ(credentials.sessionToken, "tok");
  EXPECT_EQ(credentials.region, "eu-west-1");
  // Lines before any section count as the default one.
  ASSERT_TRUE(velagent::parseCredentials("aws_access_key_id=A\naws_secret_access_key=B",
                                         credentials, error));
  EXPECT_EQ(credentials.secretKey, "B");

  for (const char* bad : {"[default]\naws_access_key_id = A\n",
                          "[other]\naws_access_key_id = A\n"
                          "aws_secret_access_key = Sekr1t\n",
                          "[default]\naws_access_key_id A\naws_secret_access_key = Sekr1t\n"}) {
    EXPECT_FALSE(velagent::parseCredentials(bad, credentials, error)) << bad;
    EXPECT_EQ(error.find("Sekr1t"), std::string::npos) << error;
  }
}

}  // namespace
