// obrisk-local: a control plane in one process, for one machine.
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Paths.h"
#include "Platform/Process.h"
#include "Server/Server.h"

namespace {

constexpr std::string_view usage = R"(obrisk-local [OPTION VALUE]...

A control plane for the agents on this machine: it records their sessions, answers their
policy checks, and shows both on a page.

  --listen ADDRESS  IP address to listen on (127.0.0.1); the page answers this machine only
  --port PORT       port, 0 for any free one (8787)
  --key KEY         key that agents must present (one made at the first start and kept)
  --data FILE       where everything is recorded (obrisk/control-plane.db among the user's data)
  --policy FILE     policies, read again when they change (none: everything is allowed)
)";

struct Options {
  std::string listen = "127.0.0.1";
  std::string port = "8787";
  std::string key;
  std::string data;
  std::string policy;
};

std::string defaultData() {
#ifdef __APPLE__
  return Process::home() + "/Library/Application Support/obrisk/control-plane.db";
#else
  const std::string base = Process::environment("XDG_DATA_HOME").value_or("");
  return (base.starts_with("/") ? base : Process::home() + "/.local/share") + "/obrisk/control-plane.db";
#endif
}

std::optional<Options> parse(const std::vector<std::string>& arguments) {
  Options options;
  const std::pair<std::string_view, std::string*> known[] = {{"--listen", &options.listen},
                                                             {"--port", &options.port},
                                                             {"--key", &options.key},
                                                             {"--data", &options.data},
                                                             {"--policy", &options.policy}};
  for (std::size_t i = 0; i < arguments.size(); i += 2) {
    std::string* value = nullptr;
    for (const auto& [name, field] : known) {
      if (arguments[i] == name) value = field;
    }
    if (!value || i + 1 == arguments.size() || arguments[i + 1].empty()) return std::nullopt;
    *value = arguments[i + 1];
  }
  if (options.data.empty()) options.data = defaultData();
  return options;
}

std::optional<std::uint16_t> portOf(const std::string& text) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
    return std::nullopt;
  const int port = std::stoi(text);
  return port <= 65'535 ? std::optional<std::uint16_t>(port) : std::nullopt;
}

int serve(const Options& options, std::uint16_t port) {
  std::signal(SIGPIPE, SIG_IGN);  // whoever reads what is printed may go
  LocalControlPlane::ControlPlane controlPlane(options.data, options.key, options.policy);
  if (const std::string& problem = controlPlane.policies().problem(); !problem.empty()) {
    std::cerr << "obrisk-local: " << options.policy << ": " << problem << "\n";
    return EXIT_FAILURE;
  }
  LocalControlPlane::Server server(controlPlane, options.listen, port);
  std::cout << "obrisk-local serves " << server.url() << "\n"
            << "  data      " << options.data << "\n"
            << "  policies  " << (options.policy.empty() ? "none: everything is allowed" : options.policy)
            << "\n\n"
            << "Agents on this machine record here with this in ~/.obrisk/config:\n\n"
            << "  [default]\n"
            << "  api_url = " << server.url() << "\n"
            << "  api_key = " << controlPlane.key() << "\n"
            << "  agent_slug = my-agent\n\n"
            << "Cursor looks for it under [cursor], Copilot under [copilot]. Ctrl-C ends.\n"
            << std::endl;
  server.run(true);
  return EXIT_SUCCESS;
}

}  // namespace

int main(int count, char** values) {
  const std::vector<std::string> arguments(values + 1, values + count);
  if (arguments == std::vector<std::string>{"--help"}) {
    std::cout << usage;
    return EXIT_SUCCESS;
  }
  const std::optional<Options> options = parse(arguments);
  const std::optional<std::uint16_t> port = options ? portOf(options->port) : std::nullopt;
  if (!port) {
    std::cerr << usage;
    return 2;
  }
  try {
    return serve(*options, *port);
  } catch (const std::exception& error) {
    std::cerr << "obrisk-local: " << error.what() << "\n";
    return EXIT_FAILURE;
  }
}
