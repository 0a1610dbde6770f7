// What the event loop asks the request reader besides the requests: whether
// a request has begun and not finished (its time-out runs then), whatever
// pieces the bytes came in.
#include "server/request.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using velagent::RequestLimits;
using velagent::RequestReader;

const std::string kRequest = "*2\r\n$4\r\nping\r\n$3\r\nabc\r\n";

TEST(RequestReader, IsMidRequestFromItsFirstByteToItsLastWhateverThePieces) {
  for (size_t cut = 1; cut < kRequest.size(); ++cut) {
    RequestReader reader{RequestLimits()};
    std::vector<std::string> args;
    std::string error;
    EXPECT_FALSE(reader.midRequest());
    reader.feed(kRequest.data(), cut);
    EXPECT_EQ(RequestReader::Result::kIncomplete, reader.next(args, error)) << "cut " << cut;
    EXPECT_TRUE(reader.midRequest()) << "cut " << cut;
    reader.feed(kRequest.data() + cut, kRequest.size() - cut);
    EXPECT_EQ(RequestReader::Result::kRequest, reader.next(args, error)) << "cut " << cut;
    EXPECT_EQ((std::vector<std::string>{"ping", "abc"}), args);
    EXPECT_FALSE(reader.midRequest()) << "cut " << cut;
    EXPECT_EQ(RequestReader::Result::kIncomplete, reader.next(args, error));
    EXPECT_FALSE(reader.midRequest()) << "cut " << cut;
  }
}

TEST(RequestReader, AWholeRequestNotYetTakenOrABegunOneBehindItCount) {
  RequestReader reader{RequestLimits()};
  std::vector<std::string> args;
  std::string error;
  const std::string two = kRequest + kRequest.substr(0, 5);
  reader.feed(two.data(), two.size());
  EXPECT_TRUE(reader.midRequest());  // nothing taken yet
  EXPECT_EQ(RequestReader::Result::kRequest, reader.next(args, error));
  EXPECT_TRUE(reader.midRequest());  // the second has begun
  EXPECT_EQ(RequestReader::Result::kIncomplete, reader.next(args, error));
  EXPECT_TRUE(reader.midRequest());
}

}  // namespace
