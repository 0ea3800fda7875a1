// Text helpers shared by the readers, the writers, the dialogs and the axis numbers.
//
// The checks and trims work on NUL-terminated strings, as the dialogs keep their field texts
// in fixed buffers. Nothing here depends on the process locale.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace corvane {

// Removes leading blanks (the space character only; tabs stay), in place.
void trimLeft(char* s);

// Removes trailing blanks (space only), in place.
void trimRight(char* s);

// True when s is not empty and every character is a decimal digit, except that "+" or "-" may
// stand first. A sign alone passes.
bool isInteger(const char* s);

// As isInteger, and in addition at most one "." may stand anywhere. A sign alone, a point alone
// and "-." pass; an exponent does not.
bool isReal(const char* s);

// A copy of text in which a..z become A..Z and every other character stays as it is.
std::string upperCopy(std::string_view text);

// A field of a data table without the blanks and tabs around it, and without the double quotes
// that a spreadsheet puts around a text.
std::string_view trimmedField(std::string_view field);

// The decimal number at the start of text: leading blanks are skipped, reading stops at the
// first character that cannot continue the number, and text without a number gives 0.
// A real is [sign] digits [. digits] [e|E [sign] digits]; hexadecimal, "inf" and "nan" are
// not numbers. An integer beyond the int range saturates at INT_MIN or INT_MAX.
double readLeadingReal(std::string_view text);
int readLeadingInteger(std::string_view text);

// A whole token read as a number: true when all of token (no blanks) is a decimal real as
// readLeadingReal reads one and its value is finite, or a decimal integer within the int range.
// value is left unchanged when the token is not such a number.
bool parseReal(std::string_view token, double& value);
bool parseInteger(std::string_view token, int& value);

// value in fixed-point notation with at least six decimals ("%f"), and with as many more as it
// takes for the text to read back as exactly the same double: 2.0 gives "2.000000", 1e-7 gives
// "0.0000001", 0.1 + 0.2 gives "0.30000000000000004". Never an exponent. value must be finite.
std::string formatExact(double value);

// printf-style formatting that always uses the "C" locale, whatever the process locale is:
// formatC("%f", 2.0) is "2.000000" on a German desktop too.
std::string formatC(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A piece of a file as a message may show it: control characters and bytes outside printable
// ASCII each as '?', and cut to at most maxLength characters with "..." after.
std::string printableText(std::string_view text, std::size_t maxLength = 40);

// strftime in the "C" locale: "%p" is "AM" or "PM" whatever the desktop's language is.
std::string formatTimeC(const char* format, const std::tm& time);

} // namespace corvane
