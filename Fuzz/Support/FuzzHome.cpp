#include "Fuzz/Support/FuzzHome.h"

#include <stdlib.h>

#include <cstdio>
#include <filesystem>

#include "Platform/Clock.h"
#include "Platform/Files.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* productVariables[] = {
    "OBRISK_API_KEY",     "OBRISK_API_URL",
    "OBRISK_AGENT_SLUG",  "CLAUDE_CODE_AGENT_SLUG",
    "OBRISK_PROJECT_KEY", "OBRISK_POLICY_CHECK_FAIL_DEFAULT",
    "HTTP_PROXY",         "HTTPS_PROXY",
    "http_proxy",         "https_proxy",
};

}  // namespace

FuzzHome::FuzzHome() {
  // Memory, where there is such a file system: a fuzzer writes its files thousands of times a second.
  std::string pattern = fs::exists("/dev/shm") ? "/dev/shm/quib-fuzz-XXXXXX" : "/tmp/quib-fuzz-XXXXXX";
  require(::mkdtemp(pattern.data()) != nullptr, "there is a temporary directory");
  root_ = pattern;
  fs::create_directories(home() + "/.obrisk");
  fs::create_directories(project() + "/.obrisk");
  fs::create_directories(root_ + "/state");
  for (const char* name : productVariables)
    ::unsetenv(name);
  ::setenv("HOME", home().c_str(), 1);
  ::setenv("OBRISK_CC_STATE_DIR", (root_ + "/state").c_str(), 1);
}

FuzzHome::~FuzzHome() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

void FuzzHome::write(const std::string& path, std::string_view content) {
  require(!Files::write(path, content), "a file can be written");
}

SessionState FuzzHome::session() const {
  SessionState state;
  state.session_id = "s";
  state.run_id = "run";
  state.cwd = project();
  state.started_at = Clock::dateTime();
  return state;
}

void require(bool kept, std::string_view promise) {
  if (kept) return;
  std::fprintf(stderr, "Not kept: %.*s\n", static_cast<int>(promise.size()), promise.data());
  ::abort();
}
