// What every document that a reader accepted must satisfy, for the fuzz targets: counts within
// their limits, every number finite and printable, and a report whose lines fit the reader's
// line length, so that it reads back. A broken rule aborts, which the fuzzer reports.
#pragma once

#include <cmath>
#include <cstdlib>
#include <string>

#include "fit/fit_document.h"
#include "fit/report.h"

namespace corvane::fuzz {

inline void require(bool holds) {
    if (!holds) std::abort();
}

inline void requireValue(double v) {
    require(std::isfinite(v) && std::fabs(v) <= maxValueMagnitude);
}

inline void requireParameter(const FitParameter& p) {
    requireValue(p.start);
    requireValue(p.step);
    requireValue(p.fitted);
}

// The problem and calculations 1..calculationCount of doc.
inline void checkDocument(const FitDocument& doc) {
    require(doc.siteCount >= 0 && doc.siteCount <= maxSites);
    require(doc.interactionCount >= 0 && doc.interactionCount <= maxInteractions);
    require(doc.jCount >= 0 && doc.jCount <= maxJValues);
    require(doc.pairCount >= 0 && doc.pairCount <= maxPairs);
    require(doc.calculationCount >= 0 && doc.calculationCount <= maxCalculations);
    require(doc.title.size() <= static_cast<std::size_t>(maxTitleLength));
    for (int n = 1; n <= doc.interactionCount; ++n) {
        const Interaction& path = doc.interactions[slot(n)];
        require(path.siteA >= 1 && path.siteA <= doc.siteCount);
        require(path.siteB >= 1 && path.siteB <= doc.siteCount);
        require(path.parameterIndex > fixedParameterCount &&
                path.parameterIndex <= fixedParameterCount + doc.jCount);
    }
    for (int i = 1; i <= doc.pairCount; ++i) {
        requireValue(doc.pairs[slot(i)].temperature);
        requireValue(doc.pairs[slot(i)].observed);
    }
    for (int n = 1; n <= doc.calculationCount; ++n) {
        const Calculation& calc = doc.calculations[slot(n)];
        require(calc.firstPair >= 1 && calc.firstPair <= calc.lastPair &&
                calc.lastPair <= std::max(doc.pairCount, 1));
        requireValue(calc.tolerance);
        requireValue(calc.deviation);
        for (const FitParameter* p : {&calc.g, &calc.c, &calc.zJ, &calc.tip}) requireParameter(*p);
        for (int k = 1; k <= doc.jCount; ++k) requireParameter(calc.j[slot(k)]);
        for (int i = 1; i <= doc.pairCount; ++i) requireValue(calc.fittedValues[slot(i)]);
    }
    // Every line of its report fits a line of the reader, the newline counted.
    const std::string report = reportText(doc, "01/01/2026 00:00:00 AM");
    std::size_t start = 0;
    for (std::size_t end; (end = report.find('\n', start)) != std::string::npos; start = end + 1)
        require(end - start + 1 <= static_cast<std::size_t>(reportLineLength));
}

} // namespace corvane::fuzz
