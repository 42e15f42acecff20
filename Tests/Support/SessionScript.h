// Sessions played from a script: what is given, and events with all that they bring about. Given is, one or
// more with ¦ between them in a line,
//
//   == what the case is about    a stored session "s", as `started` has it, and a control plane that agrees
//   own | daily [DEFAULT] | unconfigured    a profile without a slug, with one (and that fail default), or
//   none given none | {...}           no stored session, or that one with these members plane PATH STATUS
//   {...}      what requests to the paths that match are answered file PATH TEXT               a file of JSON
//
// An event of session "s" is `> EVENT {...} ¦ what is seen of it`, which can begin or go on in the next
// lines:
//
//   ask TEXT | deny TEXT         the outcome, unless the agent goes on
//   PATH {...}                   a request; the path begins with the run unless that is "run-0"
//   steps POSITION NAME {...}    one with a step. Its base members are left out: the kind of that name, the
//                                session's id, the source "hook", the time, the machine's id; when some are
//                                missing or different, letters before the braces (kistu) tell which are right
//   steps POSITION ACTION by RULE of TOOL: VIOLATION    one with a guard decision
//   record none | {...}          that the session's record is gone, or its members that changed
//   log TEXT                     a diagnostic message
//
// {…} stands for any object. Keys have no quotes; the time of today is `now`, in what is given @now; the
// sandbox's directories are @root and @project, a long run of one character <x*600>.
#pragma once

#include <functional>

#include "Tests/Support/SessionFixture.h"

class SessionScript : public SessionFixture {
 protected:
  void play(std::string_view script);
  // The script once for every row of the table, with the row's columns for %1, %2, ... in it.
  void playEach(std::string_view script, std::string_view table);

  // Prepares a case; one of the words above with what follows it.
  void reset();
  void command(std::string text);

  // All that is seen of an event, with {…} for the objects where `expected` has it.
  std::string seenOf(const Json::Object& event, std::string_view expected = "");

  // How an event is answered: by the router in this process, unless a test says otherwise.
  std::function<std::string(const Json::Object& event)> answer = answerHere;

  // The text that a script means, in which keys have quotes, and the other way round.
  std::string expanded(std::string text) const;
  std::string abbreviated(std::string text) const;

 private:
  static std::string answerHere(const Json::Object& event);
};
