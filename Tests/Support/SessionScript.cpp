#include "Tests/Support/SessionScript.h"

#include <algorithm>
#include <filesystem>
#include <regex>
#include <tuple>

#include "Hook/EventRouter.h"
#include "Hook/State/SessionStore.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"
#include "Shared/HardwareID.h"
#include "Tests/Support/Repeated.h"
#include "Tests/Support/Table.h"

namespace {

constexpr std::size_t longRun = 30;

// The first word of `text`, which loses it.
std::string takeWord(std::string& text) {
  const std::size_t end = std::min(text.find(' '), text.size());
  std::string word = text.substr(0, end);
  text.erase(0, end + 1);
  return word;
}

std::string stepText(const Json::Object& step) {
  if (step.size() != 3 || !step.find("position") || !step.text("step_name").starts_with("hook:"))
    return Json(step).compact();
  const std::string name = step.text("step_name").substr(5), position = step.find("position")->compact();
  const std::string time = step.object("output").text("timestamp");
  const std::tuple<char, const char*, std::string> base[] = {
      {'k', "kind", name.starts_with("unknown:") ? name : name.substr(0, name.find(':'))},
      {'i', "session_id", "s"},
      {'s', "source", "hook"},
      {'t', "timestamp", time.starts_with(Clock::date()) ? time : "a time of today"},
      {'u', "hardware_uuid", HardwareID::uuid()}};
  Json::Object output = step.object("output");
  std::string marks;
  for (const auto& [mark, key, value] : base) {
    if (output.optionalText(key) != value) continue;
    output.take(key);
    marks += mark;
  }
  const Json::Array& violations = output.list("violations");
  if (name == "guard_decision:" + output.text("action") && marks == "kist" && output.size() == 4 &&
      violations.size() == 1)
    return position + " " + output.text("action") + " by " + output.text("rule") + " of " +
           output.text("tool_name") + ": " + violations[0].asText()->c_str();
  return position + " " + name + " " + (marks == "kistu" ? "" : marks + " ") + Json(output).compact();
}

std::string requestText(const FakeControlPlane::Request& request) {
  static const std::regex base("^/api/v1/observe/(runs/(run-0/)?(?!start/|daily/))?|/$");
  const std::string path = std::regex_replace(request.path(), base, "");
  Json::Object body = request.json;
  const auto steps = path.ends_with("steps") ? body.take("steps") : std::nullopt;
  if (!steps || body != Json::Object{{"hardware_uuid", HardwareID::uuid()}})
    return path + " " + Json(request.json).compact();
  std::string text = path;
  for (const Json& step : *steps->asList())
    text += " " + stepText(*step.asObject());
  return text;
}

std::string outcomeText(const std::string& answer, const std::string& eventName) {
  if (answer == R"({"continue":true})") return "";
  const Json::Object output = parsed(answer).object("hookSpecificOutput");
  if (output.size() != 3 || output.text("hookEventName") != eventName) return answer;
  return output.text("permissionDecision") + " " + output.text("additionalContext") +
         output.text("permissionDecisionReason");
}

std::string recordText(const std::optional<SessionState>& before, const std::optional<SessionState>& after) {
  if (!after) return before ? "record none" : "";
  const Json::Object old = before.value_or(SessionState()).toJSON();
  Json::Object changed;
  for (const auto& [key, value] : after->toJSON())
    if (*old.find(key) != value) changed.set(key, value);
  return changed.empty() ? "" : "record " + Json(changed).compact();
}

// What was seen, with {…} for the objects that stand where `expected` has it.
std::string elided(std::string seen, std::string_view expected) {
  constexpr std::string_view any = "{…}";
  std::size_t start = 0;
  for (std::size_t at = expected.find(any); at != expected.npos; at = expected.find(any, start)) {
    if (seen.substr(start, at - start + 1) != std::string(expected.substr(start, at - start)) + "{") break;
    std::size_t end = at;
    for (int depth = 0; end < seen.size() && (end == at || depth > 0); ++end)
      depth += (seen[end] == '{') - (seen[end] == '}');
    seen.replace(at, end - at, any);
    start = at + any.size();
  }
  return seen;
}

}  // namespace

void SessionScript::play(std::string_view script) {
  const auto words = ::words("== own daily unconfigured given plane file >");
  std::vector<std::vector<std::string>> blocks;  // commands, or an event and what is seen of it
  for (auto& row : rows(script)) {
    std::erase(row, "");
    std::string rest = row[0];
    if (std::ranges::find(words, takeWord(rest)) != words.end()) {
      blocks.push_back(row);
      continue;
    }
    auto& block = blocks.back();
    if (block.size() == 1 && block[0].starts_with('>') && !block[0].ends_with(',')) block.push_back("");
    std::string& text = block.back();
    text += (text.empty() || text.ends_with(',') || text.ends_with('\n') ? "" : " ") + row[0];
    block.insert(block.end(), row.begin() + 1, row.end());
  }
  for (const auto& block : blocks) {
    SCOPED_TRACE(block[0]);
    std::string text = block[0];
    if (takeWord(text) != ">") {
      for (const std::string& each : block)
        command(each);
      continue;
    }
    const std::string name = takeWord(text), expected = block.size() > 1 ? block[1] : "";
    Json::Object event = parsed(expanded(text));
    for (const auto& [key, value] :
         {std::pair("hook_event_name", name), std::pair("session_id", std::string("s"))})
      if (!event.find(key)) event.set(key, value);
    EXPECT_EQ(seenOf(event, expected), expected);
  }
}

void SessionScript::playEach(std::string_view script, std::string_view table) {
  for (const auto& row : rows(table)) {
    std::string text(script);
    for (std::size_t column = 0; column < row.size(); ++column)
      text = replaced(std::move(text), "%" + std::to_string(column + 1), row[column]);
    play(text);
  }
}

void SessionScript::reset() {
  for (const std::string& path : {sandbox.state(), sandbox.home(), sandbox.project()})
    std::filesystem::remove_all(path);
  for (const std::string& path : {sandbox.home(), sandbox.project()})
    std::filesystem::create_directory(path);
  agree();
  ASSERT_FALSE(SessionStore::save(started()));
}

void SessionScript::command(std::string text) {
  const std::string word = takeWord(text), profile = sandbox.home() + "/.obrisk/config";
  if (word == "==") {
    reset();
  } else if (word == "own" || word == "daily") {
    sandbox.configure(plane.url(), word == "own" ? "" : "reviewer");
    if (text.empty()) return;
    sandbox.write(profile, contentOf(profile) + "policy_check_fail_default = " + text + "\n");
  } else if (word == "unconfigured") {
    Files::remove(profile);
  } else if (word == "given") {
    Json::Object record = started().toJSON();
    SessionStore::remove("s");
    if (text == "none") return;
    for (const auto& [key, value] : parsed(expanded(text)))
      record.set(key, value);
    ASSERT_FALSE(SessionStore::save(*SessionState::fromJSON(record)));
  } else if (word == "plane") {
    const std::string path = takeWord(text), status = takeWord(text);
    plane.on("*/" + path + "/", FakeControlPlane::json(parsed(expanded(text)), std::stoi(status)));
  } else {
    const std::string path = takeWord(text);
    sandbox.write(expanded(path), expanded(text));
  }
}

std::string SessionScript::seenOf(const Json::Object& event, std::string_view expected) {
  const std::string session = event.text("session_id");
  const auto before = SessionStore::load(session);
  const std::size_t logged = jsonLines(sandbox.diagnostics()).size(), asked = plane.requests().size();
  std::string text = outcomeText(answer(event), event.text("hook_event_name"));
  const auto add = [&](const std::string& part) { text += (text.empty() || part.empty() ? "" : " ") + part; };
  const auto requests = plane.requests();
  std::for_each(requests.begin() + asked, requests.end(), [&](const auto& each) { add(requestText(each)); });
  add(recordText(before, SessionStore::load(session)));
  const auto log = jsonLines(sandbox.diagnostics());
  std::for_each(log.begin() + logged, log.end(),
                [&](const auto& each) { add("log " + each.text("message")); });
  return elided(abbreviated(text), expected);
}

std::string SessionScript::answerHere(const Json::Object& event) {
  return renderJSON(EventRouter::handle(event, std::nullopt, "claude"));
}

std::string SessionScript::expanded(std::string text) const {
  text = std::regex_replace(text, std::regex(R"(([{,]\s*)([A-Za-z_.]+):)"), "$1\"$2\":");
  static const std::regex run(R"(<([^<]+)\*(\d+)>)");
  for (std::smatch found; std::regex_search(text, found, run);)
    text = found.prefix().str() + repeated(found[1].str(), std::stoul(found[2])) + found.suffix().str();
  text = replaced(std::move(text), "@project", sandbox.project());
  text = replaced(std::move(text), "@root", sandbox.root());
  text = replaced(std::move(text), "@now", Clock::dateTime());
  return text;
}

std::string SessionScript::abbreviated(std::string text) const {
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::size_t length = std::min(text.find_first_not_of(text[at], at), text.size()) - at;
    const std::string run = std::string("<") + text[at] + "*" + std::to_string(length) + ">";
    if (length >= longRun) text.replace(at, length, run);
  }
  text = replaced(std::move(text), "\\/", "/");
  text = replaced(std::move(text), sandbox.project(), "@project");
  text = replaced(std::move(text), sandbox.root(), "@root");
  text = std::regex_replace(text, std::regex("\"" + Clock::date() + R"(T\d\d:\d\d:\d\d\.\d{3}Z")"), "now");
  text = std::regex_replace(text, std::regex(R"re("([\w.]+)":)re"), "$1:");
  text = replaced(std::move(text), "hardware_uuid:\"" + HardwareID::uuid() + "\"", "hardware_uuid:uuid");
  return text;
}
