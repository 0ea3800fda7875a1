// The engine's exchange files: the engine input file (problem and one calculation's starting
// values) and the data exchange file (the pairs), written beside the input file, in the fixed
// text formats the engine reads. Real values are written as "%f" in the "C" locale wherever
// that reads back as the same number, and with as many more decimals as it takes elsewhere, so
// that the engine gets the user's numbers exactly.
#pragma once

#include <string>

#include "fit/fit_document.h"
#include "fit/run_state.h"

namespace corvane {

inline constexpr const char* engineInputName = "input.txt";
inline constexpr const char* chiDataName = "chi.txt";   // data exchange file for chi data
inline constexpr const char* chitDataName = "chit.txt"; // data exchange file for chiT data
inline constexpr const char* engineOutputName = "output.txt";

// The directory of a file path: everything before its last '/'. A file in the root gives ""
// and a bare file name gives ".", so that directory + "/" + name is always the file beside it.
// The one rule for every file of a run: exchange files, engine output, log and workDir.
std::string directoryOf(const std::string& path);

// The file of that name in directory: directory + "/" + name.
std::string pathIn(const std::string& directory, const char* name);

// The file of that name in runState.workDir: workDir + "/" + name.
std::string inWorkDir(const char* name);

// The exchange file name for the document's kind of data: chi.txt or chit.txt.
const char* dataExchangeName(const FitDocument& doc);

// The engine input file for calculation number c (from 1) of doc, and the data exchange file.
std::string engineInputText(const FitDocument& doc, int c);
std::string engineDataText(const FitDocument& doc);

// Both files of a run: the engine input file for calculation fitDocument.calculationCount and
// the data exchange file, each whole or not at all. When either cannot be written neither is
// left behind, and the file is named in a message.
bool writeExchangeFiles(const std::string& engineInputPath, const std::string& dataPath);

// Writes the engine input file for calculation (0-based; the one the parameter dialog edits)
// and the data exchange file of the document into a fresh run directory (openRunDirectory),
// where the engine reads them; so the engine fits the data the user sees, whether the document
// came from an input file or from a report.
bool writeDialogEngineInput(int calculation);

// A run works in a folder of its own, so that no file of the user's is ever written or deleted
// and two runs never meet: a new private folder (mode 0700) in the temporary directory
// ($TMPDIR, else /tmp), named corvane-run-XXXXXX, becomes runState.workDir. False after a
// message when it cannot be made.
bool openRunDirectory();

// Removes the run folder in runState.workDir with what the run left in it, unless keep (a run
// that failed leaves its log there for the user); workDir keeps naming it either way.
void closeRunDirectory(bool keep);

// Whether the file at path is one the program writes as `name` (input.txt, chi.txt or
// chit.txt): its first line the numbers that open such a file. A file that is not may not be
// replaced by one.
bool isExchangeFile(const std::string& path, const char* name);

} // namespace corvane
