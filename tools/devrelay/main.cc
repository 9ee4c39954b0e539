// ferrule-devrelay: a local relay service that devices register with and
// outside clients reach them through. See printUsage for the protocol.
#include <csignal>
#include <iostream>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl/context.hpp>

#include "core/log.h"
#include "core/stdout_writer.h"
#include "tools/devrelay/device_connection.h"
#include "tools/devrelay/listener.h"
#include "tools/devrelay/options.h"
#include "tools/devrelay/outside_connection.h"
#include "tools/devrelay/relay.h"

namespace {
const quorvel::log::Log Log("devrelay");
}  // namespace

int main(int argc, char** argv) {
  using namespace quorvel;
  using namespace quorvel::devrelay;
  namespace asio = boost::asio;

  Settings settings;
  const int status = parseOptions(argc, argv, settings, std::cout, std::cerr);
  if (status >= 0) return status;
  log::setGlobalLevel(settings.logLevel);
  log::addWriter(std::make_shared<log::StdoutWriter>());
  std::signal(SIGPIPE, SIG_IGN);

  asio::ssl::context tls(asio::ssl::context::tls_server);
  try {
    tls.set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                    asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
    tls.use_certificate_chain_file(settings.certificateFile);
    tls.use_private_key_file(settings.keyFile, asio::ssl::context::pem);
  } catch (const std::exception& error) {
    std::cerr << "ferrule-devrelay: Cannot use the certificate " << settings.certificateFile << " and key "
              << settings.keyFile << ": " << error.what() << "\n";
    return 1;
  }

  asio::io_context context(1);
  Relay relay(settings);
  std::uint16_t plainPort = 0;  // known once the plain port is bound
  std::shared_ptr<Listener> plain, secure, outside;
  try {
    plain = std::make_shared<Listener>(context, settings.devicePlain, "devices (plain HTTP, reply URLs)",
                                       [&relay, &plainPort](asio::ip::tcp::socket socket) {
                                         std::make_shared<DeviceConnection<PlainStream>>(
                                             PlainStream(std::move(socket)), relay, plainPort)
                                             ->start();
                                       });
    plainPort = plain->endpoint().port();
    secure = std::make_shared<Listener>(context, settings.deviceTls, "devices (TLS)",
                                        [&relay, &plainPort, &tls](asio::ip::tcp::socket socket) {
                                          std::make_shared<DeviceConnection<TlsStream>>(
                                              TlsStream(PlainStream(std::move(socket)), tls), relay, plainPort)
                                              ->start();
                                        });
    outside = std::make_shared<Listener>(context, settings.outside, "outside clients",
                                         [&relay](asio::ip::tcp::socket socket) {
                                           std::make_shared<OutsideConnection>(std::move(socket), relay)->start();
                                         });
  } catch (const std::exception& error) {
    std::cerr << "ferrule-devrelay: " << error.what() << "\n";
    return 1;
  }

  asio::signal_set signals(context, SIGINT, SIGTERM);
  signals.async_wait([&context](const boost::system::error_code& ec, int number) {
    if (ec) return;
    QLOG(Log, log::Notice, "Got signal %d, stopping", number);
    context.stop();
  });

  QLOG(Log, log::Notice, "ferrule-devrelay starting: poll timeout %.1f s, answer timeout %.1f s, idle timeout %.1f s",
       settings.pollTimeout.count(), settings.answerTimeout.count(), settings.idleTimeout.count());
  secure->start();
  plain->start();
  outside->start();
  context.run();
  QLOG(Log, log::Notice, "Stopped");
  return 0;
}
