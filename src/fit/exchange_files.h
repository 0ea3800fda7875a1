// The engine's exchange files: the engine input file (problem and one calculation's starting
// values) and the data exchange file (the pairs), written beside the input file, in the fixed
// text formats the engine reads. Real values are written as "%f" in the "C" locale.
#pragma once

#include <string>

#include "fit/fit_document.h"

namespace corvane {

inline constexpr const char* engineInputName = "input.txt";
inline constexpr const char* chiDataName = "chi.txt";   // data exchange file for chi data
inline constexpr const char* chitDataName = "chit.txt"; // data exchange file for chiT data
inline constexpr const char* engineOutputName = "output.txt";

// The directory of a file path: everything before its last '/'. A file in the root gives ""
// and a bare file name gives ".", so that directory + "/" + name is always the file beside it.
std::string directoryOf(const std::string& path);

// The directory that holds the exchange files of the problem in fitDocument: set whenever an
// input file has been read; "." (the current directory) until then.
extern std::string exchangeDirectory;

// Deletes input.txt, chi.txt and chit.txt in the directory of inputPath, then reads the input
// file and writes fresh exchange files there (readInputFile). Returns false when the read or a
// write failed, after its message; the engine must not be started then.
bool prepareRun(const std::string& inputPath);

// The engine input file for calculation number c (from 1) of doc, and the data exchange file.
std::string engineInputText(const FitDocument& doc, int c);
std::string engineDataText(const FitDocument& doc);

// Write the engine input file for calculation fitDocument.calculationCount, and the data
// exchange file, whole or not at all. A file that cannot be written is named in a message.
bool writeEngineInput(const std::string& engineInputPath);
bool writeEngineData(const std::string& path);

// Writes the engine input file for calculation fitDocument.currentCalculation + 1 (the one the
// parameter dialog edits) into exchangeDirectory, where the engine reads it. The data exchange
// file written by the last prepareRun stays as it is.
bool writeDialogEngineInput();

} // namespace corvane
