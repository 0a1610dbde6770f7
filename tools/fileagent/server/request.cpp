#include "server/request.h"

#include <algorithm>

namespace velagent {

namespace {

// Header lines are "*<count>" and "$<length>": a line longer than this is
// no header.
constexpr size_t kMaxLine = 32;
// Space for an argument is reserved up front only this far: a length alone
// must not make the agent allocate.
constexpr size_t kMaxReserve = 1u << 20;
// A buffer up to this size is kept between requests.
constexpr size_t kKeptBuffer = 4096;
const char kNotBulkArray[] = "Protocol error: expected an array of bulk strings";

// A decimal count without sign; false for anything else or above `limit`
// (then `over` says so).
bool parseCount(const std::string& text, size_t limit, size_t& out, bool& over) {
  over = false;
  if (text.empty() || text.size() > 18) {
    over = text.size() > 18 && text.find_first_not_of("0123456789") == std::string::npos;
    return false;
  }
  unsigned long long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value > limit) {
    over = true;
    return false;
  }
  out = static_cast<size_t>(value);
  return true;
}

}  // namespace

bool RequestReader::line(std::string& out, std::string& error) {
  size_t end = buffer_.find("\r\n", pos_);
  if (end == std::string::npos) {
    // The line's CR may already be here without its LF: a line is too long
    // only once more than the line and its CR wait, so that the answer does
    // not depend on where the bytes were cut.
    if (buffer_.size() - pos_ > kMaxLine + 1) {
      error = "Protocol error: header line too long";
    }
    return false;
  }
  if (end - pos_ > kMaxLine) {
    error = "Protocol error: header line too long";
    return false;
  }
  out.assign(buffer_, pos_, end - pos_);
  pos_ = end + 2;
  return true;
}

RequestReader::Result RequestReader::fail(std::string& error, const std::string& text) {
  error = text;
  buffer_.clear();
  pos_ = 0;
  args_.clear();
  return Result::kError;
}

RequestReader::Result RequestReader::next(std::vector<std::string>& args, std::string& error) {
  error.clear();
  for (;;) {
    std::string head;
    switch (state_) {
      case State::kArrayHead: {
        if (pos_ < buffer_.size() && buffer_[pos_] != '*') {
          return fail(error, kNotBulkArray);
        }
        if (!line(head, error)) {
          break;
        }
        bool over = false;
        if (!parseCount(head.substr(1), limits_.maxArgs, expected_, over)) {
          return fail(error, over ? "Protocol error: too many arguments" : kNotBulkArray);
        }
        if (expected_ == 0) {
          return fail(error, kNotBulkArray);
        }
        bytes_ = 0;
        args_.clear();
        args_.reserve(expected_);
        state_ = State::kBulkHead;
        continue;
      }
      case State::kBulkHead: {
        if (pos_ < buffer_.size() && buffer_[pos_] != '$') {
          return fail(error, kNotBulkArray);
        }
        if (!line(head, error)) {
          break;
        }
        bool over = false;
        if (!parseCount(head.substr(1), limits_.maxBytes - bytes_, remaining_, over)) {
          return fail(error, over ? "Protocol error: request too large"
                                  : (head == "$-1" ? kNotBulkArray
                                                   : "Protocol error: invalid bulk length"));
        }
        bytes_ += remaining_;
        args_.emplace_back();
        args_.back().reserve(std::min(remaining_, kMaxReserve));
        state_ = State::kBulkBody;
        continue;
      }
      case State::kBulkBody: {
        size_t take = std::min(remaining_, buffer_.size() - pos_);
        args_.back().append(buffer_, pos_, take);
        pos_ += take;
        remaining_ -= take;
        if (remaining_ > 0) {
          break;
        }
        state_ = State::kBulkEnd;
        continue;
      }
      case State::kBulkEnd: {
        if (buffer_.size() - pos_ < 2) {
          break;
        }
        if (buffer_.compare(pos_, 2, "\r\n") != 0) {
          return fail(error, "Protocol error: bulk string without its end");
        }
        pos_ += 2;
        if (args_.size() < expected_) {
          state_ = State::kBulkHead;
          continue;
        }
        state_ = State::kArrayHead;
        args.swap(args_);
        args_.clear();
        return Result::kRequest;
      }
    }
    // Incomplete (or a header error from line()): drop what is consumed.
    if (!error.empty()) {
      return fail(error, error);
    }
    buffer_.erase(0, pos_);
    pos_ = 0;
    if (buffer_.empty() && state_ == State::kArrayHead && buffer_.capacity() > kKeptBuffer) {
      // Between requests an idle connection keeps no large buffer (within
      // one, the buffer is reused for every piece).
      std::string().swap(buffer_);
    }
    return Result::kIncomplete;
  }
}

}  // namespace velagent
