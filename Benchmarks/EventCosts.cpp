// Measures what the hook costs: `event-costs table` prints one table, `event-costs plots DIRECTORY` writes
// the plots of how the costs grow. `--rounds N` sets how often each thing is timed.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "Benchmarks/EventCosts.h"

namespace {

int run(std::vector<std::string> words) {
  int rounds = 15;
  if (words.size() >= 2 && words[words.size() - 2] == "--rounds") {
    rounds = std::max(1, std::atoi(words.back().c_str()));
    words.resize(words.size() - 2);
  }
  const Stage stage;
  if (words.size() == 1 && words[0] == "table") {
    std::fputs(EventCosts::table(stage, rounds).c_str(), stdout);
  } else if (words.size() == 2 && words[0] == "plots") {
    EventCosts::plot(stage, words[1], rounds);
  } else {
    std::fputs("Usage: event-costs table | plots DIRECTORY  [--rounds N]\n", stderr);
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run({argv + 1, argv + argc});
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "event-costs: %s\n", failure.what());
    return 1;
  }
}
