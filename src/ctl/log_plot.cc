// The summary of a log as a picture: how many, how slow and how often wrong, one above the other.

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

#include "ctl/log_entry.h"
#include "ctl/log_report.h"

namespace tavlo::ctl {

namespace {

// In the units of the picture.
constexpr int kWidth = 960;
constexpr int kLeft = 70;
constexpr int kPlotWidth = kWidth - kLeft - 20;
constexpr int kPlotHeight = 120;
constexpr int kDistance = 170;  // from one panel to the next
constexpr int kTop = 40;

struct Panel {
  const char* title;
  const char* colour;
  double (*value)(const Step& step, double minutes);
};

constexpr std::array<Panel, 4> kPanels = {{
    {"requests a minute", "#1f77b4",
     [](const Step& step, double minutes) { return static_cast<double>(step.requests) / minutes; }},
    {"slowest request, in milliseconds (with -d)", "#9467bd",
     [](const Step& step, double /*minutes*/) { return static_cast<double>(step.slowest); }},
    {"answered by the daemon itself, a minute", "#ff7f0e",
     [](const Step& step, double minutes) { return static_cast<double>(step.refusals) / minutes; }},
    {"error lines a minute", "#d62728",
     [](const Step& step, double minutes) { return static_cast<double>(step.errors) / minutes; }},
}};

constexpr int kHeight = kTop + kDistance * static_cast<int>(kPanels.size());

std::string Text(int x, int y, const char* anchor, const std::string& text) {
  return "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\" text-anchor=\"" +
         anchor + "\">" + text + "</text>\n";
}

// Without digits that say nothing.
std::string Number(double value) {
  std::array<char, 32> text = {};
  std::snprintf(text.data(), text.size(), "%.4g", value);
  return text.data();
}

double HighestOf(const Panel& panel, const Timeline& timeline) {
  double highest = 0;
  for (const auto& [number, step] : timeline.Steps()) {
    highest = std::max(highest, panel.value(step, static_cast<double>(timeline.MinutesInAStep())));
  }
  return highest;
}

// A bar for each step in which there was something, as one path.
std::string Bars(const Panel& panel, const Timeline& timeline, double highest, int bottom) {
  const auto& steps = timeline.Steps();
  const int64_t first = steps.begin()->first;
  const double width =
      static_cast<double>(kPlotWidth) / static_cast<double>(steps.rbegin()->first - first + 1);
  std::string path;
  for (const auto& [number, step] : steps) {
    const double value = panel.value(step, static_cast<double>(timeline.MinutesInAStep()));
    if (value > 0) {
      path += "M" + Number(kLeft + width * static_cast<double>(number - first)) + " " +
              std::to_string(bottom) + "v-" + Number(kPlotHeight * value / highest) + "h" +
              Number(width) + "V" + std::to_string(bottom) + "z";
    }
  }
  return path.empty() ? ""
                      : "<path fill=\"" + std::string(panel.colour) + "\" d=\"" + path + "\"/>\n";
}

void PrintPanel(const Panel& panel, const Timeline& timeline, int top, std::ostream& out) {
  const int bottom = top + kPlotHeight;
  const double highest = HighestOf(panel, timeline);
  out << Text(kLeft, top - 8, "start", panel.title);
  out << R"(<path stroke="#888" fill="none" d="M)" << kLeft << ' ' << top << 'V' << bottom << 'h'
      << kPlotWidth << "\"/>\n";
  out << Text(kLeft - 6, bottom, "end", "0") << Text(kLeft - 6, top + 10, "end", Number(highest));
  if (!timeline.Steps().empty()) {
    out << Bars(panel, timeline, highest, bottom);
  }
}

void PrintTimes(const LogReport& report, std::ostream& out) {
  if (report.period.count == 0) {
    return;
  }
  out << Text(kLeft, kHeight - 12, "start", FormatTime(report.period.first))
      << Text(kLeft + kPlotWidth, kHeight - 12, "end", FormatTime(report.period.last) + " (UTC)");
}

}  // namespace

void PrintPlot(const LogReport& report, std::ostream& out) {
  out << R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" << kWidth << "\" height=\"" << kHeight
      << "\" viewBox=\"0 0 " << kWidth << ' ' << kHeight
      << "\" font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"100%\" height=\"100%\" "
         "fill=\"white\"/>\n";
  int top = kTop;
  for (const Panel& panel : kPanels) {
    PrintPanel(panel, report.timeline, top, out);
    top += kDistance;
  }
  PrintTimes(report, out);
  out << "</svg>\n";
}

}  // namespace tavlo::ctl
