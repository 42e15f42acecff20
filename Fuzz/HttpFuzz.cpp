// Any bytes as the answer of a server that then closes the connection.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Fuzz/Support/FuzzHome.h"
#include "Platform/Http/Http.h"
#include "Tests/Support/FakeControlPlane.h"

namespace {

using namespace std::chrono_literals;

// A server remembers every request, so it serves only for a while.
constexpr int requestsPerServer = 1'000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const FuzzHome home;
  static std::optional<FakeControlPlane> plane;
  static int served = 0;
  if (served++ % requestsPerServer == 0) plane.emplace();
  FakeControlPlane::Reply reply;
  reply.raw = std::string(reinterpret_cast<const char*>(data), size);
  reply.closeAfter = true;
  plane->next({reply});
  const Http::Response response = Http::exchange({"POST", plane->url(), {}, "{}"}, {2s, 3s});
  if (response.status == 0) {
    require(response.body.empty(), "there is no body without a status");
    require(response.error.has_value(), "an answer that ends in time is no timeout");
  } else {
    require(response.status >= 100 && response.status <= 999, "a status has three digits");
    require(!response.error, "a whole answer is no error");
    require(response.body.size() <= size, "the body is the server's");
  }
  return 0;
}
