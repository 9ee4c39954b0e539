#pragma once

#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "tools/devrelay/options.h"

namespace quorvel {
namespace devrelay {

// "address:port", IPv6 addresses in brackets.
std::string endpointText(const boost::asio::ip::tcp::endpoint& endpoint);
// The peer's endpointText, or "?" once the socket is no longer connected.
std::string peerText(const boost::asio::ip::tcp::socket& socket);

// Accepts connections on one port and hands each socket on.
class Listener : public std::enable_shared_from_this<Listener> {
 public:
  using AcceptHandler = std::function<void(boost::asio::ip::tcp::socket)>;

  // Throws std::runtime_error naming the address when it cannot listen.
  Listener(boost::asio::io_context& context, const Endpoint& endpoint, std::string what, AcceptHandler handler);

  void start();
  boost::asio::ip::tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }

 private:
  void accept();

  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer retryTimer_;
  std::string what_;
  AcceptHandler handler_;
};

}  // namespace devrelay
}  // namespace quorvel
