// A fresh home, state directory and project for one test, as the environment of this process. Every variable
// that the product, a proxy or a certificate store reads is unset. At its end the environment is as it was,
// and the files are gone, unless the test failed: then they stay and their place is printed.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/State/SessionState.h"
#include "Platform/Json/Json.h"

class Sandbox {
 public:
  Sandbox();
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  std::string root() const { return root_; }
  std::string home() const { return root_ + "/home"; }
  std::string state() const { return root_ + "/state"; }      // not there until the product makes it
  std::string project() const { return root_ + "/project"; }  // exists
  std::string stateFile(const std::string& sessionID) const { return state() + "/" + sessionID + ".json"; }
  std::string activityLog() const { return home() + "/.obrisk/logs/hook.activity.jsonl"; }
  std::string diagnostics() const { return home() + "/.obrisk/logs/hook.diagnostics.jsonl"; }

  void set(const std::string& name, const std::string& value);  // until the end of the test
  void unset(const std::string& name);

  // Writes a file with its directories. Throws when it cannot.
  static void write(const std::string& path, std::string_view content);

  // A profile file whose section "claude-code" names that control plane; no slug when `agentSlug` is empty.
  void configure(const std::string& url, const std::string& agentSlug = "") const;

  // A client for that control plane whose retries take no time.
  static ObserveClient client(const std::string& url, const std::string& agentSlug = "",
                              const std::string& failDefault = "allow");

  // The record of a session "s" with run "run-0" in the project directory, started now, at position 0.
  SessionState started() const;

  struct Result {
    int status = 0;  // exit status, or 128 + the signal that ended it
    std::string output;
    std::string error;
  };

  // Runs the product's executable in this environment, in the project directory.
  Result run(const std::vector<std::string>& arguments, const std::string& input) const;
  Result run(const std::vector<std::string>& arguments, const Json::Object& event) const {
    return run(arguments, Json(event).compact());
  }

  // Starts it without waiting; the caller waits for the process.
  int start(const std::vector<std::string>& arguments, const std::string& inputFile,
            const std::string& outputFile, const std::string& errorFile) const;

  // Called in every process that is started, just before it becomes the product: for its limits and its user.
  std::function<void()> inChild;

  // What `work` returns in a child process of a user who owns this sandbox and is bound by modes, as root is
  // not.
  bool asOwner(const std::function<bool()>& work) const;

  // All names in a directory and below, relative to it, sorted.
  static std::vector<std::string> tree(const std::string& directory);

 private:
  void remember(const std::string& name);

  std::string root_;
  std::map<std::string, std::optional<std::string>> saved_;
};

// What `work` returns in a child process.
bool inChildProcess(const std::function<bool()>& work);

// The content of a file that must be there; a test that reads a missing one fails.
std::string contentOf(const std::string& path);

// The lines of a file of JSON objects; none when the file is missing. A line that is no object fails the
// test.
std::vector<Json::Object> jsonLines(const std::string& path);

Json::Object parsed(const std::string& text);

// The text with <now> for every date-time of today.
std::string undated(const std::string& text);
