// What measured hook processes find: a sandbox, events on file, and a control plane that agrees to
// everything. This process has the same environment, so what it stores the hook finds.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Hook/State/SessionState.h"
#include "Platform/Json/Json.h"
#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"

class Stage {
 public:
  Stage();

  std::string path(const std::string& name) const { return sandbox_.root() + "/" + name; }
  std::string project() const { return sandbox_.project(); }

  // The profile names that control plane, with an agent slug; none when `url` is empty.
  void configure(const std::string& url) const;

  // The rules of the project; none when empty.
  void setRules(const Json::Object& rules) const;

  // Removes all session records.
  void clearSessions() const;

  // Removes the record of the calls that were sent, which spares the next Stop its posts.
  void forgetCalls() const;

  // The record of the session "session" in the project directory, started now.
  SessionState session() const;
  void save(const SessionState& state) const;

  // Writes an event of that session to a file and returns its path.
  std::string event(const std::string& name, Json::Object members = {}) const;

  // A transcript of that many bytes or a few more, all of it from today; made once, then kept. Returns its
  // path.
  std::string transcript(std::int64_t size) const;

  // One server certificate, whose authority the hook trusts.
  const Certificate& certificate() const { return certificate_; }

 private:
  Sandbox sandbox_;
  Certificate certificate_;
};

// Answers every request with one that says yes to it. A client that is a round trip away waits that long for
// each answer, and for as many round trips as it takes to connect before the first.
void agree(FakeControlPlane& plane, std::chrono::milliseconds roundTrip = {}, int roundTripsToConnect = 1);
