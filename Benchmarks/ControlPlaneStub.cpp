#include "Benchmarks/ControlPlaneStub.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <string_view>

#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Platform/Json/Json.h"
#include "Tests/Support/Certificates.h"

class ControlPlaneStub::Channel {
 public:
  Channel(int descriptor, SSL_CTX* context) : descriptor_(descriptor) {
    const int yes = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (!context) return;
    tls_.reset(SSL_new(context), SSL_free);
    SSL_set_fd(tls_.get(), descriptor);
    SSL_accept(tls_.get());
  }
  ~Channel() { ::close(descriptor_); }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // Takes one request off the connection; false when the client has gone.
  bool receive() {
    std::size_t end;
    while ((end = unread_.find("\r\n\r\n")) == unread_.npos)
      if (!readMore()) return false;
    constexpr std::string_view name = "Content-Length: ";
    const auto length = unread_.find(name);
    std::size_t whole = end + 4;
    if (length < end) whole += std::stoul(unread_.substr(length + name.size(), 20));
    while (unread_.size() < whole)
      if (!readMore()) return false;
    unread_.erase(0, whole);
    return true;
  }

  void send(std::string_view bytes) {
    if (tls_)
      SSL_write(tls_.get(), bytes.data(), static_cast<int>(bytes.size()));
    else
      ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }

 private:
  bool readMore() {
    static char bytes[1 << 18];
    const auto count = tls_ ? SSL_read(tls_.get(), bytes, sizeof bytes)
                            : static_cast<int>(::recv(descriptor_, bytes, sizeof bytes, 0));
    if (count > 0) unread_.append(bytes, static_cast<std::size_t>(count));
    return count > 0;
  }

  int descriptor_;
  std::shared_ptr<SSL> tls_;
  std::string unread_;
};

namespace {

std::shared_ptr<SSL_CTX> contextFor(const Certificate& certificate) {
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  BIO* bio = BIO_new_mem_buf(certificate.pem.data(), static_cast<int>(certificate.pem.size()));
  X509* x509 = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  bio = BIO_new_mem_buf(certificate.key.data(), static_cast<int>(certificate.key.size()));
  EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  SSL_CTX_use_certificate(context.get(), x509);
  SSL_CTX_use_PrivateKey(context.get(), key);
  X509_free(x509);
  EVP_PKEY_free(key);
  return context;
}

// One answer for every request: each finds in it what it looks for.
std::string answer() {
  const std::string body = Json(Json::Object{{"run_id", "run-1"},
                                             {"workflow_id", "workflow-1"},
                                             {"started_at", Clock::dateTime()},
                                             {"date", Clock::date()},
                                             {"action", "allow"}})
                               .compact();
  return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace

ControlPlaneStub::ControlPlaneStub(std::chrono::milliseconds roundTrip, const std::string& authorityFile)
    : roundTrip_(roundTrip) {
  ::signal(SIGPIPE, SIG_IGN);
  if (!authorityFile.empty()) {
    const Certificate authority = makeAuthority();
    tls_ = contextFor(makeServerCertificate(authority, {"127.0.0.1"}));
    Files::write(authorityFile, authority.pem);
  }
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_, 16) != 0)
    throw std::runtime_error("the control plane cannot listen");
  thread_ = std::thread([this] { acceptAll(); });
}

ControlPlaneStub::~ControlPlaneStub() {
  ::shutdown(listener_, SHUT_RDWR);
  thread_.join();
  ::close(listener_);
}

std::string ControlPlaneStub::url() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
  return (tls_ ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(ntohs(address.sin_port));
}

ControlPlaneStub::Traffic ControlPlaneStub::traffic() {
  Traffic traffic{connections_.exchange(0), requests_.exchange(0)};
  traffic.roundTrips = traffic.requests + traffic.connections * roundTripsToConnect();
  return traffic;
}

void ControlPlaneStub::acceptAll() {
  for (int descriptor; (descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
    ++connections_;
    Channel channel(descriptor, tls_.get());
    serve(channel);
  }
}

void ControlPlaneStub::serve(Channel& channel) {
  // The first answer also waits for the round trips that opened the connection.
  auto distance = roundTrip_ * (1 + roundTripsToConnect());
  for (; channel.receive(); distance = roundTrip_) {
    ++requests_;
    std::this_thread::sleep_for(distance);
    channel.send(answer());
  }
}
