// A small SVG chart writer for `dravelin record --plot`: one panel a series, value over time.
#pragma once

#include <string>
#include <vector>

namespace dvtool {

struct Series {
    std::string name;           // "Group 1.1"
    std::string unit;           // "rpm", may be empty
    std::vector<double> times;  // seconds since the start
    std::vector<double> values; // same length as times
};

// The chart as a complete SVG document.
std::string PlotSvg(const std::string &title, const std::vector<Series> &series);

} // namespace dvtool
