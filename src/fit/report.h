// The results report (.qpo) and the engine's output file.
//
// After every engine run, writeReport stores the engine's output.txt into the newest
// calculation of fitDocument and rewrites the report whole: the problem once, then every
// calculation made so far. The report is also the saved form of a fit: readReport takes it
// back into the document by its labels, so the layout is a storage format as much as a display
// one.
#pragma once

#include <ctime>
#include <string>

#include "fit/fit_document.h"

namespace corvane {

inline constexpr const char* reportExtension = ".qpo";

// The report's date line: "11/17/2026 04:22:28 PM", in local time.
std::string reportDate(std::time_t when);

// The whole report for doc, with date as its date line.
std::string reportText(const FitDocument& doc, const std::string& date);

// Stores the engine output in contents into calculation doc.calculationCount and the shared
// J count and pairs of doc. False, with what is wrong ("line 6: ...") in problem, when the
// output has no room in the document or ends early; doc is then partly changed.
bool readEngineOutput(const std::string& contents, FitDocument& doc, std::string& problem);

// Reads outputPath into fitDocument, writes the report with every calculation to reportPath
// (whole or not at all) and deletes outputPath. When the output is missing or unusable or the
// report cannot be written, the user is told why (with the engine's own message when the last
// run left one), fitDocument and the report on disk stay as they were, and the result is false.
bool writeReport(const std::string& outputPath, const std::string& reportPath);

// Takes a report's text into doc, which is not cleared first: calculations whose numbers are
// not above doc.calculationCount when their section is met are left as they are. False, with
// what is wrong ("line 9: ...") in problem, when a count in the report is above the document's
// limits or a fitted range lies outside the pairs; doc is then partly changed.
bool readReportText(const std::string& contents, FitDocument& doc, std::string& problem);

// Reads the report at reportPath into doc as readReportText does; false after a message when
// it cannot be opened or is rejected (doc is then partly changed).
bool readReportFile(const std::string& reportPath, FitDocument& doc);

// Reads the report at reportPath into fitDocument as readReportText does. A report that cannot
// be opened or is rejected leaves fitDocument as it was, after a message.
bool readReport(const std::string& reportPath);

} // namespace corvane
