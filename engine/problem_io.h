// Reading input.txt with its data file, and writing output.txt.
#pragma once

#include <string>

#include "problem.h"

namespace corefit {

// Reads the engine input file and the data file beside it (chit.txt for chiT, chi.txt for chi).
// Reading is tolerant (LF or CR LF, numbers separated by commas and/or blanks), validation strict.
// On failure returns false and sets error to one line naming the file, the line and the problem.
bool readProblem(const std::string& inputPath, Problem& problem, std::string& error);

// The same from the two texts in memory; inputName and dataName name the files in messages
// ("input.txt", "chit.txt"). Sets the problem's inputPath and dataPath to these names.
bool readProblemText(const std::string& inputText, const std::string& dataText,
                     const std::string& inputName, const std::string& dataName, Problem& problem,
                     std::string& error);

// The name of the data file that goes with an input file of this data kind: chit.txt or chi.txt.
const char* dataFileName(DataKind kind);

// The last part of a path, as messages name a file ("input.txt").
std::string fileName(const std::string& path);

// Writes output.txt whole or not at all, as a new file renamed over the old one (a link of that
// name is replaced, never followed). An uncertainty that is NaN is written as the word
// "undetermined". On failure returns false and sets error.
bool writeOutput(const std::string& outputPath, const Problem& problem, const Outcome& outcome,
                 std::string& error);

// printf into a string in the "C" locale's format (at most 511 characters).
[[gnu::format(printf, 1, 2)]] std::string formatText(const char* pattern, ...);

// The directory part of a path ("." for a bare name), and a name joined to it.
std::string directoryOf(const std::string& path);
std::string joinPath(const std::string& directory, const std::string& name);

} // namespace corefit
