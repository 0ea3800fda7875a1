// Reading input.txt with its data file, and writing output.txt.
#pragma once

#include <string>

#include "problem.h"

namespace corefit {

// Reads the engine input file and the data file beside it (chit.txt for chiT, chi.txt for chi).
// Reading is tolerant (LF or CR LF, numbers separated by commas and/or blanks), validation strict.
// On failure returns false and sets error to one line naming the file, the line and the problem.
bool readProblem(const std::string& inputPath, Problem& problem, std::string& error);

// Writes output.txt whole or not at all. On failure returns false and sets error.
bool writeOutput(const std::string& outputPath, const Problem& problem, const Outcome& outcome,
                 std::string& error);

// The directory part of a path ("." for a bare name), and a name joined to it.
std::string directoryOf(const std::string& path);
std::string joinPath(const std::string& directory, const std::string& name);

} // namespace corefit
