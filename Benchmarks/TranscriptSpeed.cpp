// How fast a transcript of ordinary shape is read: whole, next to a plain reading of the same file, and by
// its tail.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>

#include "Benchmarks/TranscriptAuthor.h"
#include "Hook/Transcript/Transcript.h"
#include "Platform/Files.h"

namespace {

constexpr std::int64_t transcriptSize = 100'000'000;
constexpr std::int64_t tailSize = 300'000;

// A transcript in a file of its own for the time of the process.
class Transcripts {
 public:
  Transcripts() : path_(std::filesystem::temp_directory_path() / "quib-transcript-benchmark.jsonl") {
    size_ = TranscriptAuthor("2026-01-31T09:15:00.123Z").write(path_.string(), transcriptSize);
  }
  ~Transcripts() { std::filesystem::remove(path_); }
  std::string path() const { return path_.string(); }
  std::int64_t size() const { return size_; }

 private:
  std::filesystem::path path_;
  std::int64_t size_ = 0;
};

const Transcripts& transcript() {
  static const Transcripts instance;
  return instance;
}

void readPlainly(benchmark::State& state) {
  const std::string path = transcript().path();
  for (auto _ : state)
    benchmark::DoNotOptimize(Files::read(path));
  state.SetBytesProcessed(state.iterations() * transcript().size());
}

void parseWhole(benchmark::State& state) {
  const std::string path = transcript().path();
  for (auto _ : state)
    benchmark::DoNotOptimize(Transcript::parse(path, 0));
  state.SetBytesProcessed(state.iterations() * transcript().size());
}

void parseTail(benchmark::State& state) {
  const std::string path = transcript().path();
  const auto offset = transcript().size() - tailSize;
  for (auto _ : state)
    benchmark::DoNotOptimize(Transcript::parse(path, offset));
  state.SetBytesProcessed(state.iterations() * tailSize);
}

BENCHMARK(readPlainly)->Name("Transcript, 100 MB/read plainly")->Unit(benchmark::kMillisecond);
BENCHMARK(parseWhole)->Name("Transcript, 100 MB/parse whole")->Unit(benchmark::kMillisecond);
BENCHMARK(parseTail)->Name("Transcript, 100 MB/parse the last 300 KB")->Unit(benchmark::kMicrosecond);

}  // namespace
