// The least work a device side of the relay protocol can do per relayed
// request, as a yardstick for the daemon: a lean event loop that does the
// protocol's steps and nothing else. It registers (blocking), then keeps one
// relay GET outstanding over TLS; each relayed request is written to the
// target as it came, and the target's answer is posted to the reply URL
// (plain HTTP, as the daemon does), while the next GET is already out.
//
// Connections are kept and reused, names are looked up once, each message
// goes out in one write and is read with as few reads as the bytes allow,
// and nothing is logged.
//
// Only what the benchmark's relay and target send is understood: messages
// with Content-Length (no chunked bodies), small enough for one write, no
// pipelining. Anything else ends the program with a message.
//
//   bench_relay_floor KEY RELAY_DOMAIN TLS_PORT TARGET_HOST:PORT
//
// TLS verifies the relay's chain and name against OpenSSL's default paths
// (SSL_CERT_FILE points a test at its own CA).

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <strings.h>
#include <sys/uio.h>
#include <unistd.h>

#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

[[noreturn]] void die(const std::string& why) {
  std::fprintf(stderr, "bench_relay_floor: %s\n", why.c_str());
  std::exit(1);
}

int connectTo(const std::string& host, const std::string& port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0 || !found) die("cannot resolve " + host);
  const int fd = socket(found->ai_family, SOCK_STREAM, 0);
  if (fd < 0 || connect(fd, found->ai_addr, found->ai_addrlen) != 0) die("cannot connect to " + host + ":" + port);
  freeaddrinfo(found);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

// One connection, plain or TLS, with a buffer that keeps what has not been
// consumed. Blocking until nonBlocking() is called.
class Connection {
 public:
  enum Role { RelayGet, Target, Reply };

  Connection(const std::string& host, const std::string& port, SSL_CTX* tls, Role role)
      : role_(role), fd_(connectTo(host, port)) {
    if (!tls) return;
    ssl_ = SSL_new(tls);
    SSL_set_fd(ssl_, fd_);
    SSL_set_tlsext_host_name(ssl_, host.c_str());
    SSL_set1_host(ssl_, host.c_str());
    if (SSL_connect(ssl_) != 1) die("TLS handshake with " + host + " failed");
  }

  Role role() const { return role_; }
  int fd() const { return fd_; }
  void nonBlocking() { fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK); }

  // Small messages to a loopback peer: one write takes them whole.
  void write(const std::string& head, const char* body = nullptr, std::size_t bodySize = 0) {
    if (ssl_) {
      // One record carries head and body alike.
      std::string all = head;
      all.append(body ? body : "", bodySize);
      if (SSL_write(ssl_, all.data(), static_cast<int>(all.size())) != static_cast<int>(all.size())) {
        die("TLS write failed");
      }
      return;
    }
    iovec parts[2] = {{const_cast<char*>(head.data()), head.size()}, {const_cast<char*>(body), bodySize}};
    const ssize_t sent = writev(fd_, parts, bodySize ? 2 : 1);
    if (sent != static_cast<ssize_t>(head.size() + bodySize)) die("write failed");
  }

  // Blocking: reads until one whole message is there; returns its head's size.
  std::size_t readMessage() {
    std::size_t headSize;
    while (!hasMessage(headSize)) {
      if (read() <= 0) die("connection closed");
    }
    return headSize;
  }

  // Non-blocking: one read, as epoll said there is something; false when
  // the peer has closed.
  bool readAvailable() {
    const long got = read();
    if (got == 0) return false;
    if (got < 0) return true;  // nothing after all
    // Records that OpenSSL has already read in come without a system call.
    while (ssl_ && SSL_has_pending(ssl_) && read() > 0) {
    }
    return true;
  }

  // Whether a whole message (with a Content-Length, or none) is there; it is
  // then message(), its head the first `headSize` bytes.
  bool hasMessage(std::size_t& headSize) {
    const char* base = buffer_ + start_;
    const void* blank = memmem(base, used_ - start_, "\r\n\r\n", 4);
    if (!blank) return false;
    headSize = static_cast<std::size_t>(static_cast<const char*>(blank) - base) + 4;
    const std::size_t total = headSize + contentLength(headSize);
    if (used_ - start_ < total) return false;
    end_ = start_ + total;
    return true;
  }
  const char* message() const { return buffer_ + start_; }
  std::size_t messageSize() const { return end_ - start_; }
  // The message has been dealt with.
  void consume() {
    start_ = end_;
    if (start_ == used_) start_ = end_ = used_ = 0;
  }

  // A target or reply connection between its request and the answer.
  bool busy = false;
  // On a target connection: where its answer is to be posted.
  std::string replyPath;

 private:
  // Read in place, line by line: the head is not copied.
  std::size_t contentLength(std::size_t headSize) const {
    const std::string_view head(buffer_ + start_, headSize);
    std::size_t length = 0;
    for (std::size_t line = head.find("\r\n") + 2; line < head.size();) {
      const std::size_t next = head.find("\r\n", line) + 2;
      const std::string_view text = head.substr(line, next - line);
      if (startsWithIgnoringCase(text, "transfer-encoding:")) die("chunked bodies are not understood");
      if (startsWithIgnoringCase(text, "content-length:")) length = std::strtoul(text.data() + 15, nullptr, 10);
      line = next;
    }
    return length;
  }

  static bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
  }

  // Bytes read, 0 at the end of the stream, -1 when there is nothing yet.
  long read() {
    if (used_ == sizeof buffer_) {
      if (start_ == 0) die("message too large");
      std::memmove(buffer_, buffer_ + start_, used_ - start_);
      used_ -= start_;
      start_ = end_ = 0;
    }
    const int room = static_cast<int>(sizeof buffer_ - used_);
    long got;
    if (ssl_) {
      got = SSL_read(ssl_, buffer_ + used_, room);
      if (got <= 0) {
        const int error = SSL_get_error(ssl_, static_cast<int>(got));
        if (error == SSL_ERROR_WANT_READ) return -1;
        if (error != SSL_ERROR_ZERO_RETURN) die("TLS read failed");
        return 0;
      }
    } else {
      got = ::read(fd_, buffer_ + used_, static_cast<std::size_t>(room));
      if (got < 0) {
        if (errno == EAGAIN) return -1;
        die("read failed");
      }
    }
    used_ += static_cast<std::size_t>(got);
    return got;
  }

  Role role_;
  int fd_;
  SSL* ssl_ = nullptr;
  char buffer_[65536];
  std::size_t start_ = 0, end_ = 0, used_ = 0;
};

// The target of the Link field of this relation, or empty.
std::string link(const char* head, std::size_t size, const std::string& relation) {
  const std::string_view text(head, size);
  const std::string wanted = ">; rel=\"" + relation + "\"";
  for (std::size_t at = text.find("\r\nLink: <"); at != std::string_view::npos; at = text.find("\r\nLink: <", at + 1)) {
    const std::size_t close = text.find(wanted, at);
    const std::size_t lineEnd = text.find("\r\n", at + 2);
    if (close != std::string_view::npos && close < lineEnd) return std::string(text.substr(at + 9, close - (at + 9)));
  }
  return std::string();
}

unsigned status(const char* head) { return static_cast<unsigned>(std::strtoul(head + 9, nullptr, 10)); }

// "http://host:port/path" into its parts.
void splitUrl(const std::string& url, std::string& host, std::string& port, std::string& path) {
  const std::size_t authority = url.find("://");
  if (authority == std::string::npos) die("not an absolute URL: " + url);
  const std::size_t slash = url.find('/', authority + 3);
  const std::string hostPort = url.substr(authority + 3, slash - (authority + 3));
  path = slash == std::string::npos ? "/" : url.substr(slash);
  const std::size_t colon = hostPort.rfind(':');
  host = hostPort.substr(0, colon);
  port = colon == std::string::npos ? "80" : hostPort.substr(colon + 1);
}

// Keeps every connection; one GET outstanding, the rest as the answers come.
class Floor {
 public:
  Floor(const std::string& key, const std::string& domain, const std::string& tlsPort, const std::string& target)
      : relayHost_(key + "." + domain),
        relayAuthority_(relayHost_ + ":" + tlsPort),
        tls_(SSL_CTX_new(TLS_client_method())) {
    SSL_CTX_set_default_verify_paths(tls_);
    SSL_CTX_set_verify(tls_, SSL_VERIFY_PEER, nullptr);
    // A record's header and body in one read.
    SSL_CTX_set_read_ahead(tls_, 1);
    const std::size_t colon = target.rfind(':');
    targetHost_ = target.substr(0, colon);
    targetPort_ = target.substr(colon + 1);
    relay_ = std::make_unique<Connection>(relayHost_, tlsPort, tls_, Connection::RelayGet);
    register_(key);
  }

  [[noreturn]] void run() {
    epoll_ = epoll_create1(0);
    watch(*relay_);
    requestNext();
    epoll_event events[64];
    while (true) {
      const int count = epoll_wait(epoll_, events, 64, -1);
      if (count < 0 && errno != EINTR) die("epoll_wait failed");
      for (int i = 0; i < count; ++i) onReadable(*static_cast<Connection*>(events[i].data.ptr));
    }
  }

 private:
  void register_(const std::string& key) {
    const std::string form = "drk=" + key;
    relay_->write("POST /rhttp/register HTTP/1.1\r\nHost: " + relayAuthority_ +
                      "\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                      std::to_string(form.size()) + "\r\n\r\n",
                  form.data(), form.size());
    const std::size_t headSize = relay_->readMessage();
    next_ = link(relay_->message(), headSize, "first");
    if (status(relay_->message()) != 201 || next_.empty()) die("registration refused");
    relay_->consume();
  }

  void watch(Connection& connection) {
    connection.nonBlocking();
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &connection;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, connection.fd(), &event) != 0) die("epoll_ctl failed");
  }

  void requestNext() {
    relay_->write("GET " + next_ + " HTTP/1.1\r\nHost: " + relayAuthority_ + "\r\nAccept: message/http\r\n\r\n");
  }

  // A connection of this role from the free list, or a new one.
  Connection& take(Connection::Role role, const std::string& host, const std::string& port) {
    auto& free = role == Connection::Target ? freeTargets_ : freeReplies_;
    if (!free.empty()) {
      Connection* connection = free.back();
      free.pop_back();
      return *connection;
    }
    all_.push_back(std::make_unique<Connection>(host, port, nullptr, role));
    watch(*all_.back());
    return *all_.back();
  }

  void onReadable(Connection& connection) {
    if (!connection.readAvailable()) {
      // A kept connection that the peer closed while it was free.
      if (connection.busy || connection.role() == Connection::RelayGet) die("connection closed");
      auto& free = connection.role() == Connection::Target ? freeTargets_ : freeReplies_;
      free.erase(std::find(free.begin(), free.end(), &connection));
      epoll_ctl(epoll_, EPOLL_CTL_DEL, connection.fd(), nullptr);
      close(connection.fd());
      return;
    }
    std::size_t headSize;
    if (!connection.hasMessage(headSize)) return;
    switch (connection.role()) {
      case Connection::RelayGet: onRelayAnswer(headSize); break;
      case Connection::Target: onTargetAnswer(connection); break;
      case Connection::Reply: onReplyAnswer(connection); break;
    }
  }

  void onRelayAnswer(std::size_t headSize) {
    const char* answer = relay_->message();
    const unsigned code = status(answer);
    next_ = link(answer, headSize, "next");
    if (next_.empty()) die("no next link");
    if (code != 200 && code != 204) die("relay answered " + std::to_string(code));
    if (code == 200) {
      Connection& target = take(Connection::Target, targetHost_, targetPort_);
      std::string host, port;
      splitUrl(link(answer, headSize, "reply"), host, port, target.replyPath);
      if (replyHost_.empty()) {
        replyHost_ = host;
        replyPort_ = port;
      }
      target.busy = true;
      target.write(std::string(), answer + headSize, relay_->messageSize() - headSize);
    }
    relay_->consume();
    requestNext();
  }

  void onTargetAnswer(Connection& target) {
    Connection& reply = take(Connection::Reply, replyHost_, replyPort_);
    reply.busy = true;
    reply.write("POST " + target.replyPath + " HTTP/1.1\r\nHost: " + replyHost_ + ":" + replyPort_ +
                    "\r\nContent-Type: message/http\r\nContent-Length: " + std::to_string(target.messageSize()) +
                    "\r\n\r\n",
                target.message(), target.messageSize());
    target.consume();
    target.busy = false;
    freeTargets_.push_back(&target);
  }

  void onReplyAnswer(Connection& reply) {
    reply.busy = false;
    reply.consume();
    freeReplies_.push_back(&reply);
  }

  const std::string relayHost_, relayAuthority_;
  SSL_CTX* tls_;
  std::string targetHost_, targetPort_, replyHost_, replyPort_, next_;
  std::unique_ptr<Connection> relay_;
  std::vector<std::unique_ptr<Connection>> all_;
  std::vector<Connection*> freeTargets_, freeReplies_;
  int epoll_ = -1;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) die("usage: bench_relay_floor KEY RELAY_DOMAIN TLS_PORT TARGET_HOST:PORT");
  Floor(argv[1], argv[2], argv[3], argv[4]).run();
}
