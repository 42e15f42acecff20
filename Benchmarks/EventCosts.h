// What events cost, as a table and as plots of how the costs grow.
#pragma once

#include <string>

#include "Benchmarks/Stage.h"

namespace EventCosts {

// Each kind of event beside what any process costs, in Markdown. Times are medians of `rounds` runs that take
// turns, so that what else the machine does falls on every row alike.
std::string table(const Stage& stage, int rounds);

// Measures and writes one plot for each cause of growth into the directory.
void plot(const Stage& stage, const std::string& directory, int rounds);

}  // namespace EventCosts
