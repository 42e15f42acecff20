// Names of hosts and users, without the plug-ins of the system.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <cstring>
#include <filesystem>
#include <thread>

#include "Platform/Http/Http.h"
#include "Platform/Process.h"
#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"
#include "Tests/Support/Table.h"

using namespace std::chrono_literals;
using boost::asio::ip::udp;
using std::chrono::steady_clock;

// While it is set: the folder that has the files of names, and the port that stands for that of name servers.
static std::optional<std::pair<std::string, int>> names;

template <typename Function>
static Function* systems(const char* name, Function*) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

// They stand before the C library's.
extern "C" FILE* fopen(const char* path, const char* mode) {
  static const auto real = systems("fopen", &fopen);
  const std::string name = path;
  const bool isOfNames = names && (name == "/etc/hosts" || name == "/etc/resolv.conf");
  return real(isOfNames ? (names->first + name).c_str() : path, mode);
}

extern "C" int connect(int socket, const sockaddr* address, socklen_t size) {
  static const auto real = systems("connect", &connect);
  sockaddr_in place{};
  std::memcpy(&place, address, std::min<std::size_t>(size, sizeof place));
  if (!names || place.sin_family != AF_INET || place.sin_port != htons(53))
    return real(socket, address, size);
  place.sin_port = htons(static_cast<std::uint16_t>(names->second));
  return real(socket, reinterpret_cast<const sockaddr*>(&place), sizeof place);
}

namespace {

Http::Response get(const std::string& url, const Http::Timeouts& timeout = {10s, 20s}) {
  return Http::exchange({"GET", url, {}, ""}, timeout);
}

// A name server that answers every question for an IPv4 address with 127.0.0.1, but for names with "no" in
// them, which do not exist, and those with "silent", of which it says nothing.
class NameServer {
 public:
  ~NameServer() {
    socket_.send_to(boost::asio::buffer("", 0), socket_.local_endpoint());  // ends `serve`
    thread_.join();
  }
  int port() const { return socket_.local_endpoint().port(); }

 private:
  void serve() {
    char bytes[512];
    for (udp::endpoint from; const auto size = socket_.receive_from(boost::asio::buffer(bytes), from);) {
      std::string answer(bytes, size);
      if (answer.find("silent") != answer.npos) continue;
      const bool exists = answer.find("no") == answer.npos, isForIPv4 = answer[size - 3] == 1;
      answer[2] = '\x81';
      answer[3] = exists ? '\x80' : '\x83';
      answer[7] = exists && isForIPv4;
      if (answer[7]) answer += std::string("\xc0\x0c\0\x01\0\x01\0\0\0\x09\0\x04\x7f\0\0\x01", 16);
      socket_.send_to(boost::asio::buffer(answer), from);
    }
  }

  boost::asio::io_context context_;
  udp::socket socket_{context_, {boost::asio::ip::address_v4::loopback(), 0}};
  std::thread thread_{[this] { serve(); }};
};

struct Names : testing::Test {
  ~Names() override { names.reset(); }
  // From now on these are the names that are known.
  void know(const std::string& hosts, int nameServer) {
    sandbox.write(sandbox.root() + "/etc/hosts", hosts);
    sandbox.write(sandbox.root() + "/etc/resolv.conf", "nameserver 127.0.0.1\n");
    names = {sandbox.root(), nameServer};
  }

  Sandbox sandbox;
};

TEST_F(Names, KnowsTheNamesOfTheFileOfHostsAndOfTheNameServer) {
  const NameServer nameServer;
  know("127.0.0.1 one.test\n", nameServer.port());
  FakeControlPlane server;
  for (const char* host : {"one.test", "asked.test", "ASKED.test.", "127.0.0.1.example"})
    EXPECT_EQ(get(server.url(host)).error, std::nullopt) << host;
  EXPECT_EQ(get("http://nowhere.test/").error, "looking up nowhere.test: Domain name not found");
  EXPECT_EQ(get("http://silent.test/", {200ms, 20s}).error, "looking up silent.test: timed out");
  EXPECT_EQ(get("http://silent.test/", {20s, 200ms}).error, std::nullopt);
}

TEST_F(Names, TriesTheAddressesOfAHostInTurn) {
  know("127.0.0.2 two.test\n127.0.0.1 two.test\n", 1);
  FakeControlPlane server, six({.address = "::1"});
  EXPECT_EQ(get(server.url("LocalHost")).status, 200);
  EXPECT_EQ(get(six.url()).status, 200);
  EXPECT_EQ(six.requests().at(0).headers.at("host"), "[::1]:" + std::to_string(six.port()));
  EXPECT_EQ(get(server.url("two.test")).status, 200) << "the first refuses";
  FakeControlPlane silent({.unaccepting = true, .address = "127.0.0.2", .port = server.port()});
  for (const auto& [idle, share] : {std::pair{2s, 1s}, {20s, 3s}}) {
    get(six.url());  // the kept connection would serve
    const auto start = steady_clock::now();
    EXPECT_EQ(get(server.url("two.test"), {idle, 7s}).status, 200) << "the first does not answer";
    EXPECT_GE(steady_clock::now() - start, share);
  }
}

TEST_F(Names, EveryUserHasTheHomeOfTheDatabase) {
  int users = 0;
  for (::setpwent(); const passwd* user = ::getpwent(); ++users)
    EXPECT_EQ(Process::homeOf(user->pw_name), user->pw_dir);
  EXPECT_GT(users, 0);
  for (const char* nobody : {"", "no-such-user", "0", "x", "/root"})
    EXPECT_EQ(Process::homeOf(nobody), std::nullopt) << nobody;
  sandbox.unset("HOME");
  EXPECT_EQ(Process::home(), ::getpwuid(::getuid())->pw_dir);
}

// They would have to be found beside a static executable, in the version that it was linked with.
TEST(Library, CallsNothingThatLoadsPlugIns) {
  const auto archive = std::filesystem::path(QUIB_HOOK_EXECUTABLE).parent_path() / "libquib.a";
  const auto symbols = Process::run("/usr/bin/nm", {"-u", archive}).value_or("");
  EXPECT_NE(symbols.find(" U recv"), symbols.npos);
  for (const auto& name : words("getpw getgr getaddrinfo getnameinfo gethostby getserv iconv dlopen"))
    EXPECT_EQ(symbols.find(" U " + name), symbols.npos) << name;
}

}  // namespace
