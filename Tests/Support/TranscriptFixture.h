// A transcript in a sandbox of its own.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Hook/Transcript/Transcript.h"
#include "Tests/Support/Repeated.h"
#include "Tests/Support/Sandbox.h"

class TranscriptFixture : public testing::Test {
 protected:
  std::string path() const { return sandbox_.root() + "/transcript.jsonl"; }

  TranscriptSummary parse(const std::string& content, std::int64_t startOffset = 0) {
    sandbox_.write(path(), content);
    return Transcript::parse(path(), startOffset);
  }

  // The one call that the one assistant line `line` records.
  LlmCallData call(const std::string& line) {
    TranscriptSummary summary = parse(line);
    EXPECT_EQ(summary.calls.size(), 1u) << line;
    return summary.calls.empty() ? LlmCallData() : summary.calls[0];
  }

  Sandbox sandbox_;
};
