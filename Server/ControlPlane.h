// The Observe API as the hook speaks it, the agent-config endpoint, and the page: one request in, one answer
// out.
//
// The API wants the key in "X-Quib-Key". The page wants no key: it is for whoever sits at this machine, so it
// is only served over loopback and to a Host that is this machine's own name, which a web site that re-binds
// its name to 127.0.0.1 cannot claim; no answer allows another origin to read it.
//
// A request is answered when what it brings has been stored. Nothing here throws or blocks for long.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Json/Json.h"
#include "Server/Policies.h"
#include "Server/Store.h"

namespace LocalControlPlane {

struct Request {
  std::string method{};
  std::string target{};   // the path, without the query
  std::string key{};      // header X-Quib-Key
  std::string device{};   // header X-Quib-Device
  std::string tenant{};   // header X-Quib-Tenant
  std::string host{};     // header Host
  std::string known{};    // header If-None-Match
  std::string process{};  // the query item "process"
  bool fromLoopback = false;
  std::string body{};
};

struct Reply {
  int status = 200;
  std::string body{};
  std::string contentType = "application/json";
  std::string tag{};    // header ETag; empty: none
  std::string nonce{};  // of the page's script; empty: no script may run
};

class ControlPlane {
 public:
  // An empty `key` means the one that the store keeps; an empty `policyPath` no policies. Throws
  // std::runtime_error when the data file cannot be used.
  ControlPlane(const std::string& dataPath, std::string key, std::string policyPath);

  const std::string& key() const { return key_; }
  PolicyFile& policies() { return policies_; }

  // The answer to a request that is not worth reading the body of; absent when the body is wanted.
  std::optional<Reply> refuse(const Request& request) const;
  // The answer to a request that was not refused.
  Reply answer(const Request& request);

 private:
  using Body = Json::Object;
  Body post(const Request& request);
  Body agentConfig(const Request& request) const;
  Body startRun(const std::string& runID, const Body& body);
  Body dailyRun(const std::string& runID, const Body& body);
  Body checkPolicy(const std::string& runID, const Body& body);
  Body recordSteps(const std::string& runID, const Body& body);
  Body recordSpans(const std::string& runID, const Body& body);
  Body recordCalls(const std::string& runID, const Body& body);
  Body completeRun(const std::string& runID, const Body& body);
  Reply page(const Request& request);
  std::string overview();
  void refreshPolicies();

  struct Route;
  static const Route routes[];
  static const Route* find(std::string_view target, std::string& runID);

  Store store_;
  std::string key_;
  PolicyFile policies_;
  std::int64_t policyChanges_ = 0;
};

}  // namespace LocalControlPlane
