#pragma once

#include <functional>
#include <string>
#include <vector>

// What a bench found out, and whether it is good enough.
struct Figure {
  enum Bound { NONE, AT_MOST, AT_LEAST };

  bool IsMet() const { return bound == NONE || (bound == AT_MOST ? value <= must : value >= must); }

  std::string name;
  std::string unit;
  double value = 0;
  Bound bound = NONE;
  double must = 0;
  std::string beside{};  // further numbers, for people
};

// One measurement: the reference against itself tells whether the machine was quiet.
struct Measurement {
  bool IsQuiet() const { return control >= 0.97 && control <= 1.03; }

  double control = 1;
  std::vector<Figure> figures;
};

// The table that a bench prints.
class Figures {
 public:
  // Measures up to three times, until each figure is met with the control in bounds, and prints the last time.
  void Add(const std::function<Measurement()>& measure);

  // The program's exit status: 1 when a figure was missed although the control was in bounds, else 0.
  int Status() const { return m_missed ? 1 : 0; }

 private:
  bool m_missed = false;
};

double Median(std::vector<double> values);
// Of `values`, the one that a share of them, from 0 to 1, does not exceed.
double Percentile(std::vector<double> values, double share);
