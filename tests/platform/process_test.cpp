// Following a program's output.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "platform/process.h"

namespace corvane {
namespace {

TEST(ChildProgram, OutputWithoutNewlinesArrivesWholeInPiecesAndTheErrorStreamKeepsItsEnd) {
    constexpr std::size_t size = 20'000'000;
    ChildProgram program;
    std::string error;
    ASSERT_TRUE(program.start("/bin/sh",
                              {"-c", "head -c 20000000 /dev/zero | tr '\\0' x; printf 'y\\nlast';"
                                     "head -c 20000000 /dev/zero >&2; echo 'the end' >&2"},
                              error))
        << error;
    std::vector<std::string> lines;
    while (program.poll(100, [&](const std::string& line) { lines.push_back(line); })) {
    }
    EXPECT_TRUE(program.exitedNormally() && program.exitCode() == 0);
    ASSERT_EQ(lines.size(), size / maxOutputLineLength + 2);
    std::string all;
    for (const std::string& line : lines) {
        EXPECT_LE(line.size(), maxOutputLineLength);
        all += line;
    }
    EXPECT_EQ(all, std::string(size, 'x') + "ylast");
    EXPECT_EQ(lines.back(), "last");
    const std::string& errors = program.errorOutput();
    EXPECT_GE(errors.size(), errorOutputKept);
    EXPECT_LE(errors.size(), 2 * errorOutputKept + 65536);
    EXPECT_EQ(errors.substr(errors.size() - 9), std::string("\0the end\n", 9));
}

} // namespace
} // namespace corvane
