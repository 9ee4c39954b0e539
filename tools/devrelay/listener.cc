#include "tools/devrelay/listener.h"

#include <stdexcept>

#include "core/log.h"
#include "tools/devrelay/http_text.h"

namespace quorvel {
namespace devrelay {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {
const log::Log Log("devrelay");
}  // namespace

Listener::Listener(asio::io_context& context, const Endpoint& endpoint, std::string what, AcceptHandler handler)
    : acceptor_(context), retryTimer_(context), what_(std::move(what)), handler_(std::move(handler)) {
  const std::string text = authorityHost(endpoint.address) + ":" + std::to_string(endpoint.port);
  error_code ec;
  const asio::ip::address address = asio::ip::make_address(endpoint.address, ec);
  if (ec) throw std::runtime_error("Not a numeric IP address for the " + what_ + ": " + endpoint.address);
  const tcp::endpoint local(address, endpoint.port);
  acceptor_.open(local.protocol(), ec);
  if (!ec) acceptor_.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) acceptor_.bind(local, ec);
  if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) throw std::runtime_error("Cannot listen on " + text + " for the " + what_ + ": " + ec.message());
}

std::string endpointText(const tcp::endpoint& endpoint) {
  return authorityHost(endpoint.address().to_string()) + ":" + std::to_string(endpoint.port());
}

std::string peerText(const tcp::socket& socket) {
  error_code ec;
  const tcp::endpoint endpoint = socket.remote_endpoint(ec);
  return ec ? "?" : endpointText(endpoint);
}

void Listener::start() {
  QLOG(Log, log::Notice, "Listening for %s on %s", what_, endpointText(endpoint()));
  accept();
}

void Listener::accept() {
  acceptor_.async_accept([self = shared_from_this()](error_code ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted) return;
    if (ec) {
      // Typically out of descriptors: wait a little rather than spin.
      QLOG(Log, log::Warning, "Accepting %s failed: %s", self->what_, ec.message());
      self->retryTimer_.expires_after(std::chrono::milliseconds(100));
      self->retryTimer_.async_wait([self](error_code timerError) {
        if (!timerError) self->accept();
      });
      return;
    }
    error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    self->handler_(std::move(socket));
    self->accept();
  });
}

}  // namespace devrelay
}  // namespace quorvel
