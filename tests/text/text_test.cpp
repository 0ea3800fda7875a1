#include <climits>
#include <clocale>
#include <cmath>
#include <gtest/gtest.h>
#include <string>

#include "text/text.h"

namespace corvane {
namespace {

TEST(Text, TrimsRemoveOnlySpaces) {
    char left[] = "  \t1.5 ", right[] = " 1.5 \t  ", blanks[] = "   ";
    trimLeft(left);
    trimRight(right);
    trimRight(blanks);
    EXPECT_STREQ(left, "\t1.5 ");
    EXPECT_STREQ(right, " 1.5 \t");
    EXPECT_STREQ(blanks, "");
}

TEST(Text, NumberChecksAllowOneLeadingSignAndForRealsOnePoint) {
    for (const char* yes : {"0", "-7", "+7", "+", "-", "007"}) EXPECT_TRUE(isInteger(yes)) << yes;
    for (const char* no : {"", " 1", "1-", "--1", "1.0", "1e3", "a"})
        EXPECT_FALSE(isInteger(no)) << no;
    for (const char* yes : {"1.5", ".5", "5.", ".", "-.", "+.", "-", "12"})
        EXPECT_TRUE(isReal(yes)) << yes;
    for (const char* no : {"", "1.2.3", "1e5", "1,5", " 1.0", ".-1"})
        EXPECT_FALSE(isReal(no)) << no;
}

TEST(Text, LeadingNumbersStopAtTheFirstCharacterThatCannotContinueThem) {
    EXPECT_EQ(upperCopy("j_value1 1.5e-3 \xe9z"), "J_VALUE1 1.5E-3 \xe9Z");
    EXPECT_DOUBLE_EQ(readLeadingReal("  -1E-3,"), -0.001);
    EXPECT_DOUBLE_EQ(readLeadingReal("+.5x"), 0.5);
    EXPECT_DOUBLE_EQ(readLeadingReal("3e+"), 3.0);
    for (const char* none : {"", "abc", ".", "-", "-.e5", "inf", "nan"})
        EXPECT_EQ(readLeadingReal(none), 0.0) << none;
    EXPECT_DOUBLE_EQ(readLeadingReal("0x10"), 0.0);
    EXPECT_TRUE(std::isinf(readLeadingReal("1e999")));
    EXPECT_EQ(readLeadingInteger(" -7 8"), -7);
    EXPECT_EQ(readLeadingInteger("1.9"), 1);
    EXPECT_EQ(readLeadingInteger("x1"), 0);
    EXPECT_EQ(readLeadingInteger("99999999999"), INT_MAX);
    EXPECT_EQ(readLeadingInteger("-99999999999"), INT_MIN);
}

TEST(Text, FormatCWritesAPointWhateverTheLocale) {
    EXPECT_EQ(formatC("%d, %f", -3, -0.5), "-3, -0.500000");
    EXPECT_EQ(formatC("%s", std::string(300, 'x').c_str()), std::string(300, 'x'));
    if (std::setlocale(LC_NUMERIC, "de_DE.UTF-8") == nullptr) GTEST_SKIP() << "no de_DE locale";
    const std::string formatted = formatC("%f", 2.0);
    const std::string exact = formatExact(1.2345678e-4) + " " + formatExact(-300.0);
    const double read = readLeadingReal("1.25");
    double parsed = 0.0;
    const bool whole = parseReal("0.5", parsed);
    std::setlocale(LC_NUMERIC, "C");
    EXPECT_EQ(formatted, "2.000000");
    EXPECT_EQ(exact, "0.00012345678 -300.000000");
    EXPECT_EQ(read, 1.25);
    EXPECT_TRUE(whole && parsed == 0.5);
}

} // namespace
} // namespace corvane
