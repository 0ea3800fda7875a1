// Every bundled example must read cleanly and describe a problem the engine accepts.
#include <filesystem>
#include <gtest/gtest.h>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "support/recording_port.h"
#include "support/scratch_dir.h"

namespace corvane {
namespace {

TEST(Examples, EveryExampleDescribesAConsistentProblem) {
    int examples = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CORVANE_SOURCE_DIR "/examples")) {
        if (entry.path().extension() != ".qpi") continue;
        ++examples;
        SCOPED_TRACE(entry.path().filename().string());
        testing::ScratchDir dir;
        testing::RecordingPort port;
        const std::string copy = dir.file(entry.path().filename().string());
        std::filesystem::copy_file(entry.path(), copy);
        resetFitDocument();
        ASSERT_TRUE(prepareRun(copy));
        EXPECT_TRUE(port.messages.empty());

        const FitDocument& doc = fitDocument;
        const Calculation& calc = doc.calculations[0];
        EXPECT_FALSE(doc.title.empty());
        EXPECT_GE(doc.siteCount, 2);
        EXPECT_GE(doc.jCount, 1);
        EXPECT_GE(doc.pairCount, 20);
        EXPECT_GT(calc.g.start, 0.0);
        for (int n = 1; n <= doc.siteCount; ++n) EXPECT_GE(doc.sites[slot(n)].spin, 1);
        bool jUsed[maxJValues] = {};
        for (int n = 1; n <= doc.interactionCount; ++n) {
            const Interaction& path = doc.interactions[slot(n)];
            EXPECT_TRUE(path.siteA >= 1 && path.siteA <= doc.siteCount) << "interaction " << n;
            EXPECT_TRUE(path.siteB >= 1 && path.siteB <= doc.siteCount) << "interaction " << n;
            EXPECT_NE(path.siteA, path.siteB);
            const int j = path.parameterIndex - fixedParameterCount;
            ASSERT_TRUE(j >= 1 && j <= doc.jCount) << "interaction " << n;
            jUsed[j - 1] = true;
        }
        for (int j = 1; j <= doc.jCount; ++j) EXPECT_TRUE(jUsed[j - 1]) << "J" << j << " unused";
        for (int n = 1; n <= doc.pairCount; ++n) {
            EXPECT_GT(doc.pairs[slot(n)].temperature, 0.0) << "pair " << n;
            EXPECT_GT(doc.pairs[slot(n)].observed, 0.0) << "pair " << n;
        }
    }
    EXPECT_GE(examples, 3);
}

} // namespace
} // namespace corvane
