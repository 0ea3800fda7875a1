#include "fit/results.h"

#include <algorithm>
#include <cmath>

#include "text/text.h"

namespace corvane {

std::string conciseValue(double value, double uncertainty) {
    if (std::isnan(uncertainty) || uncertainty == 0) return formatC("%g", value);
    if (!std::isfinite(uncertainty) || !std::isfinite(value))
        return formatC("%g (undetermined)", value);
    const double sigma = std::fabs(uncertainty);
    // The position of the uncertainty's last digit shown: one significant digit, two when the
    // first is a 1.
    int position = static_cast<int>(std::floor(std::log10(sigma)));
    double digits = std::round(sigma / std::pow(10.0, position));
    if (digits >= 10) { // 9.6 rounds up to 10
        ++position;
        digits = 1;
    }
    if (digits < 2) {
        --position;
        digits = std::round(sigma / std::pow(10.0, position));
    }
    if (position >= 0) {
        const double unit = std::pow(10.0, position);
        return formatC("%.0f(%.0f)", std::round(value / unit) * unit, digits * unit);
    }
    return formatC("%.*f(%.0f)", -position, value, digits);
}

std::string parameterName(int p) {
    static const char* const fixed[] = {"g", "C", "zJ", "Xtip"};
    if (p >= 1 && p <= fixedParameterCount) return fixed[p - 1];
    return formatC("J%d", p - fixedParameterCount);
}

std::string parameterUnit(int p, EnergyUnit unit) {
    switch (p) {
    case 1:
        return "";
    case 2:
        return "cm3 K mol-1";
    case 4:
        return "cm3 mol-1";
    default: {
        const int u = static_cast<int>(unit);
        return u >= 0 && u < energyUnitCount ? energyUnitNames[static_cast<std::size_t>(u)] : "";
    }
    }
}

std::vector<ResultRow> resultRows(const FitDocument& doc, int k) {
    std::vector<ResultRow> rows;
    if (k < 0 || k >= std::min(doc.calculationCount, maxCalculations)) return rows;
    const Calculation& calc = doc.calculations[static_cast<std::size_t>(k)];
    const FitParameter* fixed[] = {&calc.g, &calc.c, &calc.zJ, &calc.tip};
    const int jCount = std::clamp(doc.jCount, 0, maxJValues);
    for (int p = 1; p <= fixedParameterCount + jCount; ++p) {
        const FitParameter& f =
            p <= fixedParameterCount ? *fixed[p - 1] : calc.j[slot(p - fixedParameterCount)];
        // Fixed: no step, and no uncertainty from a run that fitted it.
        const bool isFixed = f.step == 0 && (f.uncertainty == 0 || std::isnan(f.uncertainty));
        rows.push_back({p, parameterName(p), parameterUnit(p, doc.energyUnit), f.fitted,
                        f.uncertainty, isFixed});
    }
    return rows;
}

bool hasRunResults(const Calculation& calc) {
    if (calc.correlatedCount > 0 || !calc.warnings.empty() || !calc.alternatives.empty() ||
        calc.end != FitEnd::Converged)
        return true;
    const auto known = [](const FitParameter& f) {
        return !std::isnan(f.uncertainty) && f.uncertainty != 0;
    };
    return known(calc.g) || known(calc.c) || known(calc.zJ) || known(calc.tip) ||
           std::any_of(calc.j.begin(), calc.j.end(), known);
}

int fittedPoints(const FitDocument& doc, int k) {
    const Calculation& calc = doc.calculations[static_cast<std::size_t>(k)];
    // The magnetization set is fitted whole.
    return std::max(0, std::min(calc.lastPair, doc.pairCount) - std::max(calc.firstPair, 1) + 1) +
           std::max(doc.magnetCount, 0);
}

int freeParameters(const FitDocument& doc, int k) {
    int free = 0;
    for (const ResultRow& row : resultRows(doc, k))
        if (!row.fixed) ++free;
    return free;
}

double deviationPerDegree(const FitDocument& doc, int k) {
    const int degrees = fittedPoints(doc, k) - freeParameters(doc, k);
    if (degrees <= 0) return std::nan("");
    return doc.calculations[static_cast<std::size_t>(k)].deviation / degrees;
}

std::string fitEndText(FitEnd end) {
    switch (end) {
    case FitEnd::Converged:
        return "";
    case FitEnd::IterationLimit:
        return "The fit stopped at its iteration limit before it converged.";
    case FitEnd::Interrupted:
        return "The fit was interrupted before it converged: the best values found so far.";
    case FitEnd::Plateau:
        return "The fit stopped on a plateau, which is not a minimum.";
    }
    return "";
}

std::string resultsTable(const FitDocument& doc, const std::vector<int>& shown) {
    const std::vector<ResultRow> heading = resultRows(doc, shown.empty() ? -1 : shown.front());
    std::string out = "Calculation";
    for (const ResultRow& row : heading) {
        const std::string unit = row.unit.empty() ? "" : " (" + row.unit + ")";
        out += "\t" + row.name + unit + "\tu(" + row.name + ")";
    }
    out += "\tD\tD/(n-p)\n";
    for (int k : shown) {
        out += formatC("# %d", k + 1);
        for (const ResultRow& row : resultRows(doc, k)) {
            const std::string u = row.fixed                    ? "fixed"
                                  : std::isnan(row.uncertainty) ? ""
                                  : std::isfinite(row.uncertainty)
                                      ? formatC("%.6g", row.uncertainty)
                                      : "undetermined";
            out += formatC("\t%.10g\t", row.value) + u;
        }
        const Calculation& calc = doc.calculations[static_cast<std::size_t>(k)];
        const double perDegree = deviationPerDegree(doc, k);
        out += formatC("\t%.6g\t", calc.deviation) +
               (std::isfinite(perDegree) ? formatC("%.6g", perDegree) : std::string()) + "\n";
    }
    return out;
}

} // namespace corvane
