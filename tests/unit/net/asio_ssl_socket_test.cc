#include <netinet/in.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "net/asio_socket_factory.h"
#include "net/asio_ssl_socket_factory.h"
#include "net/buffer_pool.h"
#include "net/ssl_socket.h"
#include "tests/support/log_capture.h"
#include "tests/unit/net/socket_loop_fixture.h"
#include "tests/unit/net/thrown_text.h"
#include "tests/unit/net/tls_test_server.h"

namespace quorvel {
namespace {

using testing::LogCapture;
using testing::thrownText;
using testing::TlsTestServer;

// A CA, a second CA nobody trusts, and server certificates for "localhost"
// and 127.0.0.1: valid, from the unknown CA, and long expired. `openssl x509`
// cannot date a certificate in the past; `openssl ca` takes explicit dates.
// Then an intermediate CA under the test CA and an RSA and an Ed25519 server
// under it, each as a chain with the intermediate and as the leaf alone.
const char* const MakeCertificates = R"(set -e
key="-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
ca="-x509 -days 2 -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign"
openssl req $key $ca -subj "/CN=Test CA" -keyout ca.key -out ca.pem
openssl req $key $ca -subj "/CN=Other CA" -keyout other.key -out other.pem
openssl req -new $key -subj "/CN=localhost" -keyout server.key -out server.csr
printf 'basicConstraints=CA:FALSE\nsubjectAltName=DNS:localhost,IP:127.0.0.1\nextendedKeyUsage=serverAuth\n' > server.ext
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -set_serial 2 -days 2 -extfile server.ext -out trusted.pem
openssl x509 -req -in server.csr -CA other.pem -CAkey other.key -set_serial 3 -days 2 -extfile server.ext -out unknown.pem
printf '[ca]\ndefault_ca=test\n[test]\ndatabase=index.txt\nnew_certs_dir=.\nserial=serial\n' > ca.cnf
printf 'policy=any\n[any]\ncommonName=supplied\n' >> ca.cnf
: > index.txt
echo 04 > serial
openssl ca -batch -config ca.cnf -cert ca.pem -keyfile ca.key -md sha256 -extfile server.ext -notext \
  -startdate 20200101000000Z -enddate 20200201000000Z -in server.csr -out expired.pem
openssl req -new $key -subj "/CN=Intermediate CA" -keyout inter.key -out inter.csr
printf 'basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign\n' > inter.ext
openssl x509 -req -in inter.csr -CA ca.pem -CAkey ca.key -set_serial 5 -days 2 -extfile inter.ext -out inter.pem
serial=6
for kind in rsa:2048 ed25519; do
  name=${kind%%:*}
  openssl req -new -newkey $kind -nodes -subj "/CN=localhost" -keyout $name.key -out $name.csr
  openssl x509 -req -in $name.csr -CA inter.pem -CAkey inter.key -set_serial $serial -days 2 \
    -extfile server.ext -out $name-leaf.pem
  cat $name-leaf.pem inter.pem > $name-chain.pem
  serial=$((serial + 1))
done
)";

class AsioSslSocketTest : public testing::SocketLoopFixture {
 protected:
  AsioSslSocketTest() : SocketLoopFixture(512) {}

  static void SetUpTestSuite() {
    char pattern[] = "/tmp/ferrule-tls-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    std::ofstream(dir_ + "/make.sh") << MakeCertificates;
    const std::string command = "cd " + dir_ + " && sh make.sh > make.log 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0) << "certificate set-up failed, see " << dir_ << "/make.log";
    // Read when a factory builds its context: only the test CA is trusted.
    setenv("SSL_CERT_FILE", (dir_ + "/ca.pem").c_str(), 1);
    setenv("SSL_CERT_DIR", dir_.c_str(), 1);
  }

  static void TearDownTestSuite() { std::filesystem::remove_all(dir_); }

  void SetUp() override {
    log::setLevel("asiossl", log::Debug);
    capture_ = LogCapture::install();
  }

  static std::string file(const std::string& name) { return dir_ + "/" + name; }

  static TlsTestServer::Options serving(const std::string& certificate,
                                        TlsTestServer::After after = TlsTestServer::After::Echo,
                                        const std::string& greeting = "", const std::string& key = "server.key") {
    TlsTestServer::Options options;
    options.certificate = file(certificate);
    options.key = file(key);
    options.after = after;
    options.greeting = greeting;
    return options;
  }

  std::shared_ptr<AsyncSocket> clientFor(const std::string& hostName, int family = AF_INET) {
    auto socket = factory_.createSocket(family, SOCK_STREAM, 0);
    EXPECT_TRUE(setSslHostName(*socket, hostName));
    return socket;
  }

  static SocketAddress loopback(const TlsTestServer& server) {
    return SocketAddress(AF_INET, SocketAddress::Loopback, server.port());
  }

  // Reads until `expected` bytes or end of stream; returns what arrived.
  std::string receiveUpTo(AsyncSocket& socket, std::size_t expected, int* lastError = nullptr,
                          bool* ended = nullptr) {
    std::string received;
    BufferChainPtr inbound(pool_.allocate(64 * 1024));
    std::function<void(int, std::size_t)> onRead = [&](int error, std::size_t bytes) {
      if (lastError) *lastError = error;
      if (error != 0 || bytes == 0) {
        if (ended) *ended = error == 0;
        stop();
        return;
      }
      received += firstBytes(inbound, bytes);
      largestRead_ = std::max(largestRead_, bytes);
      if (received.size() >= expected) {
        stop();
        return;
      }
      socket.receive(inbound, onRead);
    };
    socket.receive(inbound, onRead);
    run();
    return received;
  }

  // What a send on a socket whose handshake failed reports.
  int sendAfterFailure(AsyncSocket& socket) {
    int result = 0;
    socket.send(chainOf("secret"), [&](int error, std::size_t) {
      result = error;
      stop();
    });
    run();
    return result;
  }

  static std::string dir_;
  std::size_t largestRead_ = 0;
  AsioSslSocketFactory factory_{reactor_, false};
  std::shared_ptr<LogCapture> capture_;
};

std::string AsioSslSocketTest::dir_;

TEST_F(AsioSslSocketTest, FactoryRejectsWhatItCannotMake) {
  EXPECT_EQ(thrownText([&] { factory_.createSocket(AF_INET, SOCK_STREAM, IPPROTO_UDP); }),
            "Unsupported stream protocol");
  EXPECT_EQ(thrownText([&] { factory_.createSocket(1, SOCK_STREAM, 0); }), "Unsupported protocol family");
  EXPECT_EQ(thrownText([&] { factory_.createSocket(AF_INET, SOCK_DGRAM, 0); }), "Unsupported protocol");
  EXPECT_THROW(factory_.createSocket(AF_INET6, SOCK_DGRAM, IPPROTO_UDP), std::logic_error);
  EXPECT_EQ(thrownText([&] { factory_.createListener(AF_INET, SOCK_DGRAM, 0); }), "Unsupported socket type");
  EXPECT_EQ(thrownText([&] { factory_.createListener(AF_INET, SOCK_STREAM, 0); }),
            "SSL listeners not supported: no server certificate");
  EXPECT_THROW(factory_.createListener(AF_INET6, SOCK_STREAM, IPPROTO_TCP), std::logic_error);

  auto tls = factory_.createSocket(AF_INET6, SOCK_STREAM, IPPROTO_TCP);
  EXPECT_EQ(thrownText([&] { tls->sendTo(chainOf("x"), SocketAddress(AF_INET6, SocketAddress::Loopback, 9), {}); }),
            "sendTo not supported by stream sockets");
  EXPECT_EQ(thrownText([&] { tls->receiveFrom(chainOf("x"), {}); }), "receiveFrom not supported by stream sockets");
  EXPECT_TRUE(setSslHostName(*tls, "localhost"));
  EXPECT_FALSE(setSslHostName(*plain_.createSocket(AF_INET, SOCK_STREAM, 0), "localhost"));

  EXPECT_EQ(socketErrorText(SslHostNameMismatch), "certificate does not match the host name");
  EXPECT_EQ(socketErrorText(ECONNREFUSED), "Connection refused");
  EXPECT_EQ(socketErrorText(-1), "error -1");
  EXPECT_TRUE(isSslError(SslStreamError));
  EXPECT_FALSE(isSslError(ECONNRESET));
}

TEST_F(AsioSslSocketTest, TrustedServerExchangesBytesBothWaysByteExact) {
  std::string data(4 << 20, '\0');
  unsigned state = 12345;
  for (char& c : data) {
    state = state * 1103515245u + 12345u;
    c = static_cast<char>(state >> 24);
  }
  // By name (sent as SNI) and by address literal (checked against the
  // certificate's IP entry, no SNI).
  for (const std::string host : {"localhost", "127.0.0.1"}) {
    SCOPED_TRACE(host);
    TlsTestServer server(serving("trusted.pem", TlsTestServer::After::Echo, "hello;"));
    auto client = clientFor(host);
    ASSERT_EQ(connect(*client, loopback(server)), 0);
    EXPECT_EQ(client->remoteAddress(), loopback(server));
    std::size_t sent = 0;
    client->send(chainOf(data), [&](int error, std::size_t bytes) {
      EXPECT_EQ(error, 0);
      sent = bytes;
    });
    const std::string echoed = receiveUpTo(*client, 6 + data.size());
    EXPECT_EQ(sent, data.size());
    EXPECT_TRUE(echoed == "hello;" + data) << "echoed " << echoed.size() << " bytes";
    // What is left of a decrypted record fills the next buffers in the same read.
    EXPECT_GT(largestRead_, 512u);
    client->close();
    server.finish();
    EXPECT_EQ(server.serverName(), host == "localhost" ? "localhost" : "");
    EXPECT_EQ(server.applicationBytes(), data.size());
  }
}

// The leaf-only rows: a chain that stops short of the trusted CA is refused
// whatever the server's key type.
TEST_F(AsioSslSocketTest, VerificationFailuresAreReportedAndNothingIsSent) {
  struct Case {
    const char* certificate;
    const char* key;
    const char* host;
    int code;
    const char* reason;
  };
  const char* const noIssuer = "certificate verify failed: unable to get local issuer certificate";
  const Case cases[] = {
      {"unknown.pem", "server.key", "localhost", SslUntrustedCertificate, noIssuer},
      {"rsa-leaf.pem", "rsa.key", "localhost", SslUntrustedCertificate, noIssuer},
      {"ed25519-leaf.pem", "ed25519.key", "localhost", SslUntrustedCertificate, noIssuer},
      {"trusted.pem", "server.key", "wrong.test", SslHostNameMismatch, "certificate verify failed: hostname mismatch"},
      {"trusted.pem", "server.key", "127.0.0.2", SslHostNameMismatch, "certificate verify failed: IP address mismatch"},
      {"expired.pem", "server.key", "localhost", SslCertificateExpired,
       "certificate verify failed: certificate has expired"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.certificate + std::string(" as ") + c.host);
    capture_->clear();
    TlsTestServer server(serving(c.certificate, TlsTestServer::After::Echo, "", c.key));
    auto client = clientFor(c.host);
    ASSERT_EQ(connect(*client, loopback(server)), c.code);
    EXPECT_TRUE(capture_->contains("TLS handshake with " + std::string(c.host) + " (" +
                                   loopback(server).toString() + ") failed: " + c.reason));

    EXPECT_NE(sendAfterFailure(*client), 0);
    client->close();
    server.finish();
    EXPECT_FALSE(server.handshakeDone());
    EXPECT_EQ(server.applicationBytes(), 0u);
  }
}

// The device's TLS library is built with only what the client needs: the
// usual server key types still verify through an intermediate CA that only
// the server sends, over TLS 1.3 and 1.2 (without it, see the verification
// failures).
TEST_F(AsioSslSocketTest, RsaAndEd25519ServersVerifyThroughAnIntermediate) {
  for (const std::string kind : {"rsa", "ed25519"}) {
    for (const int maxVersion : {0, TLS1_2_VERSION}) {
      SCOPED_TRACE(kind + (maxVersion ? " over TLS 1.2" : ""));
      capture_->clear();
      auto options = serving(kind + "-chain.pem", TlsTestServer::After::Echo, "hi;", kind + ".key");
      options.maxVersion = maxVersion;
      TlsTestServer server(options);
      auto client = clientFor("localhost");
      ASSERT_EQ(connect(*client, loopback(server)), 0);
      client->send(chainOf("x"), {});
      EXPECT_EQ(receiveUpTo(*client, 4), "hi;x");
      client->close();
      server.finish();
      const std::string established = "TLS connection to localhost (" + loopback(server).toString() +
                                      ") established: " + (maxVersion ? "TLSv1.2" : "TLSv1.3") + ", ";
      EXPECT_TRUE(std::any_of(capture_->lines().begin(), capture_->lines().end(), [&](const auto& line) {
        return line.message.compare(0, established.size(), established) == 0;
      }));
    }
  }
}

TEST_F(AsioSslSocketTest, TlsBeforeVersion12IsRefused) {
  auto options = serving("trusted.pem");
  options.maxVersion = TLS1_1_VERSION;
  TlsTestServer server(options);
  auto client = clientFor("localhost");
  EXPECT_EQ(connect(*client, loopback(server)), SslProtocolVersion);
  EXPECT_NE(sendAfterFailure(*client), 0);
  server.finish();
  EXPECT_EQ(server.handshakeError(), "unsupported protocol");
  EXPECT_TRUE(capture_->contains("TLS handshake with localhost (" + loopback(server).toString() +
                                 ") failed: tlsv1 alert protocol version"));
}

TEST_F(AsioSslSocketTest, ConnectWithoutHostNameIsRefusedBeforeAnyTraffic) {
  // Nothing listens here: a connection attempt would be refused by the system.
  auto listener = plain_.createListener(AF_INET, SOCK_STREAM, 0);
  listener->bind(SocketAddress(AF_INET, SocketAddress::Loopback, 0));
  auto client = factory_.createSocket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connect(*client, listener->localAddress()), SslNoHostName);
  // A name OpenSSL cannot check is no better than none.
  auto odd = clientFor(std::string("local\0host", 10));
  EXPECT_EQ(connect(*odd, listener->localAddress()), SslNoHostName);
  EXPECT_EQ(capture_->count("Refusing to connect to " + listener->localAddress().toString() +
                            ": no usable host name to verify the server against ('')"),
            1u);
}

// A chain whose first buffer has no room is read into its next one: a read
// into no room at all would complete at once with nothing, which a reader
// takes for the end of the stream.
TEST_F(AsioSslSocketTest, AReadSkipsABufferWithNoRoom) {
  TlsTestServer server(serving("trusted.pem", TlsTestServer::After::Echo, "hello;"));
  auto client = clientFor("localhost");
  ASSERT_EQ(connect(*client, loopback(server)), 0);
  BufferChainPtr inbound(pool_.allocate(2 * pool_.bufferSize()));
  ASSERT_NE(inbound.chain().first()->next, nullptr);
  inbound.chain().first()->length = 0;
  std::size_t got = 0;
  client->receive(inbound, [&](int error, std::size_t bytes) {
    EXPECT_EQ(error, 0);
    got = bytes;
    stop();
  });
  run();
  ASSERT_GT(got, 0u);
  Buffer* second = inbound.chain().first()->next;
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(second->data()), std::min<std::size_t>(got, 6)),
            std::string("hello;").substr(0, std::min<std::size_t>(got, 6)));
  client->close();
  server.finish();
}

// A record is decrypted whole but read out in small pieces: the pieces left
// in the TLS layer must come without waiting for the socket, which has
// nothing more. Callbacks never run inside the call that started them, even
// when the bytes are already there.
TEST_F(AsioSslSocketTest, SmallReadsEmptyARecordWithoutNewTrafficAndCallbacksComeLater) {
  const std::string greeting = "first;second;third;";
  TlsTestServer server(serving("trusted.pem", TlsTestServer::After::Echo, greeting));
  auto client = clientFor("localhost");
  ASSERT_EQ(connect(*client, loopback(server)), 0);
  // The loop idles while the greeting arrives, so its readiness is seen and
  // passed by before anyone reads: the first read must look before it waits.
  const LifetimeToken idle = makeLifetimeToken();
  reactor_->scheduleAfter(idle, Duration::milliseconds(100), [this] { stop(); });
  run();
  BufferChainPtr piece(pool_.allocate(4));
  ASSERT_EQ(piece.chain().first()->next, nullptr);
  std::string received;
  bool inCall = false;
  int reads = 0;
  std::function<void(int, std::size_t)> onRead = [&](int error, std::size_t bytes) {
    EXPECT_FALSE(inCall);
    ++reads;
    if (error != 0 || bytes == 0) return stop();
    received += firstBytes(piece, bytes);
    if (received.size() >= greeting.size()) return stop();
    inCall = true;
    client->receive(piece, onRead);
    inCall = false;
  };
  inCall = true;
  client->receive(piece, onRead);
  inCall = false;
  run();
  EXPECT_EQ(received, greeting);
  EXPECT_EQ(reads, 5);

  bool sentLater = false;
  inCall = true;
  client->send(chainOf("ping"), [&](int error, std::size_t bytes) {
    EXPECT_FALSE(inCall);
    sentLater = error == 0 && bytes == 4;
    stop();
  });
  inCall = false;
  run();
  EXPECT_TRUE(sentLater);
  client->close();
}

// Writing to a peer that has gone away fails that write; it must not raise
// SIGPIPE, whose default action would end the whole process (this one too).
TEST_F(AsioSslSocketTest, WritingToAVanishedPeerFailsTheWriteOnly) {
  TlsTestServer server(serving("trusted.pem", TlsTestServer::After::Cut, "bye"));
  auto client = clientFor("localhost");
  ASSERT_EQ(connect(*client, loopback(server)), 0);
  // Nothing is read, so only the socket can tell that the peer is gone.
  server.finish();
  const int error = writeUntilRefused(*client);
  EXPECT_TRUE(error == EPIPE || error == ECONNRESET) << socketErrorText(error);
  client->close();
}

TEST_F(AsioSslSocketTest, PeerCloseIsEndOfStreamWithOrWithoutCloseNotify) {
  for (auto after : {TlsTestServer::After::CloseNotify, TlsTestServer::After::Cut}) {
    TlsTestServer server(serving("trusted.pem", after, "bye"));
    auto client = clientFor("localhost");
    ASSERT_EQ(connect(*client, loopback(server)), 0);
    int lastError = -1;
    bool ended = false;
    EXPECT_EQ(receiveUpTo(*client, 100, &lastError, &ended), "bye");
    EXPECT_EQ(lastError, 0);
    EXPECT_TRUE(ended);
    client->close();
  }
  // An ordinary end of stream is no failure worth a line.
  for (const auto& line : capture_->lines()) EXPECT_EQ(line.message.find("Receive on the connection"), std::string::npos);
}

// A record that does not open is a failure worth a line, and the
// connection stays failed: the next read reports it at once rather than
// waiting for traffic that the peer has no reason to send. The bad record
// comes first, or after a good one in the same read.
TEST_F(AsioSslSocketTest, ABrokenRecordFailsThisReadAndTheNext) {
  for (const std::string greeting : {"", "fine;"}) {
    SCOPED_TRACE(greeting);
    TlsTestServer server(serving("trusted.pem", TlsTestServer::After::Garbage, greeting));
    auto client = clientFor("localhost");
    ASSERT_EQ(connect(*client, loopback(server)), 0);
    int lastError = 0;
    EXPECT_EQ(receiveUpTo(*client, 100, &lastError), greeting);
    EXPECT_EQ(lastError, SslStreamError);
    EXPECT_EQ(receiveUpTo(*client, 100, &lastError), "");
    EXPECT_EQ(lastError, SslStreamError);
    client->close();
  }
  EXPECT_EQ(capture_->count("Receive on the connection to localhost failed: decryption failed or bad record mac"), 2u);
}

TEST_F(AsioSslSocketTest, ReleasedSocketCompletesAndCloseCancels) {
  TlsTestServer server(serving("trusted.pem", TlsTestServer::After::Echo, "late"));
  auto client = clientFor("localhost");
  ASSERT_EQ(connect(*client, loopback(server)), 0);

  // Something the callback is bound to, which must still be there when it runs.
  auto target = std::make_shared<std::string>();
  BufferChainPtr inbound(pool_.allocate(16));
  client->receive(inbound, [target, inbound, this](int, std::size_t bytes) {
    *target = firstBytes(inbound, bytes);
    stop();
  });
  std::weak_ptr<std::string> watch = target;
  target.reset();
  inbound.reset();
  client.reset();  // the pending receive keeps the connection and the callback
  ASSERT_FALSE(watch.expired());
  run();
  EXPECT_TRUE(watch.expired());

  TlsTestServer quiet(serving("trusted.pem", TlsTestServer::After::Echo));
  auto second = clientFor("localhost");
  ASSERT_EQ(connect(*second, loopback(quiet)), 0);
  int error = 0;
  auto held = std::make_shared<int>(0);
  second->receive(chainOf("room"), [&, held](int e, std::size_t) {
    error = e;
    stop();
  });
  std::weak_ptr<int> heldWatch = held;
  held.reset();
  second->close();
  second->close();
  run();
  EXPECT_EQ(error, ECANCELED);
  // The socket lives on, and keeps the finished read's block for its next
  // one, but not what the read held: its buffers and its callback.
  EXPECT_TRUE(heldWatch.expired());
  EXPECT_EQ(pool_.freeBuffers(), pool_.totalBuffers());
}

}  // namespace
}  // namespace quorvel
