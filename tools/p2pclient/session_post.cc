#include "tools/p2pclient/session_post.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>

namespace quorvel {
namespace p2pclient {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using boost::system::error_code;

// The device's description is a few hundred bytes; anything much larger is
// not an answer from a device.
constexpr std::size_t AnswerLimit = 64 * 1024;

// Runs the io_context until the operation just started completes; the
// stream's or the resolver's timer cancels it at the deadline.
void runOne(asio::io_context& io) {
  io.restart();
  io.run();
}

std::string describe(const DeviceUrl& url) { return url.host + ":" + url.port; }

}  // namespace

SessionAnswer postSession(const DeviceUrl& url, const std::string& description, std::chrono::milliseconds timeout) {
  asio::io_context io;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  bool timedOut = false;

  // Name lookup runs on asio's resolver thread: bound it with a timer.
  tcp::resolver resolver(io);
  asio::steady_timer lookupTimer(io, deadline);
  lookupTimer.async_wait([&](const error_code& ec) {
    if (ec) return;
    timedOut = true;
    resolver.cancel();
  });
  error_code ec;
  tcp::resolver::results_type addresses;
  resolver.async_resolve(url.host, url.port, [&](const error_code& error, tcp::resolver::results_type results) {
    ec = error;
    addresses = std::move(results);
    lookupTimer.cancel();
  });
  runOne(io);
  if (timedOut) throw RelayError("cannot resolve the relay host " + url.host + ": no answer in time");
  if (ec) throw RelayError("cannot resolve the relay host " + url.host + ": " + ec.message());

  beast::tcp_stream stream(io);
  stream.expires_at(deadline);
  stream.async_connect(addresses, [&](const error_code& error, const tcp::endpoint&) { ec = error; });
  runOne(io);
  if (ec == beast::error::timeout) throw RelayError("cannot connect to the relay at " + describe(url) + ": time-out");
  if (ec) throw RelayError("cannot connect to the relay at " + describe(url) + ": " + ec.message());

  http::request<http::string_body> request(http::verb::post, url.target, 11);
  request.set(http::field::host, url.hostField);
  request.set(http::field::user_agent, "ferrule-p2pclient");
  request.set(http::field::content_type, "text/plain");
  request.set(http::field::connection, "close");
  request.body() = description;
  request.prepare_payload();
  http::async_write(stream, request, [&](const error_code& error, std::size_t) { ec = error; });
  runOne(io);
  if (ec == beast::error::timeout) throw RelayError("no answer from the relay at " + describe(url) + " in time");
  if (ec) throw RelayError("cannot send the session request to the relay at " + describe(url) + ": " + ec.message());

  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(AnswerLimit);
  http::async_read(stream, buffer, parser, [&](const error_code& error, std::size_t) { ec = error; });
  runOne(io);
  if (ec == beast::error::timeout) throw RelayError("no answer from the relay at " + describe(url) + " in time");
  if (ec == http::error::end_of_stream || ec == asio::error::eof || ec == asio::error::connection_reset) {
    throw RelayError("the relay at " + describe(url) + " closed the connection without an answer");
  }
  if (ec) throw RelayError("bad answer from the relay at " + describe(url) + ": " + ec.message());

  const auto& response = parser.get();
  stream.socket().shutdown(tcp::socket::shutdown_both, ec);
  return SessionAnswer{response.result_int(), std::string(response.reason()), response.body()};
}

}  // namespace p2pclient
}  // namespace quorvel
