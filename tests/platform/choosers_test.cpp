#include <gtest/gtest.h>

#include "platform/choosers.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

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

} // namespace
} // namespace corvane
