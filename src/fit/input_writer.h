// Writing a fitting input file (.qpi): the problem of a document and the starting values of one
// of its calculations, in the form the input file reader reads back to the same values.
#pragma once

#include <string>
#include <vector>

#include "fit/fit_document.h"

namespace corvane {

// The longest text of one value in a written file. Every value is written exactly (formatExact:
// six decimals, more where it needs them, never an exponent); with this bound every statement
// stays a short line.
inline constexpr std::size_t maxWrittenValueLength = 50;

// Why value cannot be written exactly in an input file, as the end of a sentence ("1e+12 is too
// large; values up to 999999999 are accepted"); "" when it can.
std::string writableValueProblem(double value);

// Why title cannot be the title line of an input file, one sentence each; empty when it can.
std::vector<std::string> titleProblems(const std::string& title);

// What keeps doc from being written as an input file that the reader accepts and reads back
// to the same problem and starting values of calculation `calculation` (from 1): one sentence
// each, naming the item ("Path 3: site 5 is not one of the sites 1 to 4."); empty when it can
// be written. Checks the title (no "!", no control character, at most maxTitleLength bytes),
// the counts against their limits, at least one site and one pair, every spin from 1 to
// maxTwiceSpin, every path between two different sites of the problem with a J value of the
// problem, temperatures above 0 K, a g start above 0, a precision not below 0, and every value
// finite, within maxValueMagnitude and exactly writable in maxWrittenValueLength characters.
std::vector<std::string> inputFileProblems(const FitDocument& doc, int calculation = 1);

// The text of the input file of doc with the starting values, steps and tolerance of
// calculation `calculation`: a comment head saying what the file is, then TITLE, KEYWD,
// J_VALUE, SPIN_ON_SITE, INTERACTION and T_CHI lines; the field, weighting and magnetization
// weight where they are not the defaults, and T_H_M lines for a magnetization set. doc must have no inputFileProblems.
std::string inputFileText(const FitDocument& doc, int calculation = 1);

// Writes inputFileText(doc, calculation) to path whole or not at all (a temporary file, then
// renamed). False, with the reason in error, when doc has a problem (the first one) or the
// file cannot be written; path is then left as it was.
bool writeInputFile(const std::string& path, const FitDocument& doc, std::string& error,
                    int calculation = 1);

} // namespace corvane
