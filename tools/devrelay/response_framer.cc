#include "tools/devrelay/response_framer.h"

#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>

#include "tools/devrelay/http_text.h"

namespace quorvel {
namespace devrelay {

namespace http = boost::beast::http;
using boost::beast::error_code;
using boost::beast::string_view;

namespace {
// A partial chunk-size line or head never legitimately gets this long.
constexpr std::size_t MaxCarry = 64 * 1024;
}  // namespace

class ResponseFramer::Parser : public http::basic_parser<false> {
 public:
  unsigned status = 0;
  std::string reason;

 private:
  void on_request_impl(http::verb, string_view, string_view, int, error_code&) override {}
  void on_response_impl(int code, string_view text, int, error_code&) override {
    status = static_cast<unsigned>(code);
    reason.assign(text.data(), text.size());
  }
  void on_field_impl(http::field, string_view, string_view, error_code&) override {}
  void on_header_impl(error_code&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}
  std::size_t on_body_impl(string_view body, error_code&) override { return body.size(); }
  void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, string_view body, error_code&) override { return body.size(); }
  void on_finish_impl(error_code&) override {}
};

ResponseFramer::ResponseFramer(bool headRequest) : headRequest_(headRequest), parser_(std::make_unique<Parser>()) {
  parser_->header_limit(MaxCarry);
  parser_->body_limit(NoBodyLimit);
  parser_->skip(headRequest_);
}

ResponseFramer::~ResponseFramer() = default;

bool ResponseFramer::fail(const std::string& why) {
  failed_ = true;
  if (error_.empty()) error_ = why;
  return false;
}

// Returns how many bytes the parser consumed; sets failed_ on bad input.
std::size_t ResponseFramer::parse(const char* data, std::size_t size) {
  std::size_t used = 0;
  while (used < size) {
    if (parser_->is_done()) {
      // Interim (1xx) responses precede the real one on the same stream.
      if (status_ >= 100 && status_ < 200) {
        parser_ = std::make_unique<Parser>();
        parser_->header_limit(MaxCarry);
        parser_->body_limit(NoBodyLimit);
        parser_->skip(headRequest_);
      } else {
        fail("data after the end of the response");
        return used;
      }
    }
    error_code ec;
    const std::size_t n = parser_->put(boost::asio::const_buffer(data + used, size - used), ec);
    used += n;
    status_ = parser_->status;
    reason_ = parser_->reason;
    if (ec == http::error::need_more) break;
    if (ec) {
      fail(ec.message());
      return used;
    }
    if (n == 0) break;
  }
  return used;
}

bool ResponseFramer::feed(const char* data, std::size_t size, std::vector<boost::asio::const_buffer>& out) {
  out.clear();
  if (failed_) return false;
  if (carry_.empty()) {
    const std::size_t used = parse(data, size);
    if (failed_) return false;
    carry_.append(data + used, size - used);
  } else {
    carry_.append(data, size);
    const std::size_t used = parse(carry_.data(), carry_.size());
    if (failed_) return false;
    carry_.erase(0, used);
  }
  if (carry_.size() > MaxCarry) return fail("line too long");

  if (forwarding_) {
    if (size > 0) out.emplace_back(data, size);
    return true;
  }
  held_.append(data, size);
  // Only a final status starts forwarding; an interim response alone is held.
  const bool finalHead = parser_->is_header_done() && !(status_ >= 100 && status_ < 200);
  if (finalHead) {
    forwarding_ = true;
    out.emplace_back(held_.data(), held_.size());
  }
  return true;
}

bool ResponseFramer::finish() {
  if (failed_) return false;
  if (!carry_.empty()) return fail("incomplete response");
  if (!parser_->is_done()) {
    error_code ec;
    parser_->put_eof(ec);
    if (ec) return fail(parser_->is_header_done() ? "response body ended early" : "incomplete response head");
  }
  if (!forwarding_) return fail("no final response head");
  return true;
}

bool ResponseFramer::complete() const { return !failed_ && forwarding_ && parser_->is_done(); }

bool ResponseFramer::keepAlive() const { return complete() && parser_->keep_alive(); }

}  // namespace devrelay
}  // namespace quorvel
