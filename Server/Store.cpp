#include "Server/Store.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>

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

class Statement {
 public:
  Statement(sqlite3* database, std::string_view sql) : database_(database) {
    check(sqlite3_prepare_v2(database, sql.data(), static_cast<int>(sql.size()), &statement_, nullptr));
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  template <typename... Values>
  Statement& bind(const Values&... values) {
    sqlite3_reset(statement_);
    int index = 0;
    (set(++index, values), ...);
    return *this;
  }

  bool step() {  // whether there is a row
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_ROW && result != SQLITE_DONE) check(result);
    return result == SQLITE_ROW;
  }

  std::string text(int column) {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return bytes ? std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
                 : "";
  }
  std::int64_t integer(int column) { return sqlite3_column_int64(statement_, column); }
  double number(int column) { return sqlite3_column_double(statement_, column); }

 private:
  void set(int index, const std::string& value) {
    check(sqlite3_bind_text64(statement_, index, value.data(), value.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
  }
  void set(int index, std::int64_t value) { check(sqlite3_bind_int64(statement_, index, value)); }
  void set(int index, double value) { check(sqlite3_bind_double(statement_, index, value)); }
  void set(int index, std::nullptr_t) { check(sqlite3_bind_null(statement_, index)); }

  void check(int result) {
    if (result != SQLITE_OK) throw StoreError(sqlite3_errmsg(database_));
  }

  sqlite3* database_;
  sqlite3_stmt* statement_ = nullptr;
};

// All or nothing: undone unless committed.
class Transaction {
 public:
  explicit Transaction(sqlite3* database) : database_(database) {
    Statement(database, "BEGIN IMMEDIATE").step();
  }
  ~Transaction() {
    if (!sqlite3_get_autocommit(database_)) sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit() { Statement(database_, "COMMIT").step(); }

 private:
  sqlite3* database_;
};

std::string randomHex(int bytes) {
  std::random_device device;
  std::string hex;
  for (int i = 0; i < bytes; ++i) {
    const unsigned byte = device();
    hex += "0123456789abcdef"[byte >> 4 & 15];
    hex += "0123456789abcdef"[byte & 15];
  }
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

void open(const std::string& path, sqlite3*& database) {
  // The sidecar files take the mode of the main file, so that one must be private from the start.
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (descriptor < 0) throw StoreError("it cannot be opened for writing");
  ::close(descriptor);
  if (sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    throw StoreError(sqlite3_errmsg(database));
  }
  sqlite3_exec(database, "PRAGMA locking_mode = EXCLUSIVE", nullptr, nullptr, nullptr);
  const int result = sqlite3_exec(database, "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL", nullptr,
                                  nullptr, nullptr);
  if (result == SQLITE_BUSY) throw StoreError("another obrisk-local is using it");
  if (result != SQLITE_OK) throw StoreError(sqlite3_errmsg(database));
  Transaction transaction(database);
  Statement version(database, "PRAGMA user_version");
  version.step();
  if (version.integer(0) > schemaVersion) throw StoreError("a newer obrisk-local wrote it");
  if (sqlite3_exec(database, schema, nullptr, nullptr, nullptr) != SQLITE_OK) {
    throw StoreError(sqlite3_errmsg(database));
  }
  transaction.commit();
}

}  // namespace

Store::Store(const std::string& path) : version_(Clock::now().time_since_epoch().count()) {
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) Files::makeDirectories(path.substr(0, slash));
  try {
    open(path, database_);
  } catch (const StoreError& error) {
    sqlite3_close(database_);
    throw StoreError(path + ": " + error.what());
  }
}

Store::~Store() {
  sqlite3_close(database_);
}

std::string Store::key() {
  Statement(database_, "INSERT OR IGNORE INTO settings VALUES ('key', ?)").bind(randomHex(24)).step();
  Statement statement(database_, "SELECT value FROM settings WHERE name = 'key'");
  statement.step();
  return statement.text(0);
}

Run Store::startRun(const Json::Object& body) {
  Run run{"run-" + randomHex(12), "workflow-" + body.text("workflow_name"), Clock::dateTime(), "", true};
  Statement(database_,
            "INSERT INTO runs (id, workflow_id, agent, slug, workflow, session, started_at, status, inputs, "
            "metadata) VALUES (?, ?, ?, ?, ?, ?, ?, 'running', ?, ?)")
      .bind(run.id, run.workflowID, body.text("agent_name"), body.text("agent_slug"),
            body.text("workflow_name"), body.text("session_id"), run.startedAt,
            Json(body.object("inputs")).compact(), Json(body.object("metadata")).compact())
      .step();
  ++version_;
  return run;
}

Run Store::dailyRun(const std::string& slug, const std::string& type, const std::string& date) {
  const Clock::Time now = Clock::now();
  const std::string day = date.empty() ? Clock::date(now) : date;
  Transaction transaction(database_);
  Statement(database_,
            "INSERT OR IGNORE INTO runs (id, workflow_id, agent, slug, workflow, day, started_at, status) "
            "VALUES (?, ?, ?, ?, 'daily', ?, ?, 'running')")
      .bind("run-" + randomHex(12), "daily-" + slug, type, slug, day, Clock::dateTime(now))
      .step();
  const bool created = sqlite3_changes(database_) > 0;
  Statement found(database_,
                  "SELECT id, workflow_id, started_at FROM runs WHERE slug = ? AND agent = ? AND day = ?");
  found.bind(slug, type, day).step();
  Run run{found.text(0), found.text(1), found.text(2), day, created};
  transaction.commit();
  version_ += created;
  return run;
}

bool Store::hasRun(const std::string& runID) {
  return Statement(database_, "SELECT 1 FROM runs WHERE id = ?").bind(runID).step();
}

void Store::recordSteps(const std::string& runID, const Json::Array& steps, const std::string& hardware) {
  const std::string now = Clock::dateTime();
  Transaction transaction(database_);
  Statement insert(database_,
                   "INSERT INTO steps (run, at, position, name, kind, action, output, hardware) "
                   "VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
  for (const Json& element : steps) {
    const Json::Object& step = *element.asObject();
    const Json::Object& output = step.object("output");
    insert
        .bind(runID, now, step.integer("position"), step.text("step_name"), output.text("kind"),
              output.text("action"), Json(output).compact(), hardware)
        .step();
  }
  transaction.commit();
  ++version_;
}

void Store::recordSpans(const std::string& runID, const Json::Array& spans) {
  const std::string now = Clock::dateTime();
  Transaction transaction(database_);
  Statement insert(database_,
                   "INSERT INTO spans (run, at, name, kind, status, start_time, end_time, span) "
                   "VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
  for (const Json& element : spans) {
    const Json::Object& span = *element.asObject();
    insert
        .bind(runID, now, span.text("name"), span.text("kind"), span.text("status"), span.text("start_time"),
              span.text("end_time"), element.compact())
        .step();
  }
  transaction.commit();
  ++version_;
}

void Store::recordCalls(const std::string& runID, const Json::Array& calls) {
  const std::string now = Clock::dateTime();
  Transaction transaction(database_);
  Statement insert(database_,
                   "INSERT INTO calls (run, at, day, model, tokens_in, tokens_out, cost, call) "
                   "VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
  for (const Json& element : calls) {
    const Json::Object& call = *element.asObject();
    const std::string made = call.text("timestamp").substr(0, 10);
    insert
        .bind(runID, now, isDate(made) ? made : now.substr(0, 10), call.text("model"),
              boundedTokens(call, "tokens_in"), boundedTokens(call, "tokens_out"), boundedCost(call),
              element.compact())
        .step();
  }
  transaction.commit();
  ++version_;
}

void Store::recordDecision(const std::string& runID, const std::string& workflow, const Verdict& verdict) {
  Statement(database_, "INSERT INTO decisions (run, at, workflow, action, reason) VALUES (?, ?, ?, ?, ?)")
      .bind(runID, Clock::dateTime(), workflow, verdict.action, verdict.reason)
      .step();
  ++version_;
}

bool Store::completeRun(const std::string& runID, const Json::Object& body) {
  Statement(database_,
            "UPDATE runs SET status = ?, error = ?, result = ?, completed_at = ? "
            "WHERE id = ? AND completed_at IS NULL")
      .bind(body.text("status"), body.text("error"), Json(body.object("result")).compact(), Clock::dateTime(),
            runID)
      .step();
  const bool changed = sqlite3_changes(database_) > 0;
  version_ += changed;
  return changed;
}

std::int64_t Store::tokens(const std::string& runID) {
  Statement statement(database_, tokensQuery);
  statement.bind(runID).step();
  return statement.integer(0);
}

double Store::cost(const std::string& runID) {
  Statement statement(database_, "SELECT total(cost) FROM calls WHERE run = ?");
  statement.bind(runID).step();
  return statement.number(0);
}

std::string Store::overview() {
  Statement statement(database_, overviewQuery);
  statement.bind(std::int64_t{maxRuns}).step();
  return statement.text(0);
}

std::string Store::run(const std::string& runID) {
  Statement statement(database_, runQuery);
  statement.bind(runID, std::int64_t{maxItems}).step();
  return statement.text(0);
}

}  // namespace LocalControlPlane
