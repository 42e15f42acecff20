// Any bytes as the answer of a server that then closes the connection.
#include "Fuzz/Support/Fuzzing.h"
#include "Platform/Http/Http.h"

using namespace std::chrono_literals;

void fuzz(std::string_view input) {
  sandbox();
  FakeControlPlane& answering = plane();
  answering.next({{.closeAfter = true, .raw = std::string(input)}});
  const Http::Response response = Http::exchange({"POST", answering.url(), {}, "{}"}, {2s, 3s});
  const bool answered = response.status != 0;
  require(answered || response.body.empty(), "there is no body without a status");
  require(answered != response.error.has_value(), "an answer is whole, or an error that is no timeout");
  require(!answered || (response.status >= 100 && response.status <= 999), "a status has three digits");
  require(response.body.size() <= input.size(), "the body is the server's");
}
