// Whole-file writes: long names, links, permissions, and several files as a unit.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

#include "platform/files.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;

unsigned modeOf(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777u : 0u;
}

TEST(WholeFile, ReplacesTheFileALinkLeadsToAndKeepsItsPermissionsWhateverTheNameLength) {
    testing::ScratchDir dir;
    fs::create_directory(dir.file("data"));
    const std::string longName(250, 'r');
    const struct {
        const char* name;
        std::string path;   // written
        std::string target; // the file that must hold the text, relative to dir
        unsigned mode;      // of the target before (0: none) and after (0: a new file's)
    } cases[] = {
        {"long name", dir.file(longName + ".qpo"), longName + ".qpo", 0},
        {"existing file", dir.file("kept.qpo"), "kept.qpo", 0640},
        {"relative link", dir.file("link.qpo"), "data/report.qpo", 0600},
        {"link to a link", dir.file("chain.qpo"), "data/report.qpo", 0600},
        {"dangling link", dir.file("new.qpo"), "data/new.qpo", 0},
    };
    fs::create_symlink("data/report.qpo", dir.file("link.qpo"));
    fs::create_symlink(dir.file("link.qpo"), dir.file("chain.qpo"));
    fs::create_symlink("data/new.qpo", dir.file("new.qpo"));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.mode != 0) {
            dir.write(c.target, "old");
            fs::permissions(dir.file(c.target), static_cast<fs::perms>(c.mode));
        }
        const std::string expected = std::string(c.name) + " written";
        std::string error;
        EXPECT_TRUE(writeWholeFile(c.path, expected, error)) << error;
        EXPECT_EQ(dir.read(c.target), expected);
        if (c.mode != 0) {
            EXPECT_EQ(modeOf(dir.file(c.target)), c.mode);
        }
        EXPECT_EQ(fs::is_symlink(c.path), c.target != fs::path(c.path).filename());
    }
    EXPECT_EQ(dir.listing(), "chain.qpo data kept.qpo link.qpo new.qpo " + longName + ".qpo");
    EXPECT_EQ(testing::ScratchDir::listingOf(dir.file("data")), "new.qpo report.qpo");
}

class WholeFiles : public ::testing::Test {
protected:
    void TearDown() override { failNthFileWrite(0); }
    testing::ScratchDir dir;
};

TEST_F(WholeFiles, AFileThatCannotBeWrittenLeavesEveryFileOfTheUnitAsItWas) {
    dir.write("input.txt", "old input");
    const std::vector<FileText> unit = {{dir.file("input.txt"), "new input"},
                                        {dir.file("chit.txt"), "new data"},
                                        {dir.file("sub/chi.txt"), "never"}};
    const struct {
        int failingWrite; // failNthFileWrite
        std::string failedPath, error;
    } faults[] = {
        {1, unit[0].path, "No space left on device"},
        {2, unit[1].path, "No space left on device"},
        {0, unit[2].path, "No such file or directory"}, // sub does not exist
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.failedPath);
        failNthFileWrite(fault.failingWrite);
        std::string failedPath, error;
        EXPECT_FALSE(writeWholeFiles(unit, failedPath, error));
        EXPECT_EQ(failedPath, fault.failedPath);
        EXPECT_EQ(error, fault.error);
        EXPECT_EQ(dir.listing(), "input.txt");
        EXPECT_EQ(dir.read("input.txt"), "old input");
    }

    fs::create_directory(dir.file("sub"));
    fs::create_directory(dir.file("chit.txt"));
    std::string failedPath, error;
    EXPECT_FALSE(writeWholeFiles(unit, failedPath, error));
    EXPECT_EQ(failedPath, unit[1].path);
    EXPECT_EQ(dir.read("input.txt"), "old input");
    EXPECT_EQ(dir.listing(), "chit.txt input.txt sub");

    fs::remove(dir.file("chit.txt"));
    ASSERT_TRUE(writeWholeFiles(unit, failedPath, error)) << error;
    EXPECT_EQ(dir.read("input.txt") + dir.read("chit.txt") + dir.read("sub/chi.txt"),
              "new inputnew datanever");
    EXPECT_EQ(dir.listing(), "chit.txt input.txt sub");
}

} // namespace
} // namespace corvane
