#include "Benchmarks/Table.h"

#include <cstdio>
#include <functional>
#include <vector>

#include "Benchmarks/ControlPlaneStub.h"
#include "Benchmarks/Measure.h"
#include "Hook/State/SessionStore.h"

namespace Table {

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

struct Figures {
  std::vector<double> wall, wallFar, wallSecure, cpu;
  double peak = 0;
  std::optional<double> instructions, instructionsSecure, systemCalls;
  std::optional<ControlPlaneStub::Traffic> traffic, trafficSecure;
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
    return Measure::Command{{QUIB_HOOK}, stage.event(event, std::move(members))};
  };
  const auto stop = [&](std::int64_t size) {
    return Measure::Command{{QUIB_HOOK}, stage.event("Stop", {{"transcript_path", stage.transcript(size)}})};
  };
  const auto nothing = [](const Stage&) {};
  const std::string file = stage.project() + "/source/unit.cpp";
  const Measure::Command prompt{{QUIB_HOOK}, stage.event("UserPromptSubmit", {{"prompt", "Go on."}})};
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
       {{QUIB_HOOK}, stage.event("SessionStart", {{"source", "startup"}})},
       [](const Stage& on) { on.clearSessions(); }},
      {"Stop, 1 MB of transcript", stop(1'000'000), recorded},
      {"Stop, 10 MB", stop(10'000'000), recorded},
      {"Stop, 100 MB", stop(100'000'000), recorded},
  };
}

// The dedupe file of the last run would spare the next Stop its posts.
void forgetCalls(const Stage& stage) {
  std::filesystem::remove_all(stage.path("home/.obrisk/cc-dedupe"));
}

class Measuring {
 public:
  Measuring(const Stage& stage)
      : stage_(stage), secure_(std::chrono::milliseconds(0), stage.path("authority.pem")) {}

  Figures counted(const Row& row) {
    Figures figures;
    set(row, near_);
    near_.traffic();
    figures.peak = Measure::run(row.command).peak;
    if (row.prepare) figures.traffic = near_.traffic();
    set(row, near_);
    figures.instructions = Measure::instructions(row.command);
    set(row, near_);
    figures.systemCalls = Measure::systemCalls(row.command);
    if (!asks(row)) return figures;
    set(row, secure_);
    secure_.traffic();
    figures.instructionsSecure = Measure::instructions(row.command);
    figures.trafficSecure = secure_.traffic();
    return figures;
  }

  void time(const Row& row, Figures& figures) {
    set(row, near_);
    const Measure::Run run = Measure::run(row.command);
    figures.wall.push_back(run.wall);
    figures.cpu.push_back(run.cpu);
    if (!asks(row)) return;
    set(row, far_);
    figures.wallFar.push_back(Measure::run(row.command).wall);
    set(row, secure_);
    figures.wallSecure.push_back(Measure::run(row.command).wall);
  }

 private:
  static bool asks(const Row& row) { return row.prepare && row.configured; }

  void set(const Row& row, const ControlPlaneStub& controlPlane) {
    if (!row.prepare) return;
    stage_.configure(row.configured ? controlPlane.url() : "");
    forgetCalls(stage_);
    row.prepare(stage_);
  }

  const Stage& stage_;
  ControlPlaneStub near_{std::chrono::milliseconds(0)};
  ControlPlaneStub far_{std::chrono::milliseconds(20)};
  ControlPlaneStub secure_;
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
  std::vector<std::string> cells{row.name,
                                 times(figures.wall),
                                 times(figures.cpu),
                                 optional(figures.instructions, 1e6, 2),
                                 optional(figures.systemCalls, 1, 0),
                                 number(figures.peak, 1),
                                 "",
                                 "",
                                 "",
                                 times(figures.wallFar),
                                 times(figures.wallSecure),
                                 optional(figures.instructionsSecure, 1e6, 2),
                                 ""};
  if (figures.traffic) {
    cells[6] = std::to_string(figures.traffic->connections);
    cells[7] = std::to_string(figures.traffic->requests);
    cells[8] = std::to_string(figures.traffic->roundTrips);
  }
  if (figures.trafficSecure) cells[12] = std::to_string(figures.trafficSecure->roundTrips);
  std::string text = "|";
  for (const std::string& cell : cells)
    text += " " + cell + " |";
  return text + "\n";
}

}  // namespace

std::string measured(const Stage& stage, int rounds) {
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
  std::string table =
      "| process | wall, ms | CPU, ms | instructions, M | system calls | peak, MB | connections | requests | "
      "round trips | wall at 20 ms | wall over TLS | instructions over TLS | round trips over TLS |\n"
      "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n";
  for (std::size_t i = 0; i < rows.size(); ++i)
    table += line(rows[i], figures[i]);
  return table;
}

}  // namespace Table
