// A small magnetisation set for the tests of the M view.
#pragma once

#include <array>
#include <cstddef>

#include "fit/fit_document.h"

namespace corvane::testing {

// Six points at 2 K (one of them at 2.02 K) and 10 K and at 1, 3 and 5 T, given out of order:
// M 2, 3.5 and 4 at 2 K, 0.5, 1.5 and 2 at 10 K. Calculation k (of those doc holds) fits M
// times (1 - k / 10).
inline void addMagnetSet(FitDocument& doc) {
    const std::array<MagnetPoint, 6> points = {
        {{10, 5, 2.0}, {2, 1, 2.0}, {2.02, 5, 4.0}, {10, 1, 0.5}, {2, 3, 3.5}, {10, 3, 1.5}}};
    doc.magnetCount = static_cast<int>(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        doc.magnetPoints[i] = points[i];
        for (std::size_t k = 0; k < maxCalculations; ++k)
            doc.calculations[k].fittedMagnet[i] =
                points[i].observed * (1 - static_cast<double>(k) / 10);
    }
}

} // namespace corvane::testing
