// The process entry. An agent starts the executable once for every event: it reads one JSON object from
// standard input, has it routed, and answers with one JSON object on standard output and an exit status. What
// it cannot understand it lets pass: then, and whenever anything goes wrong here, the answer is
// {"continue":true} with status 0.

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Hook/Agents/ClaudeInstaller.h"
#include "Hook/Agents/CopilotAdapter.h"
#include "Hook/Agents/CursorAdapter.h"
#include "Hook/EventRouter.h"
#include "Platform/Files.h"
#include "Platform/Json/Json.h"
#include "Platform/Log.h"
#include "Platform/Paths.h"
#include "Platform/Process.h"

namespace {

constexpr Log::Category logger{"hook"};

constexpr std::string_view usage =
    "Usage: quib-hook [--app claude|cursor|copilot] [--profile NAME] < event.json\n"
    "       quib-hook --install-claude | --install-cursor | --install-copilot\n"
    "       quib-hook --help | --version\n"
    "\n"
    "Reads one hook event of an AI coding agent from standard input and answers it on standard output:\n"
    "guards the tool call with local rules, asks the Obrisk control plane, and records the event there.\n"
    "\n"
    "  --app NAME         the agent whose events are read (default: claude)\n"
    "  --profile NAME     the profile of ~/.obrisk/config to use\n"
    "  --install-...      register this executable as the hook of that agent\n"
    "\n"
    "What cannot be understood is let pass: the answer is then {\"continue\":true}, the status 0.\n";

using Installer = bool (*)(const std::string& binaryPath);

struct InstallRow {
  std::string_view option;
  Installer install;
};

constexpr InstallRow installers[] = {
    {"--install-cursor", CursorAdapter::install},
    {"--install-copilot", CopilotAdapter::install},
    {"--install-claude", ClaudeInstaller::install},
};

// An agent that speaks a dialect of its own.
struct DialectRow {
  std::string_view app;
  const char* process;  // label for the control plane
  NormalizedEvent (*normalize)(const Json::Object& raw);
  AgentAnswer (*render)(const Outcome& outcome, std::string_view event);
};

constexpr DialectRow dialects[] = {
    {"cursor", "Cursor", CursorAdapter::normalize, CursorAdapter::render},
    {"copilot", "copilot", CopilotAdapter::normalize, CopilotAdapter::render},
};

struct Options {
  std::optional<std::string> requestedProfile;
  std::string app = "claude";
  Installer install = nullptr;
};

// Skips arguments that it does not know; of repeated options the last one counts.
Options scan(const std::vector<std::string>& argv) {
  Options options;
  for (std::size_t i = 1; i < argv.size(); ++i) {
    bool hasValue = i + 1 < argv.size();
    if (argv[i] == "--profile" && hasValue)
      options.requestedProfile = argv[++i];
    else if (argv[i] == "--app" && hasValue)
      options.app = argv[++i];
    else
      for (const auto& [option, install] : installers)
        if (argv[i] == option) options.install = install;
  }
  return options;
}

AgentAnswer fallOpen() {
  return {Json(Json::Object{{"continue", true}}).compact(), 0};
}

// The absolute path of this executable, links resolved. Argument 0 names no file when it was started by its
// bare name through PATH; then the operating system is asked.
std::string binaryPath(const std::string& argument) {
  std::string resolved = Paths::resolveLinks(argument);
  return Files::mode(resolved) ? resolved : Process::executable();
}

AgentAnswer installation(bool installed) {
  return {Json(Json::Object{{"installed", installed}}).compact(), installed ? 0 : 1};
}

AgentAnswer answer(const Json::Object& event, const Options& options) {
  const auto* dialect = std::ranges::find(dialects, options.app, &DialectRow::app);
  if (dialect == std::end(dialects))
    return {renderJSON(EventRouter::handle(event, options.requestedProfile, "claude")), 0};
  NormalizedEvent normalized = dialect->normalize(event);
  Outcome outcome = EventRouter::handle(normalized.data, options.requestedProfile, dialect->process);
  return dialect->render(outcome, event.text("hook_event_name"));
}

AgentAnswer handleInput(const Options& options) {
  if (Process::inputIsTerminal())
    Process::writeError(
        "quib-hook: waiting for one hook event as JSON on standard input; end it with Ctrl-D\n");
  std::optional<Json::Object> event;
  {
    std::string stdinData = Process::readInput();
    if (stdinData.empty()) return fallOpen();
    event = Json::parseObject(stdinData);
  }
  if (!event) {
    logger.error("hook: malformed stdin JSON, falling open");
    return fallOpen();
  }
  return answer(*event, options);
}

AgentAnswer run(const std::vector<std::string>& argv) {
  if (argv.size() == 2 && argv[1] == "--help") return {std::string(usage), 0};
  if (argv.size() == 2 && argv[1] == "--version") return {"quib-hook " QUIB_VERSION "\n", 0};
  Options options = scan(argv);
  try {
    return options.install ? installation(options.install(binaryPath(argv[0]))) : handleInput(options);
  } catch (...) {
    return options.install ? installation(false) : fallOpen();
  }
}

}  // namespace

int main(int argc, char** argv) {
  Process::prepare();
  AgentAnswer answer = run({argv, argv + argc});
  Process::writeOutput(answer.body);
  Process::exit(answer.status);
}
