// Plots of how a cost grows, as SVG: both axes logarithmic, so that a cost in proportion to its cause rises
// by one decade a decade, which a dashed line shows beside the measured ones. No background, and colours that
// follow the reader's light or dark scheme.
#pragma once

#include <string>
#include <vector>

namespace Plot {

struct Point {
  double x = 0;  // greater than 0
  double y = 0;
};

struct Series {
  std::string name;
  std::vector<Point> points;  // at least two, by ascending x
};

struct Axis {
  std::string label;
  std::vector<std::pair<double, std::string>> ticks;  // position and text
};

struct Figure {
  std::string title;
  Axis x;
  std::string yLabel;
  std::vector<Series> series;
};

std::string svg(const Figure& figure);

}  // namespace Plot
