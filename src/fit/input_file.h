// The fitting input file (.qpi): a title, KEYWD settings, J_VALUE, SPIN_ON_SITE, INTERACTION
// and T_CHI statements, one per line, keywords in any case, "!" anywhere making the whole line a
// comment that is never read. Lines are read whole, however long.
#pragma once

#include <string>

#include "fit/fit_document.h"

namespace corvane {

// Reads the text of an input file into doc as calculation 1, as readInputFile does, without
// writing anything; name is the file named in messages. A failed read leaves doc as it was.
bool readInputText(const std::string& contents, const std::string& name, FitDocument& doc);

// Reads the input file at inputPath into fitDocument as calculation 1 and, on success, writes
// the engine input file to engineInputPath and the data exchange file to chiPath (chi data) or
// chitPath (chiT data).
//
// The file is read into a copy of the document that replaces fitDocument only when the whole
// file has been read, so a failed read leaves the document as it was. Failures are shown as
// messages that name the file and, where there is one, the line: a file that cannot be opened,
// a count above its limit, a J or site number below 1, a KEYWD word that is not a setting, an
// unknown energy unit, a value that is not a number or out of range (a g start not above 0, a
// negative precision), a control character in the title, a problem the engine cannot fit, an
// exchange file that cannot be written. Returns false after any of them; no exchange file is
// written after a failed read.
bool readInputFile(const std::string& inputPath, const std::string& engineInputPath,
                   const std::string& chiPath, const std::string& chitPath);

} // namespace corvane
