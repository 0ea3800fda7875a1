// Measured data from a text or CSV file or a spreadsheet paste: T in the first column, the
// observed value in a chosen one.
//
// Fields are separated by semicolons when a data line holds one, else by tabs when one holds
// a tab, else by commas when the first data line splits at commas into numbers, else by runs of
// blanks. Except with commas as separators, a decimal comma is understood ("0,372"). A field
// in double quotes loses them. A data line is one whose first field is a number; every other
// line (blank, a comment, a header with names or units) is skipped and counted.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace newqpi {

// One measured pair as text, to be checked with the rest of the form: a value that is not a
// number is shown to the user, not dropped.
struct PairText {
    std::string temperature;
    std::string value; // "" when the line has no field in the value column
};

struct ImportedData {
    std::vector<PairText> pairs;
    int skippedLines = 0; // blank, comment and header lines
    int columns = 0;      // the most fields a data line has
};

// More data lines than this are not imported: no file of measured pairs comes near it.
inline constexpr int maxImportedLines = 10000;

// Reads the pairs of text; valueColumn counts from 1 (T is column 1). False, with a sentence in
// error, when text has no data line, more than maxImportedLines of them, or no data line
// reaches valueColumn.
bool importData(std::string_view text, int valueColumn, ImportedData& data, std::string& error);

} // namespace newqpi
