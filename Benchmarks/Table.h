// What each kind of event costs, beside what any process costs. All figures are medians of runs that take
// turns, so that what else the machine does falls on every row alike.
#pragma once

#include <string>

#include "Benchmarks/Stage.h"

namespace Table {

// The table in Markdown. `rounds` is how often each row is run for its times.
std::string measured(const Stage& stage, int rounds);

}  // namespace Table
