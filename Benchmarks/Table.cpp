#include <cstdio>
#include <functional>
#include <vector>

#include "Benchmarks/EventCosts.h"
#include "Benchmarks/Measure.h"

namespace EventCosts {

namespace {

using Prepare = std::function<void(const Stage&)>;

void recorded(const Stage& stage) {
  stage.save(stage.session());
}

struct Row {
  std::string name;
  Measure::Command command;
  Prepare prepare = {};  // before each run; none: no event of the hook
  bool configured = true;
};

// How the control plane is reached.
struct Route {
  std::chrono::milliseconds roundTrip{0};
  bool secure = false;

  int roundTripsToConnect() const { return secure ? 2 : 1; }
};
constexpr Route near, far{std::chrono::milliseconds(20)}, secure{.secure = true};

struct Traffic {
  std::string connections, requests, roundTrips;
};

struct Figures {
  std::vector<double> wall, wallFar, wallSecure, cpu;
  double peak = 0;
  std::optional<double> instructions, instructionsSecure, systemCalls;
  Traffic traffic, trafficSecure;
};

void addFloor(std::vector<Row>& rows, const std::string& name, std::vector<std::string> argv) {
  rows.push_back({name, {std::move(argv), "/dev/null"}});
}

std::vector<Row> floors() {
  std::vector<Row> rows;
  addFloor(rows, "an empty static process", {QUIB_LAUNCHER});
  addFloor(rows, "`/bin/true`", {"/bin/true"});
  addFloor(rows, "an empty process with the hook's libraries", {QUIB_LIBRARIES_FLOOR});
  // Asked for its own path: what the shell finds may be a script that looks for it.
  const std::string python = Measure::output("python3 -c 'import sys; print(sys.executable)'");
  if (!python.empty()) addFloor(rows, "`python3 -c pass`", {python, "-c", "pass"});
  const std::string node = Measure::output("node -p process.execPath");
  if (!node.empty()) addFloor(rows, "`node -e 0`", {node, "-e", "0"});
  return rows;
}

std::vector<Row> events(const Stage& stage) {
  const auto tool = [&](const std::string& event, const std::string& name, Json::Object input) {
    Json::Object members{{"tool_name", name}, {"tool_input", std::move(input)}};
    if (event == "PostToolUse") members.set("tool_response", Json::Object{{"filePath", "a file"}});
    return Measure::Command{{QUIB_HOOK_EXECUTABLE}, stage.event(event, std::move(members))};
  };
  const auto stop = [&](std::int64_t size) {
    return Measure::Command{{QUIB_HOOK_EXECUTABLE},
                            stage.event("Stop", {{"transcript_path", stage.transcript(size)}})};
  };
  const auto nothing = [](const Stage&) {};
  const std::string file = stage.project() + "/source/unit.cpp";
  const Measure::Command prompt{{QUIB_HOOK_EXECUTABLE},
                                stage.event("UserPromptSubmit", {{"prompt", "Go on."}})};
  return {
      {"an event, unconfigured", prompt, nothing, false},
      {"`Read` allowed", tool("PreToolUse", "Read", {{"file_path", file}}), recorded},
      {"`Bash` allowed", tool("PreToolUse", "Bash", {{"command", "ls -la source"}}), recorded},
      {"`Write` allowed", tool("PreToolUse", "Write", {{"file_path", file}, {"content", "x"}}), recorded},
      {"`WebFetch` allowed", tool("PreToolUse", "WebFetch", {{"url", "https://example.com/a"}}), recorded},
      {"`Bash` asked about", tool("PreToolUse", "Bash", {{"command", "git push origin main"}}), recorded},
      {"`Bash` denied here", tool("PreToolUse", "Bash", {{"command", "rm -rf / "}}), recorded},
      {"PostToolUse", tool("PostToolUse", "Write", {{"file_path", file}, {"content", "x"}}), recorded},
      {"SessionStart",
       {{QUIB_HOOK_EXECUTABLE}, stage.event("SessionStart", {{"source", "startup"}})},
       [](const Stage& on) { on.clearSessions(); }},
      {"Stop, 1 MB of transcript", stop(1'000'000), recorded},
      {"Stop, 10 MB", stop(10'000'000), recorded},
      {"Stop, 100 MB", stop(100'000'000), recorded},
  };
}

class Measuring {
 public:
  explicit Measuring(const Stage& stage) : stage_(stage) {}

  Figures counted(const Row& row) {
    Figures figures;
    figures.peak = run(row, near, Measure::run, &figures.traffic).peak;
    figures.instructions = run(row, near, Measure::instructions);
    figures.systemCalls = run(row, near, Measure::systemCalls);
    if (asks(row))
      figures.instructionsSecure = run(row, secure, Measure::instructions, &figures.trafficSecure);
    return figures;
  }

  void time(const Row& row, Figures& figures) {
    const Measure::Run taken = run(row, near, Measure::run);
    figures.wall.push_back(taken.wall);
    figures.cpu.push_back(taken.cpu);
    if (!asks(row)) return;
    figures.wallFar.push_back(run(row, far, Measure::run).wall);
    figures.wallSecure.push_back(run(row, secure, Measure::run).wall);
  }

 private:
  static bool asks(const Row& row) { return row.prepare && row.configured; }

  // What `measure` finds out about the row's command, which a control plane of its own serves.
  template <typename Figure>
  Figure run(const Row& row, const Route& route, Figure (*measure)(const Measure::Command&),
             Traffic* traffic = nullptr) {
    if (!row.prepare) return measure(row.command);
    FakeControlPlane plane(
        {.certificate = route.secure ? std::optional(stage_.certificate()) : std::nullopt});
    agree(plane, route.roundTrip, route.roundTripsToConnect());
    stage_.configure(row.configured ? plane.url() : "");
    stage_.forgetCalls();
    row.prepare(stage_);
    const Figure figure = measure(row.command);
    const auto connections = plane.connections(), requests = static_cast<int>(plane.requests().size());
    if (traffic)
      *traffic = {std::to_string(connections), std::to_string(requests),
                  std::to_string(requests + connections * route.roundTripsToConnect())};
    return figure;
  }

  const Stage& stage_;
};

std::string number(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string times(const std::vector<double>& values) {
  return values.empty() ? "" : number(Measure::median(values), 2);
}

std::string optional(const std::optional<double>& value, double unit, int digits) {
  return value ? number(*value / unit, digits) : "";
}

std::string line(const Row& row, const Figures& figures) {
  std::string text = "|";
  for (const std::string& cell :
       {row.name, times(figures.wall), times(figures.cpu), optional(figures.instructions, 1e6, 2),
        optional(figures.systemCalls, 1, 0), number(figures.peak, 1), figures.traffic.connections,
        figures.traffic.requests, figures.traffic.roundTrips, times(figures.wallFar),
        times(figures.wallSecure), optional(figures.instructionsSecure, 1e6, 2),
        figures.trafficSecure.roundTrips})
    text += " " + cell + " |";
  return text + "\n";
}

}  // namespace

std::string table(const Stage& stage, int rounds) {
  std::vector<Row> rows = floors();
  for (Row& row : events(stage))
    rows.push_back(std::move(row));
  Measuring measuring(stage);
  std::vector<Figures> figures;
  for (const Row& row : rows) {
    fprintf(stderr, "counting: %s\n", row.name.c_str());
    figures.push_back(measuring.counted(row));
  }
  for (int round = 0; round < rounds; ++round) {
    fprintf(stderr, "timing: round %d of %d\n", round + 1, rounds);
    for (std::size_t i = 0; i < rows.size(); ++i)
      measuring.time(rows[i], figures[i]);
  }
  std::string text =
      "| process | wall, ms | CPU, ms | instructions, M | system calls | peak, MB | connections | requests | "
      "round trips | wall at 20 ms | wall over TLS | instructions over TLS | round trips over TLS |\n"
      "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n";
  for (std::size_t i = 0; i < rows.size(); ++i)
    text += line(rows[i], figures[i]);
  return text;
}

}  // namespace EventCosts
