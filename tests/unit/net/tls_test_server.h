#pragma once

#include <chrono>
#include <string>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace quorvel {
namespace testing {

// One TLS connection served on 127.0.0.1 by a thread of its own, for tests
// of the client side against a real TLS stack. Results may be read after
// finish().
class TlsTestServer {
 public:
  enum class After {
    Echo,             // send the greeting, then echo everything until the client closes
    CloseNotify,      // send the greeting, then end with close_notify
    Cut,              // send the greeting, then close TCP without close_notify
    Garbage,          // send the greeting, then a record no key can open, and stay
  };

  struct Options {
    std::string certificate;
    std::string key;
    After after = After::Echo;
    std::string greeting;
    int maxVersion = 0;  // e.g. TLS1_1_VERSION to play an old server
  };

  explicit TlsTestServer(const Options& options)
      : options_(options),
        context_(makeContext(options)),
        acceptor_(io_, {boost::asio::ip::make_address("127.0.0.1"), 0}),
        stream_(io_, context_) {
    acceptor_.async_accept(stream_.next_layer(), [this](const boost::system::error_code& error) {
      if (error) return;
      stream_.async_handshake(boost::asio::ssl::stream_base::server,
                              [this](const boost::system::error_code& error) { onHandshake(error); });
    });
    thread_ = std::thread([this] { io_.run_for(std::chrono::seconds(10)); });
  }

  ~TlsTestServer() {
    io_.stop();
    finish();
  }

  unsigned short port() const { return acceptor_.local_endpoint().port(); }

  // Waits until the connection is over (at most the thread's time limit).
  void finish() {
    if (thread_.joinable()) thread_.join();
  }

  bool handshakeDone() const { return handshakeDone_; }
  const std::string& handshakeError() const { return handshakeError_; }
  // The server name the client sent, empty without SNI.
  const std::string& serverName() const { return serverName_; }
  std::size_t applicationBytes() const { return applicationBytes_; }

 private:
  using Stream = boost::asio::ssl::stream<boost::asio::ip::tcp::socket>;

  static boost::asio::ssl::context makeContext(const Options& options) {
    boost::asio::ssl::context context(boost::asio::ssl::context::tls_server);
    context.use_certificate_chain_file(options.certificate);
    context.use_private_key_file(options.key, boost::asio::ssl::context::pem);
    if (options.maxVersion != 0) {
      SSL_CTX* handle = context.native_handle();
      SSL_CTX_set_security_level(handle, 0);
      SSL_CTX_set_cipher_list(handle, "DEFAULT@SECLEVEL=0");
      SSL_CTX_set_min_proto_version(handle, TLS1_VERSION);
      SSL_CTX_set_max_proto_version(handle, options.maxVersion);
    }
    return context;
  }

  void onHandshake(const boost::system::error_code& error) {
    const char* name = SSL_get_servername(stream_.native_handle(), TLSEXT_NAMETYPE_host_name);
    serverName_ = name ? name : "";
    if (error) {
      handshakeError_ = error.message();
      stream_.next_layer().close();
      return;
    }
    handshakeDone_ = true;
    boost::asio::async_write(stream_, boost::asio::buffer(options_.greeting),
                             [this](const boost::system::error_code& error, std::size_t) {
                               if (error) return;
                               if (options_.after == After::Echo) {
                                 read();
                               } else if (options_.after == After::CloseNotify) {
                                 stream_.async_shutdown([this](const boost::system::error_code&) {
                                   stream_.next_layer().close();
                                 });
                               } else if (options_.after == After::Cut) {
                                 stream_.next_layer().close();
                               } else if (options_.after == After::Garbage) {
                                 static const char record[] = "\x17\x03\x03\x00\x14not a sealed record!";
                                 boost::asio::write(stream_.next_layer(),
                                                    boost::asio::buffer(record, sizeof record - 1));
                                 read();
                               }
                             });
  }

  void read() {
    stream_.async_read_some(boost::asio::buffer(chunk_, sizeof chunk_),
                            [this](const boost::system::error_code& error, std::size_t bytes) {
                              if (error) {
                                stream_.next_layer().close();
                                return;
                              }
                              applicationBytes_ += bytes;
                              boost::asio::async_write(stream_, boost::asio::buffer(chunk_, bytes),
                                                       [this](const boost::system::error_code& error, std::size_t) {
                                                         if (!error) read();
                                                       });
                            });
  }

  Options options_;
  boost::asio::io_context io_;
  boost::asio::ssl::context context_;
  boost::asio::ip::tcp::acceptor acceptor_;
  Stream stream_;
  std::thread thread_;
  bool handshakeDone_ = false;
  std::string handshakeError_;
  std::string serverName_;
  std::size_t applicationBytes_ = 0;
  char chunk_[16384];
};

}  // namespace testing
}  // namespace quorvel
