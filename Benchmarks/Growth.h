// How the cost of an event grows with what it has to look at.
#pragma once

#include <string>

#include "Benchmarks/Stage.h"

namespace Growth {

// Measures and writes one plot for each cause of growth into the directory.
void plot(const Stage& stage, const std::string& directory, int rounds);

}  // namespace Growth
