#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>

#include "tools/devrelay/relay.h"

namespace quorvel {
namespace devrelay {

// One connection from an outside client. Each request it reads becomes an
// exchange queued to the device its Host names; the device side then pulls
// the request body through it and pushes the answer out through it.
class OutsideConnection : public std::enable_shared_from_this<OutsideConnection> {
 public:
  using BodyHandler = std::function<void(boost::system::error_code, boost::asio::const_buffer, bool end)>;
  using WriteHandler = std::function<void(boost::system::error_code)>;

  OutsideConnection(boost::asio::ip::tcp::socket socket, Relay& relay);
  void start();

  // The device side's half. Each call names the exchange, and does nothing
  // (or fails) when that exchange is no longer this connection's current one.
  bool beginDelivery(Exchange& exchange);
  void undoDelivery(const std::shared_ptr<Exchange>& exchange);
  // Reads the next piece of the request body into a buffer that stays valid
  // until the next call.
  void readBody(const Exchange& exchange, BodyHandler handler);
  void bodyDelivered(const Exchange& exchange);
  bool beginReply(const Exchange& exchange);
  void writeReply(const Exchange& exchange, const std::vector<boost::asio::const_buffer>& data, WriteHandler handler);
  void endReply(const Exchange& exchange, bool keepAlive, std::uint64_t bytes);
  // Answers `status` when nothing of the device's answer has gone out yet,
  // else closes the connection.
  void failReply(const Exchange& exchange, unsigned status, const std::string& why);

 private:
  void readHead();
  void onHead(boost::system::error_code ec);
  void answer(unsigned status, const std::string& text, bool keepAlive);
  void startAnswerTimer();
  void onAnswerTimeout(const std::shared_ptr<Exchange>& exchange);
  void watchClient(const std::shared_ptr<Exchange>& exchange);
  void finishExchange();
  void close();
  void drain(std::size_t drained);
  bool isCurrent(const Exchange& exchange) const;
  bool requestKeepAlive() const;

  boost::beast::tcp_stream stream_;
  Relay& relay_;
  const Settings& settings_;
  std::string peer_;
  boost::beast::flat_buffer buffer_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::buffer_body>> parser_;
  std::shared_ptr<Exchange> exchange_;
  boost::asio::steady_timer answerTimer_;
  std::vector<char> bodyBuffer_;
  std::string pending_;  // small answers being written
  bool bodyRead_ = false;
  bool readPending_ = false;
  bool expectContinue_ = false;
  bool continueSent_ = false;
  bool headRequest_ = false;
  bool replyWritten_ = false;
  bool closed_ = false;
  std::uint64_t bodyBytes_ = 0;
};

}  // namespace devrelay
}  // namespace quorvel
