#include <climits>
#include <clocale>
#include <cmath>
#include <gtest/gtest.h>
#include <string>

#include "text/text.h"

namespace corvane {
namespace {

std::string trimmedLeft(std::string s) {
    trimLeft(s.data());
    return s.c_str();
}

std::string trimmedRight(std::string s) {
    trimRight(s.data());
    return s.c_str();
}

TEST(Trim, RemovesOnlySpacesAtTheirEnd) {
    EXPECT_EQ(trimmedLeft("   1.5 "), "1.5 ");
    EXPECT_EQ(trimmedRight("  1.5   "), "  1.5");
    EXPECT_EQ(trimmedLeft("\t 2"), "\t 2");
    EXPECT_EQ(trimmedRight("2 \t"), "2 \t");
    EXPECT_EQ(trimmedLeft("    "), "");
    EXPECT_EQ(trimmedRight("    "), "");
    EXPECT_EQ(trimmedLeft(""), "");

    std::string s = "  a b  ";
    trimLeft(s);
    EXPECT_EQ(s, "a b  ");
    trimRight(s);
    EXPECT_EQ(s, "a b");
    s = "   ";
    trimRight(s);
    EXPECT_EQ(s, "");
}

TEST(NumberChecks, IntegerAllowsOneLeadingSign) {
    for (const char* yes : {"0", "123", "-7", "+7", "+", "-", "007"}) EXPECT_TRUE(isInteger(yes)) << yes;
    for (const char* no : {"", " 1", "1 ", "1-", "--1", "1.0", "1e3", "a", "+-"})
        EXPECT_FALSE(isInteger(no)) << no;
}

TEST(NumberChecks, RealAllowsOnePointAnywhere) {
    for (const char* yes : {"1.5", ".5", "5.", ".", "-.", "+.", "-", "-0.25", "12"})
        EXPECT_TRUE(isReal(yes)) << yes;
    for (const char* no : {"", "1.2.3", "..", "1e5", "1E-3", "1,5", "-1-", " 1.0", ".-1"})
        EXPECT_FALSE(isReal(no)) << no;
}

TEST(UpperCopy, ChangesOnlyLowerCaseAsciiLetters) {
    EXPECT_EQ(upperCopy("j_value1 -1.5e-3 Title!\t~z"), "J_VALUE1 -1.5E-3 TITLE!\t~Z");
    const std::string latin1 = "\xe9t\xe9";
    EXPECT_EQ(upperCopy(latin1), "\xe9T\xe9");
    EXPECT_EQ(upperCopy(""), "");
}

TEST(LeadingNumbers, ReadTheDecimalNumberAtTheStart) {
    EXPECT_DOUBLE_EQ(readLeadingReal("2.5xyz"), 2.5);
    EXPECT_DOUBLE_EQ(readLeadingReal("  -1E-3,"), -0.001);
    EXPECT_DOUBLE_EQ(readLeadingReal("+.5"), 0.5);
    EXPECT_DOUBLE_EQ(readLeadingReal("7."), 7.0);
    EXPECT_DOUBLE_EQ(readLeadingReal("3e"), 3.0);
    EXPECT_DOUBLE_EQ(readLeadingReal("3e+"), 3.0);
    EXPECT_DOUBLE_EQ(readLeadingReal("1-2"), 1.0);
    for (const char* none : {"", "   ", "abc", ".", "-", "-.e5", "0x10z", "inf", "nan"})
        EXPECT_EQ(readLeadingReal(none), 0.0) << none;
    EXPECT_TRUE(std::isinf(readLeadingReal("1e999")));
    EXPECT_EQ(readLeadingReal("1e-999"), 0.0);

    EXPECT_EQ(readLeadingInteger("12ab"), 12);
    EXPECT_EQ(readLeadingInteger(" -7 8"), -7);
    EXPECT_EQ(readLeadingInteger("+3"), 3);
    EXPECT_EQ(readLeadingInteger("1.9"), 1);
    EXPECT_EQ(readLeadingInteger("x1"), 0);
    EXPECT_EQ(readLeadingInteger("-"), 0);
    EXPECT_EQ(readLeadingInteger("99999999999"), INT_MAX);
    EXPECT_EQ(readLeadingInteger("-99999999999"), INT_MIN);
}

TEST(FormatC, UsesThePointWhateverTheLocale) {
    const std::string longText(300, 'x');
    EXPECT_EQ(formatC("%d, %f, %s", -3, -0.5, "a"), "-3, -0.500000, a");
    EXPECT_EQ(formatC("%s", longText.c_str()), longText);

    const char* commaLocale = nullptr;
    for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "de_DE", "fr_FR"}) {
        if (std::setlocale(LC_NUMERIC, name) != nullptr) {
            commaLocale = name;
            break;
        }
    }
    if (commaLocale == nullptr) GTEST_SKIP() << "no locale with a decimal comma is installed";
    const std::string formatted = formatC("%f", 2.0);
    const double read = readLeadingReal("1.25");
    std::setlocale(LC_NUMERIC, "C");
    EXPECT_EQ(formatted, "2.000000") << commaLocale;
    EXPECT_DOUBLE_EQ(read, 1.25) << commaLocale;
}

} // namespace
} // namespace corvane
