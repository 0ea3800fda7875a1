// The name store that hands the name of a new input file from newQPI, the program that creates
// it, to the desktop program that started it: newQPI calls set_qpname once the file is saved,
// and the desktop program, once newQPI has ended, calls get_qpname and then clear_qpname.
//
// The name is kept in one file of the user's runtime directory ($XDG_RUNTIME_DIR/corvane-qpname)
// or, when there is none, of the user's cache directory
// ($XDG_CACHE_HOME or ~/.cache, then corvane/qpname, the folder made private to the user). The
// file holds the name's bytes and nothing else, so a name of any length and with any
// characters comes back exactly. It is replaced whole (a temporary file, then renamed) and
// readable by its owner only. One store serves all the user's processes.
#pragma once

#include <string>

namespace corvane {

// The file the store keeps its name in; "" when neither directory can be found.
std::string qpnameStorePath();

// Stores name, replacing any name stored before. False, with the reason in error, when the
// store cannot be written; the name stored before is then left as it was.
bool set_qpname(const std::string& name, std::string& error);

// The name stored; "" when none is stored (or the store cannot be read).
std::string get_qpname();

// Forgets the stored name: get_qpname then gives "" until a name is stored again.
void clear_qpname();

} // namespace corvane
