// The message ids of the LLM calls already sent to the control plane, one file per run, so that each call is
// sent once although successive readings of a transcript may overlap.
//
// Nothing here reports an error: a file that is missing or damaged reads as the empty set, and a save that
// fails leaves the file as it was. Of two processes that save at the same time the last one wins.
#pragma once

#include <optional>
#include <set>
#include <string>

namespace LLMCallDedupe {

// Where the ids of `runID` are kept: under `~/.obrisk/cc-dedupe`, in a directory of its own when
// OBRISK_PROJECT_KEY names a project. Absent when there is no home directory.
std::optional<std::string> path(const std::string& runID);

// The recorded ids; empty for the empty run id.
std::set<std::string> load(const std::string& runID);

// Replaces the recorded ids by `ids`; does nothing for the empty run id.
void save(const std::string& runID, const std::set<std::string>& ids);

}  // namespace LLMCallDedupe
