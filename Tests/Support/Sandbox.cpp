#include "Tests/Support/Sandbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>

#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Platform/Process.h"
#include "Tests/Support/Table.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* productVariables = R"(
  OBRISK_API_KEY OBRISK_API_URL CLAUDE_CODE_AGENT_SLUG OBRISK_AGENT_SLUG OBRISK_PROJECT_KEY OBRISK_CC_STATE_DIR
  OBRISK_POLICY_CHECK_FAIL_DEFAULT HTTP_PROXY HTTPS_PROXY NO_PROXY ALL_PROXY http_proxy https_proxy no_proxy
  all_proxy SSL_CERT_FILE SSL_CERT_DIR)";

void redirect(int descriptor, const std::string& file, int flags) {
  const int opened = ::open(file.c_str(), flags, 0600);
  if (opened < 0 || ::dup2(opened, descriptor) < 0) ::_exit(126);
}

}  // namespace

Sandbox::Sandbox() {
  ::testing::UnitTest::GetInstance();  // so that it outlives a sandbox that is static
  root_ = (fs::temp_directory_path() / "quib-test-XXXXXX").string();
  if (!::mkdtemp(root_.data())) throw std::runtime_error("no temporary directory");
  fs::create_directory(home());
  fs::create_directory(project());
  for (const std::string& name : words(productVariables))
    unset(name);
  set("HOME", home());
  set("OBRISK_CC_STATE_DIR", state());
}

Sandbox::~Sandbox() {
  for (const auto& [name, value] : saved_)
    value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
  if (::testing::Test::HasFailure()) {
    fprintf(stderr, "The files of this test are kept in %s\n", root_.c_str());
    return;
  }
  std::error_code ignored;
  for (auto each = fs::recursive_directory_iterator(root_, ignored); each != fs::end(each);
       each.increment(ignored))
    if (each->is_directory(ignored) && !each->is_symlink(ignored))
      fs::permissions(each->path(), fs::perms::owner_all, ignored);
  fs::remove_all(root_, ignored);
}

void Sandbox::remember(const std::string& name) {
  saved_.try_emplace(name, Process::environment(name.c_str()));
}

void Sandbox::set(const std::string& name, const std::string& value) {
  remember(name);
  ::setenv(name.c_str(), value.c_str(), 1);
}

void Sandbox::unset(const std::string& name) {
  remember(name);
  ::unsetenv(name.c_str());
}

void Sandbox::write(const std::string& path, std::string_view content) {
  fs::create_directories(fs::path(path).parent_path());
  if (const std::error_code error = Files::write(path, content)) throw std::system_error(error, path);
}

void Sandbox::configure(const std::string& url, const std::string& agentSlug) const {
  const std::string slug = agentSlug.empty() ? "" : "agent_slug = " + agentSlug + "\n";
  write(home() + "/.obrisk/config", "[claude-code]\napi_url = " + url + "\napi_key = test-key\n" + slug);
}

ObserveClient Sandbox::client(const std::string& url, const std::string& agentSlug,
                              const std::string& failDefault) {
  ObserveClient client;
  client.config = {
      .apiUrl = url, .apiKey = "test-key", .agentSlug = agentSlug, .policyCheckFailDefault = failDefault};
  client.retryBaseDelay = std::chrono::milliseconds(0);
  return client;
}

SessionState Sandbox::started() const {
  SessionState state;
  state.session_id = "s";
  state.run_id = "run-0";
  state.cwd = project();
  state.started_at = Clock::dateTime();
  return state;
}

int Sandbox::start(const std::vector<std::string>& arguments, const std::string& inputFile,
                   const std::string& outputFile, const std::string& errorFile) const {
  const pid_t child = ::fork();
  if (child != 0) return child;
  redirect(STDIN_FILENO, inputFile, O_RDONLY);
  redirect(STDOUT_FILENO, outputFile, O_WRONLY | O_CREAT | O_TRUNC);
  redirect(STDERR_FILENO, errorFile, O_WRONLY | O_CREAT | O_TRUNC);
  if (::chdir(project().c_str()) != 0) ::_exit(126);
  std::vector<char*> argv{const_cast<char*>(QUIB_HOOK_EXECUTABLE)};
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  if (inChild) inChild();
  ::execv(QUIB_HOOK_EXECUTABLE, argv.data());
  ::_exit(127);
}

Sandbox::Result Sandbox::run(const std::vector<std::string>& arguments, const std::string& input) const {
  const std::string in = root_ + "/stdin", out = root_ + "/stdout", err = root_ + "/stderr";
  write(in, input);
  int status = 0;
  ::waitpid(start(arguments, in, out, err), &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), contentOf(out), contentOf(err)};
}

bool Sandbox::asOwner(const std::function<bool()>& work) const {
  constexpr uid_t nobody = 65534;
  if (::geteuid() != 0) return inChildProcess(work);
  std::vector<std::string> names = tree(root_);
  names.push_back("");  // the root itself
  for (const std::string& name : names)
    EXPECT_EQ(::lchown((root_ + "/" + name).c_str(), nobody, nobody), 0) << name;
  return inChildProcess([&] { return ::setgid(nobody) == 0 && ::setuid(nobody) == 0 && work(); });
}

std::vector<std::string> Sandbox::tree(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::recursive_directory_iterator(directory, ignored))
    names.push_back(entry.path().lexically_relative(directory).string());
  std::ranges::sort(names);
  return names;
}

bool inChildProcess(const std::function<bool()>& work) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(work() ? 0 : 1);
  int status = -1;
  ::waitpid(child, &status, 0);
  return status == 0;
}

std::string contentOf(const std::string& path) {
  const auto content = Files::read(path);
  EXPECT_TRUE(content) << path << " cannot be read";
  return content.value_or("");
}

std::vector<Json::Object> jsonLines(const std::string& path) {
  std::vector<Json::Object> lines;
  std::istringstream stream(Files::read(path).value_or(""));
  for (std::string line; std::getline(stream, line);)
    lines.push_back(parsed(line));
  return lines;
}

Json::Object parsed(const std::string& text) {
  auto object = Json::parseObject(text);
  EXPECT_TRUE(object) << "not a JSON object: " << text;
  return object.value_or(Json::Object());
}

std::string undated(const std::string& text) {
  return std::regex_replace(text, std::regex(Clock::date() + R"(T\d\d:\d\d:\d\d\.\d{3}Z)"), "<now>");
}
