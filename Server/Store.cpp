#include "Server/Store.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <SQLiteCpp/VariadicBind.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>

#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Server/Schema.h"

namespace LocalControlPlane {

bool isDate(std::string_view text) {
  constexpr std::string_view shape = "dddd-dd-dd";
  return std::ranges::equal(text, shape,
                            [](char c, char form) { return form == 'd' ? c >= '0' && c <= '9' : c == form; });
}

namespace {

constexpr auto immediate = SQLite::TransactionBehavior::IMMEDIATE;

template <typename... Values>
SQLite::Statement statement(const SQLite::Database& database, const char* sql, const Values&... values) {
  SQLite::Statement bound(database, sql);
  SQLite::bind(bound, values...);
  return bound;
}

// The first column of the first row, which must be there.
template <typename... Values>
SQLite::Column single(const SQLite::Database& database, const char* sql, const Values&... values) {
  SQLite::Statement query = statement(database, sql, values...);
  query.executeStep();
  return query.getColumn(0);
}

// Inserts one row for each element, or none at all. `columns` gives a row's values as a tuple.
template <typename Columns>
void insert(SQLite::Database& database, const char* sql, const Json::Array& elements, Columns columns) {
  SQLite::Transaction transaction(database, immediate);
  SQLite::Statement row(database, sql);
  for (const Json& element : elements) {
    row.reset();
    std::apply([&](const auto&... values) { SQLite::bind(row, values...); }, columns(*element.asObject()));
    row.exec();
  }
  transaction.commit();
}

std::string randomHex(std::size_t digits) {
  std::random_device device;
  std::string hex;
  while (hex.size() < digits)
    hex += "0123456789abcdef"[device() & 15];
  return hex;
}

// What sums are made of is kept within bounds that no sum of them can leave.
std::int64_t boundedTokens(const Json::Object& call, std::string_view key) {
  constexpr std::int64_t limit = 1'000'000'000'000;
  return std::clamp(call.integer(key), -limit, limit);
}
double boundedCost(const Json::Object& call) {
  const Json* cost = call.find("cost");
  const double value = cost ? cost->asNumber().value_or(0.0) : 0.0;
  return std::isfinite(value) ? std::clamp(value, -1e9, 1e9) : 0.0;
}

std::unique_ptr<SQLite::Database> open(const std::string& path) {
  // The sidecar files take the mode of the main file, so that one must be private from the start.
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (descriptor < 0) throw std::runtime_error("it cannot be opened for writing");
  ::close(descriptor);
  auto database = std::make_unique<SQLite::Database>(path, SQLite::OPEN_READWRITE);
  database->exec("PRAGMA locking_mode = EXCLUSIVE; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL");
  SQLite::Transaction transaction(*database, immediate);
  if (single(*database, "PRAGMA user_version").getInt() > schemaVersion)
    throw std::runtime_error("a newer obrisk-local wrote it");
  database->exec(schema);
  transaction.commit();
  return database;
}

}  // namespace

Store::Store(const std::string& path) : version_(Clock::now().time_since_epoch().count()) {
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) Files::makeDirectories(path.substr(0, slash));
  try {
    database_ = open(path);
  } catch (const std::runtime_error& error) {
    const auto* refusal = dynamic_cast<const SQLite::Exception*>(&error);
    const bool busy = refusal && refusal->getErrorCode() == SQLITE_BUSY;
    throw std::runtime_error(path + ": " + (busy ? "another obrisk-local is using it" : error.what()));
  }
}

Store::~Store() = default;

std::string Store::key() {
  statement(*database_, "INSERT OR IGNORE INTO settings VALUES ('key', ?)", randomHex(48)).exec();
  return single(*database_, "SELECT value FROM settings WHERE name = 'key'").getString();
}

Run Store::startRun(const Json::Object& body) {
  const Run run{"run-" + randomHex(24), "workflow-" + body.text("workflow_name"), Clock::dateTime(), "",
                true};
  statement(*database_,
            "INSERT INTO runs (id, workflow_id, agent, slug, workflow, session, started_at, status, inputs, "
            "metadata) VALUES (?, ?, ?, ?, ?, ?, ?, 'running', ?, ?)",
            run.id, run.workflowID, body.text("agent_name"), body.text("agent_slug"),
            body.text("workflow_name"), body.text("session_id"), run.startedAt,
            Json(body.object("inputs")).compact(), Json(body.object("metadata")).compact())
      .exec();
  ++version_;
  return run;
}

Run Store::dailyRun(const std::string& slug, const std::string& type, const std::string& date) {
  const Clock::Time now = Clock::now();
  const std::string day = date.empty() ? Clock::date(now) : date;
  SQLite::Transaction transaction(*database_, immediate);
  const bool created =
      statement(
          *database_,
          "INSERT OR IGNORE INTO runs (id, workflow_id, agent, slug, workflow, day, started_at, status) "
          "VALUES (?, ?, ?, ?, 'daily', ?, ?, 'running')",
          "run-" + randomHex(24), "daily-" + slug, type, slug, day, Clock::dateTime(now))
          .exec() > 0;
  SQLite::Statement found = statement(
      *database_, "SELECT id, workflow_id, started_at FROM runs WHERE slug = ? AND agent = ? AND day = ?",
      slug, type, day);
  found.executeStep();
  const Run run{found.getColumn(0), found.getColumn(1), found.getColumn(2), day, created};
  found.reset();
  transaction.commit();
  version_ += created;
  return run;
}

bool Store::hasRun(const std::string& runID) {
  return statement(*database_, "SELECT 1 FROM runs WHERE id = ?", runID).executeStep();
}

void Store::recordSteps(const std::string& runID, const Json::Array& steps, const std::string& hardware) {
  const std::string now = Clock::dateTime();
  insert(*database_,
         "INSERT INTO steps (run, at, position, name, kind, action, output, hardware) "
         "VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
         steps, [&](const Json::Object& step) {
           const Json::Object& output = step.object("output");
           return std::tuple(runID, now, step.integer("position"), step.text("step_name"),
                             output.text("kind"), output.text("action"), Json(output).compact(), hardware);
         });
  ++version_;
}

void Store::recordSpans(const std::string& runID, const Json::Array& spans) {
  const std::string now = Clock::dateTime();
  insert(*database_,
         "INSERT INTO spans (run, at, name, kind, status, start_time, end_time, span) "
         "VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
         spans, [&](const Json::Object& span) {
           return std::tuple(runID, now, span.text("name"), span.text("kind"), span.text("status"),
                             span.text("start_time"), span.text("end_time"), Json(span).compact());
         });
  ++version_;
}

void Store::recordCalls(const std::string& runID, const Json::Array& calls) {
  const std::string now = Clock::dateTime();
  insert(*database_,
         "INSERT INTO calls (run, at, day, model, tokens_in, tokens_out, cost, call) "
         "VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
         calls, [&](const Json::Object& call) {
           const std::string made = call.text("timestamp").substr(0, 10);
           return std::tuple(runID, now, isDate(made) ? made : now.substr(0, 10), call.text("model"),
                             boundedTokens(call, "tokens_in"), boundedTokens(call, "tokens_out"),
                             boundedCost(call), Json(call).compact());
         });
  ++version_;
}

void Store::recordDecision(const std::string& runID, const std::string& workflow,
                           const PolicyDecision& decision) {
  statement(*database_, "INSERT INTO decisions (run, at, workflow, action, reason) VALUES (?, ?, ?, ?, ?)",
            runID, Clock::dateTime(), workflow, decision.action, decision.reason)
      .exec();
  ++version_;
}

void Store::completeRun(const std::string& runID, const Json::Object& body) {
  version_ += statement(*database_,
                        "UPDATE runs SET status = ?, error = ?, result = ?, completed_at = ? "
                        "WHERE id = ? AND completed_at IS NULL",
                        body.text("status"), body.text("error"), Json(body.object("result")).compact(),
                        Clock::dateTime(), runID)
                  .exec();
}

std::int64_t Store::tokens(const std::string& runID) {
  return single(*database_, tokensQuery, runID).getInt64();
}

double Store::cost(const std::string& runID) {
  return single(*database_, "SELECT total(cost) FROM calls WHERE run = ?", runID).getDouble();
}

std::string Store::overview() {
  return single(*database_, overviewQuery, maxRuns).getString();
}

std::string Store::run(const std::string& runID) {
  return single(*database_, runQuery, runID, maxItems).getString();
}

}  // namespace LocalControlPlane
