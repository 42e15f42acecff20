// obrisk-demo: one recorded agent session, played through quib-hook against a control plane of its own.
// Everything happens in a throw-away home directory, which goes when the demo ends.
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Platform/Process.h"
#include "Platform/Text.h"
#include "Server/Server.h"

namespace {

using LocalControlPlane::ControlPlane;
using LocalControlPlane::Server;

constexpr const char* sessionID = "5d0c2a4e-7b1f-4c55-9a3e-0f6b8d2e41c7";

std::atomic<bool> interrupted = false;

// The directory that stands for a user's machine.
class Home {
 public:
  Home() {
    std::string name = (std::filesystem::temp_directory_path() / "obrisk-demo.XXXXXX").string();
    if (!mkdtemp(name.data())) throw std::runtime_error("cannot make " + name);
    path_ = name;
    Files::makeDirectories(project());
    Files::makeDirectories(path_ + "/.obrisk");
  }
  ~Home() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

  const std::string& path() const { return path_; }
  std::string project() const { return path_ + "/harbour"; }
  std::string transcript() const { return path_ + "/transcript.jsonl"; }

 private:
  std::string path_;
};

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
}

// Makes the environment, which the hook inherits, that of the user of this home. With a key in it this
// machine's own enrolment, if it has one, plays no part.
void moveInto(const Home& home, const std::string& key) {
  for (const auto& [name, value] : Process::environment()) {
    if (name != "NO_COLOR" && name != "DEMO_KEEP") unsetenv(name.c_str());
  }
  for (const auto& [name, value] : {std::pair<const char*, std::string>{"HOME", home.path()},
                                    {"OBRISK_API_KEY", key},
                                    {"OBRISK_CC_STATE_DIR", home.path() + "/state"},
                                    {"PATH", "/usr/bin:/bin"}})
    setenv(name, value.c_str(), 1);
}

struct Decision {
  std::string action;  // "allow", "ask" or "deny"
  std::string reason;
};

Decision decisionOf(const std::string& answer) {
  const Json::Object body = Json::parseObject(answer).value_or(Json::Object());
  if (body.flag("continue")) return {"allow", ""};
  const Json::Object& output = body.object("hookSpecificOutput");
  const std::string& action = output.text("permissionDecision");
  return {action.empty() ? "no answer" : action,
          output.text(action == "ask" ? "additionalContext" : "permissionDecisionReason")};
}

// What an event is about: its tool and what the tool is to work on, else its own text.
std::string subjectOf(const Json::Object& event) {
  const Json::Object& input = event.object("tool_input");
  for (const char* key : {"command", "file_path", "url", "pattern", "text"}) {
    if (!input.text(key).empty()) return event.text("tool_name") + ": " + input.text(key);
  }
  for (const char* key : {"prompt", "error", "agent_type", "message", "trigger", "source"}) {
    if (!event.text(key).empty()) return event.text(key);
  }
  return event.text("last_assistant_message");
}

// Cut or filled up to `width` characters.
std::string column(std::string text, std::size_t width) {
  replaceAll(text, "\n", " ");
  const std::string_view shown = Text::prefix(text, width - 1);
  if (shown.size() < text.size()) return std::string(Text::prefix(text, width - 2)) + "… ";
  return text + std::string(width - text.size(), ' ');
}

std::string coloured(const std::string& action, std::string text) {
  if (!isatty(STDOUT_FILENO) || Process::environment("NO_COLOR")) return text;
  const char* colour = action == "allow" ? "32" : action == "ask" ? "33" : "31";
  return "\033[" + std::string(colour) + "m" + text + "\033[0m";
}

class Player {
 public:
  explicit Player(const Home& home) : home_(home) {}

  // One line of the session: a line that the agent adds to its transcript, or an event of which it tells the
  // hook. False when the answer is not the one that is expected.
  bool play(std::string line) {
    replaceAll(line, "@home@", home_.path());
    replaceAll(line, "@project@", home_.project());
    const Json::Object entry = Json::parseObject(line).value_or(Json::Object());
    if (const Json* addition = entry.find("transcript")) {
      Json::Object transcript = *addition->asObject();
      transcript.set("timestamp", Clock::dateTime());
      return Files::append(home_.transcript(), Json(transcript).compact() + "\n");
    }
    Json::Object event = entry.object("event");
    event.set("session_id", sessionID);
    event.set("transcript_path", home_.transcript());
    event.set("cwd", home_.project());
    return tell(event, entry.optionalText("expect").value_or("allow"));
  }

 private:
  bool tell(const Json::Object& event, const std::string& expected) {
    const std::string input = home_.path() + "/event.json";
    Files::write(input, Json(event).compact());
    const auto start = std::chrono::steady_clock::now();
    const std::string answer = Process::run(QUIB_HOOK_EXECUTABLE, {}, input).value_or("");
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    if (interrupted) return false;
    const Decision decision = decisionOf(answer);
    std::string subject = subjectOf(event);
    replaceAll(subject, home_.project() + "/", "");
    char time[32];
    std::snprintf(time, sizeof time, "%5.1f ms  ", took.count());
    std::cout << column(event.text("hook_event_name"), 20) << column(subject, 44)
              << coloured(decision.action, column(decision.action, 7)) << time << decision.reason
              << std::endl;
    if (decision.action == expected) return true;
    std::cout << "This should have been: " << expected << std::endl;
    return false;
  }

  const Home& home_;
};

void report(ControlPlane& controlPlane) {
  LocalControlPlane::Request request;
  request.method = "GET";
  request.target = "/ui/overview";
  const Json::Object overview = Json::parseObject(controlPlane.answer(request).body).value_or(Json::Object());
  const Json::Object& store = overview.object("store");
  const auto amount = [](const Json::Object& object) {
    const Json* cost = object.find("cost");
    return cost ? cost->asNumber().value_or(0) : 0;
  };
  for (const Json& element : store.list("runs")) {
    const Json::Object& run = *element.asObject();
    const auto number = [&run](const char* key) { return static_cast<long long>(run.integer(key)); };
    std::printf("\nThe control plane has it as %s:\n", run.text("id").c_str());
    std::printf("  steps      %lld (%lld asked, %lld blocked)\n", number("steps"), number("asked"),
                number("blocked"));
    std::printf("  spans      %lld\n", number("spans"));
    std::printf("  LLM calls  %lld, %lld tokens, $%.4f\n", number("calls"), number("tokens"), amount(run));
  }
  for (const Json& element : store.list("models")) {
    const Json::Object& model = *element.asObject();
    std::printf("    %-28s %lld calls, $%.4f\n", model.text("model").c_str(),
                static_cast<long long>(model.integer("calls")), amount(model));
  }
  std::fflush(stdout);
}

int demonstrate() {
  const Home home;
  ControlPlane controlPlane(home.path() + "/control-plane.db", "",
                            QUIB_SOURCE_DIR "/Docs/policy.example.json");
  Server server(controlPlane, "127.0.0.1", 0);
  Files::write(home.path() + "/.obrisk/config", "[default]\napi_url = " + server.url() + "\napi_key = " +
                                                    controlPlane.key() + "\nagent_slug = storm-warnings\n");
  const std::string session = Files::read(QUIB_SOURCE_DIR "/Server/demo/session.jsonl").value_or("");

  moveInto(home, controlPlane.key());
  std::thread serving([&] { interrupted = server.run(true); });
  Player player(home);
  bool good = !session.empty();
  for (std::size_t start = 0; good && !interrupted && start < session.size();) {
    const std::size_t end = std::min(session.find('\n', start), session.size());
    good = player.play(session.substr(start, end - start));
    start = end + 1;
  }
  server.stop();
  serving.join();
  if (interrupted) return 130;

  report(controlPlane);
  const std::string diagnostics =
      Files::read(home.path() + "/.obrisk/logs/hook.diagnostics.jsonl").value_or("");
  if (!diagnostics.empty()) std::cout << "\nThe hook's diagnostics:\n" << diagnostics;
  const bool keep = Process::environment("DEMO_KEEP").value_or("") == "1";
  std::cout << "\nIts page: " << server.url() << "/"
            << (keep ? " until you press Ctrl-C" : "  (gone by now; DEMO_KEEP=1 make demo keeps it up)")
            << std::endl;
  if (keep) server.run(true);
  return good && diagnostics.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main() {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return demonstrate();
  } catch (const std::exception& error) {
    std::cerr << "obrisk-demo: " << error.what() << "\n";
    return EXIT_FAILURE;
  }
}
