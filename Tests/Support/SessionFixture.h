// A sandbox, and a control plane that gives runs to whoever asks.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Hook/ControlPlane/ObserveClient.h"
#include "Hook/State/SessionState.h"
#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"

class SessionFixture : public testing::Test {
 protected:
  SessionFixture() { agree(); }

  // From now on the control plane gives runs "run-1", "run-2", ... of workflow "wf", started now, daily ones
  // "daily-1", "daily-2", ..., and answers everything else with {}.
  void agree();

  // A client without an agent slug, and one with it.
  ObserveClient own() const { return Sandbox::client(plane.url()); }
  ObserveClient daily(const std::string& failDefault = "allow") const {
    return Sandbox::client(plane.url(), "reviewer", failDefault);
  }
  static ObserveClient unconfigured() { return Sandbox::client(""); }

  SessionState started() const { return sandbox.started(); }

  // The stored record of session "s"; the test fails when there is none.
  static SessionState stored(const std::string& sessionID = "s");

  // An event of session "s" with these members.
  static Json::Object event(const std::string& name, Json::Object members = {});

  Sandbox sandbox;
  FakeControlPlane plane;
};
