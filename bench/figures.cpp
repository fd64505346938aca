#include "bench/figures.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr int kTries = 3;

void Print(const Measurement& measured) {
  for (const Figure& figure : measured.figures) {
    char must[32] = "-";
    if (figure.bound != Figure::NONE) {
      std::snprintf(must, sizeof(must), "%s %.2f", figure.bound == Figure::AT_MOST ? "<=" : ">=", figure.must);
    }
    const char* const verdict = figure.bound == Figure::NONE ? "" : figure.IsMet() ? "met" : "missed";
    std::printf("%-52s %8.2f %-5s %-9s %-6s  %5.3f%s  %s\n", figure.name.c_str(), figure.value, figure.unit.c_str(),
                must, verdict, measured.control, measured.IsQuiet() ? " " : "!", figure.beside.c_str());
  }
  std::fflush(stdout);
}

}  // namespace

void Figures::Add(const std::function<Measurement()>& measure) {
  Measurement measured;
  bool isMet = false;
  bool wasQuiet = false;
  for (int i = 0; i < kTries && !(isMet && measured.IsQuiet()); ++i) {
    measured = measure();
    isMet =
        std::all_of(measured.figures.begin(), measured.figures.end(), [](const Figure& one) { return one.IsMet(); });
    wasQuiet = wasQuiet || measured.IsQuiet();
  }
  m_missed = m_missed || (!isMet && wasQuiet);
  Print(measured);
}

double Median(std::vector<double> values) { return Percentile(std::move(values), 0.5); }

double Percentile(std::vector<double> values, double share) {
  const auto place = std::min(values.size() - 1, static_cast<std::size_t>(share * static_cast<double>(values.size())));
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(place), values.end());
  return values[place];
}
