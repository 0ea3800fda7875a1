// The results report (.qpo) and the engine's output file.
//
// After every engine run, writeReport stores the engine's output.txt into the calculation of
// fitDocument that was fitted (the newest unless another is named) and rewrites the report whole:
// the problem once, then every calculation made so far. The report is also the saved form of a fit:
// readReportText takes it back into the document by its labels, so the layout is a storage format
// as much as a display one.
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

// Stores the engine output in contents into calculation number calculation (from 1; 0 for the
// newest, doc.calculationCount), which must exist: fitted values,
// their uncertainties, squared deviation, fitted range and fitted curve. The output must be the
// problem's own: its J and pair counts those of doc, its pairs doc's pairs, every value a
// finite number that the report can print. False, with what is wrong ("line 6: ...") in
// problem, when it is not; doc is then unchanged.
bool readEngineOutput(const std::string& contents, FitDocument& doc, std::string& problem,
                      int calculation = 0);

// What became of a report write.
struct ReportWrite {
    enum Outcome {
        Written,        // the report holds the new results; the output file is deleted
        NoOutput,       // there is no output file
        UnusableOutput, // the output file cannot be read or does not fit the problem
        NotWritten,     // the report cannot be written; the output file stays
    } outcome;
    std::string detail; // the system's reason or what is wrong with the output
    // The earlier report, kept as the report's name with "~" when it held calculations the new
    // one lacks (or was no report this program can read); "" when none was kept.
    std::string backup;
    int backupCalculations = 0;
};

// Reads outputPath into calculation number calculation of fitDocument (0: the newest), writes the
// report with every calculation to reportPath (whole or not at all) and deletes outputPath. Unless
// the outcome is Written, fitDocument and the report on disk stay as they were; the caller tells
// the user why. A report on disk without write permission is not replaced (NotWritten); one that
// holds more calculations than the new one, or cannot be read as a report, is first kept as
// reportPath + "~" (an older such copy replaced). end is how the engine's fit ended; the report
// says so when it did not converge.
ReportWrite writeReport(const std::string& outputPath, const std::string& reportPath,
                        int calculation = 0, FitEnd end = FitEnd::Converged);

// Takes a report's text into doc, which is not cleared first: calculations whose numbers are
// not above doc.calculationCount when their section is met are left as they are. False, with
// what is wrong ("line 9: ...") in problem, when the report ends before a section is complete,
// a count or number lies outside the document's limits, a path names a site or J value the
// problem lacks or a fitted range lies outside the pairs; doc is then partly changed.
bool readReportText(const std::string& contents, FitDocument& doc, std::string& problem);

// Reads the report at reportPath into doc as readReportText does; false after a message when
// it cannot be opened or is rejected (doc is then partly changed).
bool readReportFile(const std::string& reportPath, FitDocument& doc);

} // namespace corvane
