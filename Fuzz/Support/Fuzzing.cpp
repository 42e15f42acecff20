#include "Fuzz/Support/Fuzzing.h"

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <optional>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz({reinterpret_cast<const char*>(data), size});
  return 0;
}

void require(bool kept, std::string_view promise) {
  if (kept) return;
  std::cerr << "Not kept: " << promise << std::endl;
  std::abort();
}

const Sandbox& sandbox() {
  static const Sandbox only;
  return only;
}

FakeControlPlane& plane() {
  static std::optional<FakeControlPlane> serving;
  static int calls = 0;
  return calls++ % 1'000 == 0 ? serving.emplace() : *serving;
}
