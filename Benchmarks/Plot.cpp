#include "Benchmarks/Plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace Plot {

namespace {

constexpr double width = 720, height = 380;
constexpr double left = 64, right = 190, top = 48, bottom = 52;  // margins

// Two palettes of the same hues, told apart by readers who do not tell red from green.
constexpr const char* style = R"(<style>
  text { font: 13px system-ui, sans-serif; fill: #24292f; }
  .title { font-size: 15px; font-weight: 600; }
  .grid { stroke: #d0d7de; } .guide { stroke: #6e7781; stroke-dasharray: 4 4; }
  .muted { fill: #57606a; }
  .line { fill: none; stroke-width: 2.5; stroke-linejoin: round; }
  .s0 { stroke: #0969da; } .s1 { stroke: #bc4c00; } .s2 { stroke: #8250df; }
  .f0 { fill: #0969da; } .f1 { fill: #bc4c00; } .f2 { fill: #8250df; }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3; }
    .grid { stroke: #30363d; } .guide { stroke: #8b949e; } .muted { fill: #8b949e; }
    .s0 { stroke: #58a6ff; } .s1 { stroke: #f0883e; } .s2 { stroke: #bc8cff; }
    .f0 { fill: #58a6ff; } .f1 { fill: #f0883e; } .f2 { fill: #bc8cff; }
  }
</style>
)";

std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text)
    out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
  return out;
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

std::string textAt(double x, double y, const std::string& text, const char* attributes) {
  return "<text x=\"" + number(x) + "\" y=\"" + number(y) + "\" " + attributes + ">" + escaped(text) +
         "</text>\n";
}

std::string line(Point from, Point to, const char* kind) {
  return std::string("<line class=\"") + kind + "\" x1=\"" + number(from.x) + "\" y1=\"" + number(from.y) +
         "\" x2=\"" + number(to.x) + "\" y2=\"" + number(to.y) + "\"/>\n";
}

// One logarithmic scale: values to places.
struct Scale {
  double least, most;  // values
  double from, to;     // places

  double at(double value) const {
    return from + (to - from) * std::log(value / least) / std::log(most / least);
  }
};

class Drawing {
 public:
  explicit Drawing(const Figure& figure) : figure_(figure) {
    double leastX = 1e300, mostX = 0, leastY = 1e300, mostY = 0;
    for (const Series& series : figure.series) {
      for (const auto& [x, y] : series.points) {
        leastX = std::min(leastX, x);
        mostX = std::max(mostX, x);
        leastY = std::min(leastY, y);
        mostY = std::max(mostY, y);
      }
    }
    x_ = {leastX, mostX, left, width - right};
    y_ = {std::pow(10, std::floor(std::log10(leastY))), std::pow(10, std::ceil(std::log10(mostY))),
          height - bottom, top};
  }

  std::string svg() const {
    char head[160];
    std::snprintf(head, sizeof head,
                  "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %.0f %.0f\" role=\"img\">\n",
                  width, height);
    return head + ("<title>" + escaped(figure_.title) + "</title>\n") + style +
           textAt(left, 24, figure_.title, "class=\"title\"") + axes() + guide() + lines() + "</svg>\n";
  }

 private:
  std::string axes() const {
    std::string out;
    for (const auto& [value, text] : figure_.x.ticks) {
      const double x = x_.at(value);
      out += line({x, y_.from}, {x, y_.to}, "grid") +
             textAt(x, y_.from + 18, text, "class=\"muted\" text-anchor=\"middle\"");
    }
    for (double value = y_.least; value <= y_.most * 1.01; value *= 10) {
      char text[32];
      std::snprintf(text, sizeof text, "%g", value);
      const double y = y_.at(value);
      out += line({x_.from, y}, {x_.to, y}, "grid") +
             textAt(x_.from - 8, y + 4, text, "class=\"muted\" text-anchor=\"end\"");
    }
    return out + textAt((x_.from + x_.to) / 2, height - 12, figure_.x.label, "text-anchor=\"middle\"") +
           textAt(left, 40, figure_.yLabel, "class=\"muted\"");
  }

  // In proportion to the cause, through the last point of the first series, as far as it stays in the frame.
  std::string guide() const {
    const Point end = figure_.series[0].points.back();
    const double reach = std::min(end.y / y_.least, end.x / x_.least);
    const Point begin{end.x / reach, end.y / reach};
    return line({x_.at(begin.x), y_.at(begin.y)}, {x_.at(end.x), y_.at(end.y)}, "guide");
  }

  std::string lines() const {
    std::string out;
    std::vector<double> labels;
    for (std::size_t i = 0; i < figure_.series.size(); ++i) {
      const auto& [name, points] = figure_.series[i];
      const std::string colour = std::to_string(i % 3);
      out += "<polyline class=\"line s" + colour + "\" points=\"";
      for (const auto& [x, y] : points)
        out += number(x_.at(x)) + "," + number(y_.at(y)) + " ";
      out += "\"/>\n";
      for (const auto& [x, y] : points)
        out += "<circle class=\"f" + colour + "\" cx=\"" + number(x_.at(x)) + "\" cy=\"" + number(y_.at(y)) +
               "\" r=\"3.5\"/>\n";
      out += label(name, colour, y_.at(points.back().y), labels);
    }
    return out;
  }

  // At the end of its line, but clear of the labels before.
  std::string label(const std::string& name, const std::string& colour, double y,
                    std::vector<double>& taken) const {
    constexpr double apart = 18;
    while (std::any_of(taken.begin(), taken.end(), [&](double each) { return std::abs(each - y) < apart; }))
      y += 2;
    taken.push_back(y);
    return "<circle class=\"f" + colour + "\" cx=\"" + number(x_.to + 14) + "\" cy=\"" + number(y) +
           "\" r=\"4\"/>\n" + textAt(x_.to + 24, y + 4, name, "");
  }

  const Figure& figure_;
  Scale x_, y_;
};

}  // namespace

std::string svg(const Figure& figure) {
  return Drawing(figure).svg();
}

}  // namespace Plot
