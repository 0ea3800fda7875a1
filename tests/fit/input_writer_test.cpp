#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>

#include "fit/input_file.h"
#include "fit/input_writer.h"
#include "platform/files.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

// A problem with counts, values and title drawn from rng; every count at its limit when full.
std::unique_ptr<FitDocument> randomDocument(std::mt19937& rng, bool full) {
    auto doc = std::make_unique<FitDocument>();
    const auto below = [&rng](int n) { return std::uniform_int_distribution<int>(1, n)(rng); };
    // Values of every size the reader takes: whole, fractions with long expansions, tiny, huge.
    const auto value = [&rng, &below]() {
        switch (below(6)) {
        case 1:
            return 0.0;
        case 2:
            return std::uniform_int_distribution<int>(-999999999, 999999999)(rng) * 1.0;
        case 3:
            return std::uniform_real_distribution<double>(-1000, 1000)(rng);
        case 4:
            return std::ldexp(std::uniform_real_distribution<double>(0.5, 1)(rng), -below(90));
        case 5:
            return below(2) == 1 ? maxValueMagnitude : -maxValueMagnitude;
        default:
            return std::uniform_int_distribution<int>(-99, 99)(rng) * 1e-30;
        }
    };
    std::string title;
    const std::string letters = "abcXYZ 0123 .,;:=-+()[]#'\"KEYWD T_CHI J_VALUE1 \xC3\xA9";
    for (int n = full ? maxTitleLength : below(60) - 1; n > 0; --n)
        title += letters[slot(below(static_cast<int>(letters.size())))];
    doc->title = title.substr(0, maxTitleLength);
    doc->dataKind = below(2) == 1 ? DataKind::Chi : DataKind::ChiT;
    doc->energyUnit = static_cast<EnergyUnit>(below(3) - 1);
    doc->siteCount = full ? maxSites : below(maxSites);
    doc->jCount = full ? maxJValues : below(maxJValues + 1) - 1;
    doc->interactionCount = full ? maxInteractions : (doc->jCount == 0 ? 0 : below(12) - 1);
    doc->pairCount = full ? maxPairs : below(40);
    doc->calculationCount = 1;
    Calculation& calc = doc->calculations[0];
    calc.tolerance = std::fabs(value());
    for (FitParameter* p : {&calc.g, &calc.c, &calc.zJ, &calc.tip}) *p = {value(), value()};
    calc.g.start = calc.g.start == 0 ? 2.0 : std::fabs(calc.g.start); // g starts above 0
    for (int k = 0; k < doc->jCount; ++k) calc.j[slot(k + 1)] = {value(), value()};
    for (int s = 0; s < doc->siteCount; ++s) doc->sites[slot(s + 1)].spin = below(maxTwiceSpin);
    for (int n = 0; n < doc->interactionCount; ++n) {
        Interaction& path = doc->interactions[slot(n + 1)];
        path.siteA = below(doc->siteCount);
        path.siteB = path.siteA % (doc->siteCount + (doc->siteCount == 1)) + 1;
        path.parameterIndex = below(doc->jCount) + fixedParameterCount;
    }
    if (doc->siteCount == 1) doc->interactionCount = 0;
    for (int n = 0; n < doc->pairCount; ++n)
        doc->pairs[slot(n + 1)] = {std::fabs(value()) / 2 + 0.001, value()};
    // A field, weighting and magnetization set in some documents, none in others.
    const auto positive = [&rng](double top) {
        return std::uniform_real_distribution<double>(1e-3, top)(rng);
    };
    doc->field = below(3) == 1 ? positive(maxFieldTesla) : 0.0;
    doc->weighting = below(2) == 1 ? Weighting::Relative : Weighting::Uniform;
    doc->magnetCount = full ? maxMagnetPoints : below(3) == 1 ? below(30) : 0;
    doc->magnetWeight = below(2) == 1 ? positive(100) : 1.0;
    for (int n = 0; n < doc->magnetCount; ++n)
        doc->magnetPoints[slot(n + 1)] = {positive(300), positive(maxFieldTesla), value()};
    return doc;
}

void expectSameProblem(const FitDocument& read, const FitDocument& written) {
    EXPECT_EQ(read.title, written.title);
    EXPECT_EQ(read.dataKind, written.dataKind);
    EXPECT_EQ(read.energyUnit, written.energyUnit);
    ASSERT_EQ(read.siteCount, written.siteCount);
    ASSERT_EQ(read.jCount, written.jCount);
    ASSERT_EQ(read.interactionCount, written.interactionCount);
    ASSERT_EQ(read.pairCount, written.pairCount);
    const Calculation &r = read.calculations[0], &w = written.calculations[0];
    EXPECT_EQ(r.tolerance, w.tolerance);
    for (auto member : {&Calculation::g, &Calculation::c, &Calculation::zJ, &Calculation::tip}) {
        EXPECT_EQ((r.*member).start, (w.*member).start);
        EXPECT_EQ((r.*member).step, (w.*member).step);
    }
    for (int k = 1; k <= read.jCount; ++k) {
        EXPECT_EQ(r.j[slot(k)].start, w.j[slot(k)].start) << "J" << k;
        EXPECT_EQ(r.j[slot(k)].step, w.j[slot(k)].step) << "J" << k;
    }
    for (int s = 1; s <= read.siteCount; ++s)
        EXPECT_EQ(read.sites[slot(s)].spin, written.sites[slot(s)].spin);
    for (int n = 1; n <= read.interactionCount; ++n) {
        const Interaction &a = read.interactions[slot(n)], &b = written.interactions[slot(n)];
        EXPECT_EQ(a.siteA, b.siteA);
        EXPECT_EQ(a.siteB, b.siteB);
        EXPECT_EQ(a.parameterIndex, b.parameterIndex);
    }
    EXPECT_EQ(read.field, written.field);
    EXPECT_EQ(read.weighting, written.weighting);
    ASSERT_EQ(read.magnetCount, written.magnetCount);
    EXPECT_EQ(read.magnetWeight, written.magnetWeight);
    for (int n = 1; n <= read.magnetCount; ++n) {
        const MagnetPoint &a = read.magnetPoints[slot(n)], &b = written.magnetPoints[slot(n)];
        EXPECT_EQ(a.temperature, b.temperature);
        EXPECT_EQ(a.field, b.field);
        EXPECT_EQ(a.observed, b.observed);
    }
    for (int n = 1; n <= read.pairCount; ++n) {
        EXPECT_EQ(read.pairs[slot(n)].temperature, written.pairs[slot(n)].temperature);
        EXPECT_EQ(read.pairs[slot(n)].observed, written.pairs[slot(n)].observed);
    }
}

TEST(InputWriterTest, EveryWritableDocumentReadsBackAsItWas) {
    testing::RecordingPort port;
    std::mt19937 rng(20240611);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        const auto written = randomDocument(rng, round % 50 == 0);
        ASSERT_EQ(inputFileProblems(*written), std::vector<std::string>{});
        const std::string text = inputFileText(*written);
        auto read = std::make_unique<FitDocument>();
        ASSERT_TRUE(readInputText(text, "written.qpi", *read)) << port.messages.at(0).text;
        expectSameProblem(*read, *written);
        if (HasFailure()) {
            ADD_FAILURE() << text;
            break;
        }
    }
}

TEST(InputWriterTest, ProblemsNameTheItemAndTheFileIsWrittenWholeOrNotAtAll) {
    std::mt19937 rng(7);
    const auto valid = randomDocument(rng, false);
    valid->siteCount = 2;
    valid->sites[0].spin = valid->sites[1].spin = 1;
    valid->jCount = 1;
    valid->interactionCount = 1;
    valid->interactions[0] = {1, 2, firstJParameter};
    const struct {
        std::function<void(FitDocument&)> spoil;
        const char* problem;
    } cases[] = {
        {[](FitDocument& d) { d.title = "Cu2 ! dimer"; }, "The title holds a \"!\""},
        {[](FitDocument& d) { d.title = "Cu2\tdimer"; }, "control character"},
        {[](FitDocument& d) { d.title = std::string(120, 'x'); }, "120 bytes long; at most 119"},
        {[](FitDocument& d) { d.siteCount = d.interactionCount = 0; }, "No spin site is given."},
        {[](FitDocument& d) { d.pairCount = 0; }, "No data pair is given."},
        {[](FitDocument& d) { d.interactionCount = 101; }, "101 exchange paths; at most 100"},
        {[](FitDocument& d) { d.sites[1].spin = 0; }, "Site 2 has spin 0; a spin is given as 2S"},
        {[](FitDocument& d) { d.interactions[0].siteB = 3; }, "Path 1: site 3 is not one of"},
        {[](FitDocument& d) { d.interactions[0].siteB = 1; }, "Path 1 couples site 1 with itself."},
        {[](FitDocument& d) { d.interactions[0].parameterIndex = 7; },
         "Path 1 uses J3, but only J1 to J1 are given."},
        {[](FitDocument& d) { d.pairs[0].temperature = 0; }, "Pair 1: the temperature 0 K"},
        {[](FitDocument& d) { d.field = 150; }, "Field: 150 T is outside 0 to 100 T."},
        {[](FitDocument& d) {
             d.magnetCount = 1;
             d.magnetPoints[0] = {2, 0, 0};
         },
         "Magnetization point 1: the field 0 T is outside 0 to 100 T."},
        {[](FitDocument& d) { d.pairs[0].observed = NAN; }, "Pair 1, observed value: not a finite"},
        {[](FitDocument& d) { d.calculations[0].g.step = 1e9; }, "g step: 1e+09 is too large"},
        {[](FitDocument& d) { d.calculations[0].g.start = 0; }, "g start: 0 is not above 0."},
        {[](FitDocument& d) { d.calculations[0].tolerance = -1e-5; }, "Precision: -1e-05 is"},
        {[](FitDocument& d) { d.calculations[0].j[0].start = 1e-47; }, "J1 start: 1e-47 has too"},
        {[](FitDocument& d) { d.calculations[0].c.start = 1.234567e-44; },
         "C start: 1.23457e-44 has too"},
    };
    for (const auto& c : cases) {
        auto doc = std::make_unique<FitDocument>(*valid);
        c.spoil(*doc);
        const std::vector<std::string> problems = inputFileProblems(*doc);
        ASSERT_EQ(problems.size(), 1u) << c.problem;
        EXPECT_NE(problems[0].find(c.problem), std::string::npos) << problems[0];
    }

    testing::ScratchDir dir;
    const std::string path = dir.write("cu2.qpi", "as it was");
    std::string error;
    auto spoilt = std::make_unique<FitDocument>(*valid);
    spoilt->pairCount = 0;
    EXPECT_FALSE(writeInputFile(path, *spoilt, error));
    EXPECT_EQ(error, "No data pair is given.");
    failNthFileWrite(1);
    EXPECT_FALSE(writeInputFile(path, *valid, error));
    failNthFileWrite(0);
    EXPECT_EQ(dir.listing(), "cu2.qpi");
    EXPECT_EQ(dir.read("cu2.qpi"), "as it was");
    ASSERT_TRUE(writeInputFile(path, *valid, error)) << error;
    EXPECT_EQ(dir.read("cu2.qpi"), inputFileText(*valid));
}

} // namespace
} // namespace corvane
