// One state file for each session, in the state directory: `OBRISK_CC_STATE_DIR`, else "/tmp/obrisk-cc"; in
// its subdirectory "proj-KEY" when `OBRISK_PROJECT_KEY` names a project. Files have mode 0600, created
// directories 0700.
//
// Other users may have put something into "/tmp". The default directory, and its subdirectory, is used only
// when it is missing or a real directory of the effective user; in its place come "/tmp/obrisk-cc-UID", and
// then "~/.obrisk/state". A file is believed only when it is the effective user's, or in a directory that the
// user named, of the owner of that directory.
//
// There are no locks: a reader sees a whole old file or a whole new one, and of writers at the same time the
// last wins. A file that does not read counts as missing. Identifiers are used in file names as they are; one
// that leads out of the directory has no file, and cannot be saved.
#pragma once

#include <optional>
#include <string>
#include <system_error>

#include "Hook/State/SessionState.h"

namespace SessionStore {

// Value of `OBRISK_PROJECT_KEY` without blanks at its ends; empty when there is none.
std::string projectKey();

// The directory that this invocation's state files lie in. Does not create it.
std::string scopedStateDir();

// The session's record; absent when there is none that reads.
std::optional<SessionState> load(const std::string& sessionID);

// Says in the log that the default directory cannot be used, if that is so.
void reportDirectory();

// Replaces the session's file, creating the directory first. Returns, and logs once for a process, what
// prevented it, if anything did; the old file is then untouched.
std::error_code save(const SessionState& state);

// Removes the session's file, if there is one. The empty identifier removes nothing.
void remove(const std::string& sessionID);

// Removes the state files that were not modified for 24 hours, and with them what killed saves left. Returns
// how many state files it found.
int cleanupStale();

// A started session other than `excludeSessionID` whose working directory is `cwd` to the letter; of several
// the first by file name. An empty `cwd` has none.
std::optional<SessionState> findCoworkPeer(const std::string& cwd, const std::string& excludeSessionID);

}  // namespace SessionStore
