// The world that measured hook processes find: a home, a state directory and a project of their own, and
// events on file. This process has the same environment, so what it stores the hook finds.
#pragma once

#include <filesystem>
#include <string>

#include "Hook/State/SessionState.h"
#include "Platform/Json/Json.h"

class Stage {
 public:
  Stage();
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  std::string path(const std::string& name) const { return root_ + "/" + name; }
  std::string project() const { return path("project"); }

  // The profile names that control plane, with an agent slug; none when `url` is empty.
  void configure(const std::string& url) const;

  // The rules of the project; none when empty.
  void setRules(const Json::Object& rules) const;

  // Removes all session records.
  void clearSessions() const;

  // The record of the session "session" in the project directory, started now.
  SessionState session() const;
  void save(const SessionState& state) const;

  // Writes an event of that session to a file and returns its path.
  std::string event(const std::string& name, Json::Object members = {}) const;

  // A transcript of that many bytes or a few more, all of it from today; made once, then kept. Returns its
  // path.
  std::string transcript(std::int64_t size) const;

  // Removes a transcript that takes much room.
  void drop(const std::string& path) const;

 private:
  std::string root_;
};
