// SVG charts for recorded measurements: small multiples, one panel per series, each with its own
// value axis, sharing the time axis. Written by hand: no plotting library is needed for lines.
#include "svg_plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace dvtool {
namespace {

constexpr double kWidth = 800;
constexpr double kPanelHeight = 150;
constexpr double kLeft = 70, kRight = 20, kTop = 40, kGap = 30;

std::string Escape(const std::string &text) {
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string Number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

std::string Coordinate(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

// A step of 1, 2 or 5 times a power of ten that gives at most ten time ticks.
double TickStep(double span) {
    if (span <= 0) {
        return 1;
    }
    double step = std::pow(10.0, std::floor(std::log10(span / 10)));
    for (double factor : {1.0, 2.0, 5.0, 10.0}) {
        if (span / (step * factor) <= 10) {
            return step * factor;
        }
    }
    return step * 10;
}

void Panel(std::ostringstream &svg, const Series &series, double top, double tMax, bool last) {
    const double plotWidth = kWidth - kLeft - kRight;
    const double plotHeight = kPanelHeight - 40;
    double lo = 0, hi = 1;
    if (!series.values.empty()) {
        lo = *std::min_element(series.values.begin(), series.values.end());
        hi = *std::max_element(series.values.begin(), series.values.end());
    }
    if (hi - lo < 1e-9) { // a flat line sits in the middle of its panel
        lo -= 1;
        hi += 1;
    }
    const double y0 = top + 20;
    svg << "<g class=\"panel\">\n";
    svg << "<text x=\"" << kLeft << "\" y=\"" << Coordinate(top + 12)
        << "\" font-size=\"13\" font-weight=\"bold\">" << Escape(series.name)
        << (series.unit.empty() ? "" : " [" + Escape(series.unit) + "]") << "</text>\n";
    svg << "<rect x=\"" << kLeft << "\" y=\"" << Coordinate(y0) << "\" width=\""
        << Coordinate(plotWidth) << "\" height=\"" << Coordinate(plotHeight)
        << "\" fill=\"#fafafa\" stroke=\"#999\"/>\n";
    svg << "<text x=\"" << kLeft - 6 << "\" y=\"" << Coordinate(y0 + 10)
        << "\" font-size=\"11\" text-anchor=\"end\">" << Number(hi) << "</text>\n";
    svg << "<text x=\"" << kLeft - 6 << "\" y=\"" << Coordinate(y0 + plotHeight)
        << "\" font-size=\"11\" text-anchor=\"end\">" << Number(lo) << "</text>\n";
    const double step = TickStep(tMax);
    for (double t = 0; tMax > 0 && t <= tMax + step * 1e-9; t += step) {
        const double x = kLeft + t / tMax * plotWidth;
        svg << "<line x1=\"" << Coordinate(x) << "\" y1=\"" << Coordinate(y0) << "\" x2=\""
            << Coordinate(x) << "\" y2=\"" << Coordinate(y0 + plotHeight)
            << "\" stroke=\"#e0e0e0\"/>\n";
        if (last) {
            svg << "<text x=\"" << Coordinate(x) << "\" y=\"" << Coordinate(y0 + plotHeight + 14)
                << "\" font-size=\"11\" text-anchor=\"middle\">" << Number(t) << "</text>\n";
        }
    }
    svg << "<polyline fill=\"none\" stroke=\"#1f6fb2\" stroke-width=\"1.5\" points=\"";
    for (size_t i = 0; i < series.values.size() && i < series.times.size(); ++i) {
        const double x = kLeft + (tMax > 0 ? series.times[i] / tMax : 0) * plotWidth;
        const double y = y0 + plotHeight - (series.values[i] - lo) / (hi - lo) * plotHeight;
        svg << (i == 0 ? "" : " ") << Coordinate(x) << "," << Coordinate(y);
    }
    svg << "\"/>\n</g>\n";
}

} // namespace

std::string PlotSvg(const std::string &title, const std::vector<Series> &series) {
    double tMax = 0;
    for (const Series &s : series) {
        for (double t : s.times) {
            tMax = std::max(tMax, t);
        }
    }
    const double height = kTop + static_cast<double>(series.size()) * (kPanelHeight + kGap) + 30;
    std::ostringstream svg;
    svg << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\""
        << Coordinate(height) << "\" viewBox=\"0 0 " << kWidth << " " << Coordinate(height)
        << "\" font-family=\"sans-serif\">\n";
    svg << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    svg << "<text x=\"" << kLeft << "\" y=\"24\" font-size=\"16\">" << Escape(title) << "</text>\n";
    double top = kTop;
    for (size_t i = 0; i < series.size(); ++i) {
        Panel(svg, series[i], top, tMax, i + 1 == series.size());
        top += kPanelHeight + kGap;
    }
    svg << "<text x=\"" << kLeft << "\" y=\"" << Coordinate(top + 4) << "\" font-size=\"11\">"
        << "time [s], 0 to " << Number(tMax) << " s</text>\n";
    svg << "</svg>\n";
    return svg.str();
}

} // namespace dvtool
