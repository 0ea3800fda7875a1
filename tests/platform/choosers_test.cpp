#include <gtest/gtest.h>

#include "platform/choosers.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

OpenFileRequest inputFiles(std::string initial = "") {
    return {{{"Fitting input files (*.qpi)", "*.qpi"}, {"ALL Files (*.*)", "*.*"}},
            1,
            "QPI",
            std::move(initial)};
}

TEST(OpenFileChooser, AppendsTheDefaultExtensionOnlyToANameWithoutOne) {
    testing::ScratchDir dir;
    dir.write("run.qpi", "");
    EXPECT_EQ(withDefaultExtension(dir.file("run"), "QPI"), dir.file("run.qpi"));
    EXPECT_EQ(withDefaultExtension(dir.file("new"), "QPI"), dir.file("new.QPI"));
    EXPECT_EQ(withDefaultExtension(dir.file("run.txt"), "QPI"), dir.file("run.txt"));
    EXPECT_EQ(withDefaultExtension("my.dir/run", "QPO"), "my.dir/run.QPO"); // a folder's dot
    EXPECT_EQ(withDefaultExtension("run", ""), "run");
    EXPECT_EQ(withDefaultExtension("dir/", "QPI"), "dir/");
}

TEST(OpenFileChooser, ScriptedAnswersAndCancelReachTheCaller) {
    EXPECT_FALSE(chooseOpenFile(inputFiles())); // nobody to ask: cancelled
    {
        ScriptedChoosers choosers;
        choosers.answers = {"/data/mn2", std::nullopt};
        EXPECT_EQ(chooseOpenFile(inputFiles("/data/old.qpi")), "/data/mn2.QPI");
        EXPECT_FALSE(chooseOpenFile(inputFiles()));
        EXPECT_FALSE(chooseOpenFile(inputFiles())); // nothing left: cancel
        ASSERT_EQ(choosers.requests.size(), 3u);
        EXPECT_EQ(choosers.requests[0].initialPath, "/data/old.qpi");
        EXPECT_EQ(choosers.requests[0].filters[1].pattern, "*.*");
    }
    EXPECT_FALSE(chooseOpenFile(inputFiles()));
}

TEST(MessagePort, ScriptedAnswersComeInOrder) {
    testing::RecordingPort port;
    port.answers = {idNo, idYes};
    EXPECT_EQ(messageBox("Are you sure to cancel ?", "Warning...", mbYesNo | mbIconQuestion), idNo);
    EXPECT_EQ(messageBox("Are you sure to cancel ?", "Warning...", mbYesNo | mbIconQuestion),
              idYes);
    EXPECT_EQ(messageBox("Done", "Note"), idOk);
    EXPECT_EQ(port.messages.size(), 3u);
}

} // namespace
} // namespace corvane
