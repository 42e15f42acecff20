// Any bytes as a session's file: it counts as missing, or it is a record that is written as it was read.
#include <cstddef>
#include <cstdint>

#include "Fuzz/Support/FuzzHome.h"
#include "Hook/State/SessionStore.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const FuzzHome home;
  FuzzHome::write(SessionStore::scopedStateDir() + "/s.json", {reinterpret_cast<const char*>(data), size});
  const auto state = SessionStore::load("s");
  const auto peer = SessionStore::findCoworkPeer(state ? state->cwd : "/", "other");
  if (!state) {
    require(!peer, "what does not read is nobody's peer");
    return 0;
  }
  require(peer.has_value() == (!state->cwd.empty() && !state->run_id.empty()), "a started session is a peer");
  SessionState moved = *state;
  moved.session_id = "s";
  require(!SessionStore::save(moved), "a record that reads can be stored");
  require(SessionStore::load("s") == moved, "a record reads as it was stored");
  return 0;
}
