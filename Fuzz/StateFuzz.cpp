// Any bytes as a session's file: it counts as missing, or it is a record that is written as it was read.
#include "Fuzz/Support/Fuzzing.h"
#include "Hook/State/SessionStore.h"

void fuzz(std::string_view input) {
  Sandbox::write(sandbox().stateFile("s"), input);
  const auto state = SessionStore::load("s");
  const auto peer = SessionStore::findCoworkPeer(state ? state->cwd : "/", "other");
  require(peer.has_value() == (state && !state->cwd.empty() && !state->run_id.empty()),
          "a started session is a peer, and what does not read is nobody's");
  if (!state) return;
  SessionState moved = *state;
  moved.session_id = "s";
  require(!SessionStore::save(moved), "a record that reads can be stored");
  require(SessionStore::load("s") == moved, "a record reads as it was stored");
}
