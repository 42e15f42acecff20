// What the control plane has received, in one SQLite file: runs, steps, spans, LLM calls, and the answers to
// policy checks. A write that has returned survives the death of this process. One process at a time: the
// file is locked from opening to the end.
//
// Runs named here exist: whoever calls has asked `hasRun`. Whatever SQLite refuses (the file of another
// process, a full disk) throws std::runtime_error; what was asked for is then not recorded, not even in part.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Json/Json.h"
#include "Server/Policies.h"

namespace SQLite {
class Database;
}

namespace LocalControlPlane {

struct Run {
  std::string id;
  std::string workflowID;
  std::string startedAt;
  std::string day;       // of a daily run
  bool created = false;  // by this very call
};

// Whether `text` has the form of a date, 2026-01-31.
bool isDate(std::string_view text);

class Store {
 public:
  // Opens the file, and makes it (mode 0600) and its directories when they are missing.
  explicit Store(const std::string& path);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // The key made for this file at its first use, so that a restart leaves every configured agent connected.
  std::string key();

  // Bodies are those of the Observe API.
  Run startRun(const Json::Object& body);
  // The one run of that agent on that day (the current one, in UTC, when `date` is empty).
  Run dailyRun(const std::string& slug, const std::string& type, const std::string& date);
  bool hasRun(const std::string& runID);
  void recordSteps(const std::string& runID, const Json::Array& steps, const std::string& hardware);
  void recordSpans(const std::string& runID, const Json::Array& spans);
  void recordCalls(const std::string& runID, const Json::Array& calls);
  // `runID` as the agent named it, possibly empty or unknown.
  void recordDecision(const std::string& runID, const std::string& workflow, const PolicyDecision& decision);
  // A run that was complete already stays as it was.
  void completeRun(const std::string& runID, const Json::Object& body);

  // Tokens of the run's LLM calls, and of the context it announced when it was last about to compact it.
  std::int64_t tokens(const std::string& runID);
  double cost(const std::string& runID);

  // JSON for the page. The overview: {"runs", "models", "days", "totals"}, the latest runs first. One run:
  // {"run", "items"}, its steps, spans, calls and policy checks in the order of their arrival, the last
  // `maxItems` of them.
  std::string overview();
  std::string run(const std::string& runID);
  static constexpr int maxRuns = 200;
  static constexpr int maxItems = 1000;

  // Grows with every write, and never comes back to a number that it had, not even after a restart.
  std::int64_t version() const { return version_; }

 private:
  std::unique_ptr<SQLite::Database> database_;
  std::int64_t version_;
};

}  // namespace LocalControlPlane
