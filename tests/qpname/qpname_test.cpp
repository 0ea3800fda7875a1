#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
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
        fs::permissions(dir.file("run"), fs::perms::owner_all);
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
    const std::string token = newQpnameToken();
    helper({"--qpname-token", token, "set", name});
    EXPECT_EQ(qpnameStorePath(token), dir.file("run/corvane-qpname-" + token));
    EXPECT_EQ(permissions(qpnameStorePath(token)), 0600u);
    EXPECT_EQ(get_qpname(token), name);
    clear_qpname(token);
    EXPECT_EQ(helper({"--qpname-token", token, "get"}), "");

    std::string error;
    ASSERT_TRUE(set_qpname(token, "/data/a.qpi", error)) << error;
    ASSERT_TRUE(set_qpname(token, "/data/b.qpi", error)) << error; // replaces the name before
    EXPECT_EQ(helper({"--qpname-token", token, "get"}), "/data/b.qpi");
    helper({"--qpname-token", token, "clear"});
    EXPECT_EQ(get_qpname(token), "");
    EXPECT_EQ(testing::ScratchDir::listingOf(dir.file("run")), "");
}

TEST_F(QpnameTest, ANameIsHandedOnlyToTheHolderOfItsToken) {
    const std::string mine = newQpnameToken(), other = newQpnameToken();
    ASSERT_TRUE(isQpnameToken(mine));
    ASSERT_NE(mine, other);
    helper({"--qpname-token", other, "set", "/data/other window.qpi"});
    helper({"set", "/data/by hand.qpi"}); // newQPI without a token stores nothing
    EXPECT_EQ(get_qpname(mine), "");
    EXPECT_EQ(get_qpname(other), "/data/other window.qpi");
    clear_qpname(mine); // leaves the other window's name alone
    EXPECT_EQ(testing::ScratchDir::listingOf(dir.file("run")), "corvane-qpname-" + other);

    // What is not a token names no file, inside the store or out of it.
    std::string error;
    for (const std::string& bad : {std::string("../escape"), mine.substr(1), mine + "0"}) {
        EXPECT_FALSE(set_qpname(bad, "/data/x.qpi", error)) << bad;
        EXPECT_NE(error.find(bad), std::string::npos) << error;
        EXPECT_EQ(get_qpname(bad), "") << bad;
    }
    EXPECT_EQ(testing::ScratchDir::listingOf(dir.path()), "run");
}

TEST_F(QpnameTest, WithoutAPrivateRuntimeDirectoryTheNameIsKeptInThePrivateCache) {
    const std::string token = newQpnameToken();
    setenv("XDG_RUNTIME_DIR", dir.file("gone").c_str(), 1); // set, but no such directory
    helper({"--qpname-token", token, "set", "/data/dimer.qpi"});
    EXPECT_EQ(qpnameStorePath(token), dir.file("cache/corvane/qpname-" + token));
    EXPECT_EQ(permissions(dir.file("cache/corvane")), 0700u);
    EXPECT_EQ(get_qpname(token), "/data/dimer.qpi");

    unsetenv("XDG_RUNTIME_DIR");
    unsetenv("XDG_CACHE_HOME");
    helper({"--qpname-token", token, "set", "/data/trimer.qpi"});
    EXPECT_EQ(qpnameStorePath(token), dir.file("home/.cache/corvane/qpname-" + token));
    EXPECT_EQ(get_qpname(token), "/data/trimer.qpi");

    // A runtime directory that others can write in (a shared sticky folder): what another user
    // plants there is never taken, and the name goes to the cache instead.
    setenv("XDG_CACHE_HOME", dir.file("cache").c_str(), 1);
    for (const fs::perms shared : {fs::perms::all | fs::perms::sticky_bit,
                                   fs::perms::owner_all | fs::perms::group_all}) {
        fs::permissions(dir.file("run"), shared);
        setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
        dir.write("run/corvane-qpname-" + token, dir.file("planted.qpi"));
        EXPECT_EQ(get_qpname(token), "/data/dimer.qpi");
        EXPECT_EQ(qpnameStorePath(token), dir.file("cache/corvane/qpname-" + token));
    }

    // A store that cannot be written, or that others can write in, says why and keeps the name
    // it had.
    testing::ScratchDir other;
    std::string error;
    setenv("XDG_CACHE_HOME", other.write("a-file", "").c_str(), 1);
    EXPECT_FALSE(set_qpname(token, "/data/lost.qpi", error));
    EXPECT_NE(error.find("a-file"), std::string::npos) << error;
    EXPECT_EQ(get_qpname(token), "");
    setenv("XDG_CACHE_HOME", dir.file("cache").c_str(), 1);
    fs::permissions(dir.file("cache/corvane"), fs::perms::owner_all | fs::perms::group_write);
    EXPECT_FALSE(set_qpname(token, "/data/lost.qpi", error));
    EXPECT_NE(error.find("can be written by others"), std::string::npos) << error;
    EXPECT_EQ(get_qpname(token), "");
    fs::permissions(dir.file("cache/corvane"), fs::perms::owner_all);
    EXPECT_EQ(get_qpname(token), "/data/dimer.qpi");
}

TEST_F(QpnameTest, OnlyARegularFileIsReadAndNothingWaitsOnAPipe) {
    const std::string token = newQpnameToken();
    const std::string stored = dir.file("run/corvane-qpname-" + token);
    const std::string elsewhere = dir.write("elsewhere", "/data/planted.qpi");

    // A symbolic link is not followed, and storing replaces the link, not the file it leads to.
    fs::create_symlink(elsewhere, stored);
    EXPECT_EQ(get_qpname(token), "");
    std::string error;
    ASSERT_TRUE(set_qpname(token, "/data/dimer.qpi", error)) << error;
    EXPECT_EQ(get_qpname(token), "/data/dimer.qpi");
    EXPECT_EQ(dir.read("elsewhere"), "/data/planted.qpi");

    // A pipe with no writer: opening it for reading would wait for one.
    clear_qpname(token);
    ASSERT_EQ(::mkfifo(stored.c_str(), 0600), 0);
    auto name = std::async(std::launch::async, [&] { return get_qpname(token); });
    if (name.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "get_qpname waits on a pipe";
        ::close(::open(stored.c_str(), O_WRONLY | O_NONBLOCK)); // lets it go on
    }
    EXPECT_EQ(name.get(), "");
    clear_qpname(token);
    EXPECT_FALSE(fs::exists(fs::symlink_status(stored)));
}

} // namespace
} // namespace corvane
