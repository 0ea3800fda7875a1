// The results of a calculation as a reader takes them in: each parameter with its uncertainty
// and unit, the quality of the fit, how the fit ended, and the engine's warnings. The plot's
// results box, the clipboard and the command line show them from here.
#pragma once

#include <string>
#include <vector>

#include "fit/fit_document.h"

namespace corvane {

// A value with its standard uncertainty in the concise notation: the uncertainty to one
// significant digit (two when that digit would be 1) in parentheses, in units of the value's
// last digit: "-229.9(7)", "2.0412(13)", "-230(40)". An uncertainty that is 0 (a fixed parameter)
// or not known gives the value alone ("%g"); one that is not finite gives the value and
// "(undetermined)".
std::string conciseValue(double value, double uncertainty);

// The unit of engine parameter number p (1 g .. 4 Xtip, 5.. J1..) in a document of energy unit:
// "" for g, "cm3 K mol-1" for C, "cm3 mol-1" for Xtip, the energy unit for zJ and the J values.
std::string parameterUnit(int p, EnergyUnit unit);

// The name of engine parameter number p: "g", "C", "zJ", "Xtip", "J1" ...
std::string parameterName(int p);

struct ResultRow {
    int parameter = 0; // engine number
    std::string name, unit;
    double value = 0, uncertainty = 0;
    bool fixed = false; // its step is 0
};

// The parameters of calculation k (0-based) of doc: g, C, zJ, Xtip and J1..Jn, in that order.
std::vector<ResultRow> resultRows(const FitDocument& doc, int k);

// Whether the run that fitted calculation k left any uncertainty, correlation, warning or other
// minimum, or ended short of convergence: what the report keeps beyond the values.
bool hasRunResults(const Calculation& calc);

// The fitted points of calculation k (its pairs and the magnetization set), and its free
// parameters.
int fittedPoints(const FitDocument& doc, int k);
int freeParameters(const FitDocument& doc, int k);

// D / (n - p): the squared deviation per degree of freedom; NaN when n <= p.
double deviationPerDegree(const FitDocument& doc, int k);

// A sentence for a fit that did not converge ("" for one that did): interrupted, at the
// iteration limit, on a plateau.
std::string fitEndText(FitEnd end);

// The results of the shown calculations as a tab-separated table for a spreadsheet: a heading
// row ("Calculation", then each parameter and its uncertainty, "D", "D/(n-p)") and a row per
// calculation in shown (0-based indices).
std::string resultsTable(const FitDocument& doc, const std::vector<int>& shown);

} // namespace corvane
