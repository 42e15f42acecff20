#include <cmath>
#include <cstdio>
#include <functional>
#include <vector>

#include "Benchmarks/EventCosts.h"
#include "Benchmarks/Measure.h"
#include "Benchmarks/Plot.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Files.h"

namespace EventCosts {

namespace {

// One line of a plot. `arrange` makes what a run of size n finds and returns the event; `before` makes good
// what a run changed.
struct Line {
  std::string name;
  std::function<std::string(const Stage&, std::int64_t n)> arrange;
  std::function<void(const Stage&, std::int64_t n)> before;
};

struct Study {
  std::string file;
  std::string title;
  std::string label;
  std::vector<std::int64_t> sizes;
  std::vector<std::string> ticks;  // one for each size
  std::vector<Line> lines;
};

std::string tool(const Stage& stage, const std::string& event, const std::string& name, Json::Object input) {
  return stage.event(event, {{"tool_name", name}, {"tool_input", std::move(input)}});
}

std::string writing(const Stage& stage, const std::string& event) {
  return tool(stage, event, "Write", {{"file_path", stage.project() + "/new"}});
}

std::string reading(const Stage& stage) {
  return tool(stage, "PreToolUse", "Read", {{"file_path", stage.project() + "/a"}});
}

void freshRecord(const Stage& stage, std::int64_t) {
  stage.save(stage.session());
}

std::string repeated(const std::string& text, std::int64_t size) {
  std::string whole;
  while (static_cast<std::int64_t>(whole.size()) < size)
    whole += text;
  whole.resize(static_cast<std::size_t>(size));
  return whole;
}

Json::Array numbered(const std::string& before, const std::string& after, std::int64_t count) {
  Json::Array list;
  for (std::int64_t i = 0; i < count; ++i)
    list.push_back(before + std::to_string(i) + after);
  return list;
}

Study commands() {
  const auto command = [](const std::string& text) {
    return [text](const Stage& stage, std::int64_t n) {
      stage.clearSessions();
      return tool(stage, "PreToolUse", "Bash", {{"command", repeated(text, n)}});
    };
  };
  return {"command-length.svg",
          "Before a shell command, by its length",
          "bytes",
          {100, 1'000, 10'000, 100'000, 1'000'000},
          {"100 B", "1 KB", "10 KB", "100 KB", "1 MB"},
          {{"no suspicious word", command("echo some words; "), freshRecord},
           {"a word of one pattern", command("kill some -9 words; "), freshRecord}}};
}

Study patterns() {
  const auto rules = [](const char* key, const char* before, const char* after, auto event) {
    return [=](const Stage& stage, std::int64_t n) {
      stage.clearSessions();
      stage.setRules({{key, numbered(before, after, n)}});
      return event(stage);
    };
  };
  const auto running = [](const Stage& stage) {
    return tool(stage, "PreToolUse", "Bash", {{"command", "make all"}});
  };
  const auto write = [](const Stage& stage) { return writing(stage, "PreToolUse"); };
  return {"patterns.svg",
          "Before a tool call, by the project's own patterns",
          "patterns",
          {10, 100, 1'000, 10'000},
          {"10", "100", "1,000", "10,000"},
          {{"command patterns", rules("blocked_command_patterns", R"(\btool)", R"(\s+--all\b)", running),
            freshRecord},
           {"file patterns", rules("protected_file_patterns", "*.secret", "", write), freshRecord}}};
}

Study modifiedFiles() {
  const auto record = [](const Stage& stage, std::int64_t n, const std::string& session) {
    SessionState state = stage.session();
    state.session_id = session;
    for (std::int64_t i = 0; i < n; ++i)
      state.modified_files.push_back(stage.project() + "/source/unit" + std::to_string(i) + ".cpp");
    stage.save(state);
  };
  const auto event = [](const char* name) {
    return [name](const Stage& stage, std::int64_t) {
      stage.clearSessions();
      stage.setRules({{"max_file_changes", 0}, {"warn_file_changes", 0}});
      return writing(stage, name);
    };
  };
  const auto own = [record](const Stage& stage, std::int64_t n) { record(stage, n, "session"); };
  const auto teammates = [record](const Stage& stage, std::int64_t n) {
    record(stage, n, "peer");
    SessionState state = stage.session();
    state.is_cowork = true;
    stage.save(state);
  };
  return {"modified-files.svg",
          "Around a write, by the files that the session has modified",
          "modified files",
          {1, 10, 100, 1'000, 10'000},
          {"1", "10", "100", "1,000", "10,000"},
          {{"after the write", event("PostToolUse"), own},
           {"before the write", event("PreToolUse"), own},
           {"… a teammate's files", event("PreToolUse"), teammates}}};
}

Study sessions() {
  const auto others = [](const Stage& stage, std::int64_t n) {
    stage.clearSessions();
    stage.setRules({});
    SessionState state = stage.session();
    for (std::int64_t i = 0; i < n; ++i) {
      state.session_id = "other-" + std::to_string(i);
      state.cwd = "/srv/projects/" + std::to_string(i);
      stage.save(state);
    }
  };
  const auto starting = [others](const Stage& stage, std::int64_t n) {
    others(stage, n);
    return stage.event("SessionStart", {{"source", "startup"}});
  };
  const auto read = [others](const Stage& stage, std::int64_t n) {
    others(stage, n);
    return reading(stage);
  };
  const auto unrecorded = [](const Stage&, std::int64_t) { SessionStore::remove("session"); };
  return {"sessions.svg",
          "By the records in the state directory",
          "sessions",
          {1, 10, 100, 1'000, 10'000},
          {"1", "10", "100", "1,000", "10,000"},
          {{"session start", starting, unrecorded}, {"before a read", read, freshRecord}}};
}

Study transcripts() {
  const auto stopping = [](const Stage& stage, std::int64_t n) {
    stage.clearSessions();
    return stage.event("Stop", {{"transcript_path", stage.transcript(n)}});
  };
  const auto nearEnd = [](const Stage& stage, std::int64_t n) {
    SessionState state = stage.session();
    state.transcript_offset = Files::size(stage.transcript(n)).value_or(0) - 100'000;
    stage.save(state);
  };
  return {"transcript.svg",
          "At the end of a turn, by the transcript's size",
          "transcript",
          {1'000'000, 10'000'000, 100'000'000, 1'000'000'000},
          {"1 MB", "10 MB", "100 MB", "1 GB"},
          {{"read from its start", stopping, freshRecord}, {"its last 100 KB", stopping, nearEnd}}};
}

double cpu(const Stage& stage, const Line& line, std::int64_t n, int rounds) {
  const Measure::Command command{{QUIB_HOOK_EXECUTABLE}, line.arrange(stage, n)};
  std::vector<double> times;
  double spent = 0;
  for (int round = 0; round < rounds && (round < 3 || spent < 20'000); ++round) {
    FakeControlPlane plane;
    agree(plane);
    stage.configure(plane.url());
    stage.forgetCalls();
    line.before(stage, n);
    times.push_back(Measure::run(command).cpu);
    spent += times.back();
  }
  return Measure::median(times);
}

Plot::Figure measured(const Stage& stage, const Study& study, int rounds) {
  Plot::Figure figure{study.title, {study.label, {}}, "CPU time, ms; dashed: in proportion", {}};
  for (std::size_t i = 0; i < study.sizes.size(); ++i)
    figure.x.ticks.emplace_back(static_cast<double>(study.sizes[i]), study.ticks[i]);
  for (const Line& line : study.lines) {
    Plot::Series series{line.name, {}};
    printf("%s, %s:", study.title.c_str(), line.name.c_str());
    for (const std::int64_t n : study.sizes) {
      series.points.push_back({static_cast<double>(n), cpu(stage, line, n, rounds)});
      printf(" %.2f", series.points.back().y);
      fflush(stdout);
    }
    // Over the last decade; 1 is in proportion.
    const auto& points = series.points;
    const Plot::Point &last = points.back(), &before = points[points.size() - 2];
    printf(" ms; exponent %.2f\n", std::log(last.y / before.y) / std::log(last.x / before.x));
    figure.series.push_back(std::move(series));
  }
  return figure;
}

}  // namespace

void plot(const Stage& stage, const std::string& directory, int rounds) {
  for (const Study& study : {commands(), patterns(), modifiedFiles(), sessions(), transcripts()}) {
    stage.setRules({});
    Files::write(directory + "/" + study.file, Plot::svg(measured(stage, study, rounds)), 0644);
  }
}

}  // namespace EventCosts
