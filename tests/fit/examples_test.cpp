// Every bundled example must read cleanly and describe a problem the engine accepts.
#include <filesystem>
#include <gtest/gtest.h>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

TEST(Examples, EveryExampleDescribesAConsistentProblem) {
    int examples = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CORVANE_SOURCE_DIR "/examples")) {
        if (entry.path().extension() != ".qpi") continue;
        SCOPED_TRACE(entry.path().filename().string());
        ++examples;
        testing::ScratchDir dir;
        testing::RecordingPort port;
        std::filesystem::copy_file(entry.path(), dir.file("example.qpi"));
        resetFitDocument();
        ASSERT_TRUE(prepareRun(dir.file("example.qpi")));
        EXPECT_TRUE(port.messages.empty());

        const FitDocument& doc = fitDocument;
        EXPECT_TRUE(!doc.title.empty() && doc.siteCount >= 2 && doc.jCount >= 1);
        for (int n = 1; n <= doc.siteCount; ++n) EXPECT_GE(doc.sites[slot(n)].spin, 1);
        int jUsed = 0;
        for (int n = 1; n <= doc.interactionCount; ++n) {
            const Interaction& path = doc.interactions[slot(n)];
            EXPECT_TRUE(path.siteA >= 1 && path.siteB <= doc.siteCount && path.siteA != path.siteB);
            const int j = path.parameterIndex - fixedParameterCount;
            EXPECT_TRUE(j >= 1 && j <= doc.jCount) << "interaction " << n;
            jUsed |= 1 << j;
        }
        EXPECT_EQ(jUsed, (1 << (doc.jCount + 1)) - 2) << "every J value is used";
        EXPECT_GE(doc.pairCount, 20);
        for (int n = 1; n <= doc.pairCount; ++n) EXPECT_GT(doc.pairs[slot(n)].temperature, 0.0);
    }
    EXPECT_GE(examples, 3);
}

} // namespace
} // namespace corvane
