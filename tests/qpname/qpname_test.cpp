#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "platform/process.h"
#include "qpname/qpname.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;

// Runs qpname_helper with the arguments in a process of its own; its output.
std::string helper(const std::vector<std::string>& arguments) {
    ChildProgram child;
    std::string error;
    EXPECT_TRUE(child.start(std::string(CORVANE_BIN_DIR) + "/qpname_helper", arguments, error))
        << error;
    std::string output;
    bool first = true;
    while (child.poll(1000, [&](const std::string& line) {
        output += (first ? "" : "\n") + line;
        first = false;
    })) {
    }
    EXPECT_TRUE(child.exitedNormally() && child.exitCode() == 0) << child.errorOutput();
    return output;
}

unsigned permissions(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 0777u;
}

class QpnameTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : {"XDG_RUNTIME_DIR", "XDG_CACHE_HOME", "HOME"})
            if (const char* value = std::getenv(name)) saved_.emplace_back(name, value);
        fs::create_directory(dir.file("run"));
        setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
        setenv("XDG_CACHE_HOME", dir.file("cache").c_str(), 1);
        setenv("HOME", dir.file("home").c_str(), 1);
    }
    void TearDown() override {
        for (const char* name : {"XDG_RUNTIME_DIR", "XDG_CACHE_HOME", "HOME"}) unsetenv(name);
        for (const auto& [name, value] : saved_) setenv(name.c_str(), value.c_str(), 1);
    }
    testing::ScratchDir dir;

private:
    std::vector<std::pair<std::string, std::string>> saved_;
};

TEST_F(QpnameTest, ANameSetInOneProcessIsReadAndClearedInAnother) {
    // Blanks, a line break, UTF-8 and a length no fixed buffer holds: the name comes back whole.
    const std::string name =
        "/data/run 1/Cu\xE2\x82\x82 dimer\nnew" + std::string(9000, 'x') + ".qpi";
    helper({"set", name});
    EXPECT_EQ(qpnameStorePath(), dir.file("run/corvane-qpname"));
    EXPECT_EQ(permissions(qpnameStorePath()), 0600u);
    EXPECT_EQ(get_qpname(), name);
    clear_qpname();
    EXPECT_EQ(helper({"get"}), "");

    std::string error;
    ASSERT_TRUE(set_qpname("/data/a.qpi", error)) << error;
    ASSERT_TRUE(set_qpname("/data/b.qpi", error)) << error; // replaces the name before
    EXPECT_EQ(helper({"get"}), "/data/b.qpi");
    helper({"clear"});
    EXPECT_EQ(get_qpname(), "");
    EXPECT_EQ(testing::ScratchDir::listingOf(dir.file("run")), "");
}

TEST_F(QpnameTest, WithoutARuntimeDirectoryTheNameIsKeptInThePrivateCache) {
    setenv("XDG_RUNTIME_DIR", dir.file("gone").c_str(), 1); // set, but no such directory
    helper({"set", "/data/dimer.qpi"});
    EXPECT_EQ(qpnameStorePath(), dir.file("cache/corvane/qpname"));
    EXPECT_EQ(permissions(dir.file("cache/corvane")), 0700u);
    EXPECT_EQ(get_qpname(), "/data/dimer.qpi");

    unsetenv("XDG_RUNTIME_DIR");
    unsetenv("XDG_CACHE_HOME");
    helper({"set", "/data/trimer.qpi"});
    EXPECT_EQ(qpnameStorePath(), dir.file("home/.cache/corvane/qpname"));
    EXPECT_EQ(get_qpname(), "/data/trimer.qpi");

    // A store that cannot be written says why and keeps the name it had.
    testing::ScratchDir other;
    setenv("XDG_CACHE_HOME", other.write("a-file", "").c_str(), 1);
    std::string error;
    EXPECT_FALSE(set_qpname("/data/lost.qpi", error));
    EXPECT_NE(error.find("a-file"), std::string::npos) << error;
    EXPECT_EQ(get_qpname(), "");
    setenv("XDG_CACHE_HOME", dir.file("cache").c_str(), 1);
    EXPECT_EQ(get_qpname(), "/data/dimer.qpi");
}

} // namespace
} // namespace corvane
