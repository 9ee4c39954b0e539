#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include "tools/devrelay/http_text.h"
#include "tools/devrelay/relay.h"
#include "tools/devrelay/response_framer.h"

namespace quorvel {
namespace devrelay {

using PlainStream = boost::beast::tcp_stream;
using TlsStream = boost::beast::ssl_stream<boost::beast::tcp_stream>;

// One connection from a device, on the TLS or the plain port: registrations,
// relay GETs (long-polls) and the reply POSTs that carry answers back.
template <class Stream>
class DeviceConnection : public PollWaiter, public std::enable_shared_from_this<DeviceConnection<Stream>> {
 public:
  // `plainPort` is the port named in reply URLs.
  DeviceConnection(Stream stream, Relay& relay, std::uint16_t plainPort);
  void start();

  void deliver(std::shared_ptr<Exchange> exchange) override;
  void dismiss() override;

 private:
  static constexpr bool IsTls = std::is_same_v<Stream, TlsStream>;

  boost::asio::ip::tcp::socket& socket() { return boost::beast::get_lowest_layer(stream_).socket(); }
  void expireAfter(Seconds seconds);
  void readRequest();
  void onRequest(boost::system::error_code ec);
  void handleRegister(const std::string& prefix);
  void handleRelay(const std::string& prefix, const std::string& rest);
  void handleReply(const std::string& id);
  void onPollTimeout();
  void watchDevice();
  void stopWaiting();
  std::string nextLink() const;
  void pumpRequestBody();
  void finishPoll();
  // The next piece of the request body into pieceBuffer_.
  void readBodyPiece(std::function<void(boost::system::error_code, std::size_t)> handler);
  void pumpReply();
  void onReplyPiece(std::size_t size, bool end);
  void finishReply();
  void discardThenRespond(unsigned status, const std::string& text, std::size_t discarded = 0);
  void respond(unsigned status, Fields fields, const std::string& text, bool keepAlive);
  bool requestKeepAlive() const;
  // Graceful: a TLS close_notify first; never while a read is pending.
  void close(bool graceful = true);

  Stream stream_;
  Relay& relay_;
  const Settings& settings_;
  std::uint16_t plainPort_;
  std::string peer_;
  boost::beast::flat_buffer buffer_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::buffer_body>> parser_;
  boost::asio::steady_timer pollTimer_;
  std::vector<char> pieceBuffer_;
  std::string out_;      // response head being written
  std::string before_;   // framing around a body piece being written
  std::string after_;
  bool readPending_ = false;
  bool closed_ = false;

  // The relay GET in progress.
  std::string key_;
  std::uint64_t session_ = 0;
  std::string relayPath_;
  std::string replyBase_;
  bool waiting_ = false;
  bool keepAlive_ = true;
  std::shared_ptr<Exchange> exchange_;  // being delivered or answered

  // The reply POST in progress.
  std::optional<ResponseFramer> framer_;
  std::uint64_t replyBytes_ = 0;
  bool headLogged_ = false;
};

extern template class DeviceConnection<PlainStream>;
extern template class DeviceConnection<TlsStream>;

}  // namespace devrelay
}  // namespace quorvel
