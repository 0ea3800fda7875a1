// A fresh plot on a recording surface of 1024 x 768 square pixels, the surface as the screen.
#pragma once

#include <gtest/gtest.h>
#include <initializer_list>
#include <utility>
#include <vector>

#include "fit/fit_document.h"
#include "platform/recording_surface.h"
#include "plot/axes.h"
#include "plot/curves.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "plot/scaling.h"

namespace corvane::testing {

class PlotTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetPlot();
        resetFitDocument();
        measureDevice(surface);
        initPlotSettings();
    }

    // A loaded chiT document with these (T, chiT) pairs and calculations whose fitted values
    // are the observed ones times (1 + k / 10); the newest calculation shown, ranges from the
    // data, frame laid out.
    void load(std::initializer_list<std::pair<double, double>> pairs, int calculations = 1) {
        FitDocument& doc = fitDocument;
        doc.pairCount = static_cast<int>(pairs.size());
        std::size_t i = 0;
        for (const auto& [t, v] : pairs) doc.pairs[i++] = {t, v};
        doc.calculationCount = calculations;
        for (std::size_t k = 0; k < static_cast<std::size_t>(calculations); ++k) {
            doc.calculations[k].firstPair = 1;
            doc.calculations[k].lastPair = doc.pairCount;
            for (std::size_t p = 0; p < pairs.size(); ++p)
                doc.calculations[k].fittedValues[p] =
                    doc.pairs[p].observed * (1 + static_cast<double>(k) / 10);
        }
        showLoadedPlot(calculations - 1);
        layoutFrame();
    }

    // Six pairs up to 300 K and chiT 1.0: five intervals of 60 K and of 0.2. The points lie
    // at x 289, 437, 586, 734, 808, 883 and y 476, 352, 352, 228, 166, 105.
    void loadDefault(int calculations = 1) {
        load({{60, 0.25}, {120, 0.5}, {180, 0.5}, {240, 0.75}, {270, 0.875}, {300, 1.0}},
             calculations);
    }

    // The lines drawn, as (x1, y1, x2, y2).
    std::vector<std::vector<int>> lines() const {
        std::vector<std::vector<int>> found;
        for (const SurfaceCall& c : surface.callsOf(SurfaceOp::LineTo))
            found.push_back({c.x1, c.y1, c.x2, c.y2});
        return found;
    }

    RecordingSurface surface{1024, 768};
};

} // namespace corvane::testing
