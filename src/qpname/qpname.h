// The name store that hands the name of a new input file from newQPI, the program that creates
// it, to the desktop program that started it. File > New makes a token (newQpnameToken) and
// starts newQPI with --qpname-token TOKEN; newQPI calls set_qpname with that token once the file
// is saved, and the desktop program, once newQPI has ended, calls get_qpname and then
// clear_qpname with the same token. A name is handed only to the holder of its token: the window
// that started that newQPI. newQPI started by hand has no token and stores nothing.
//
// Each token has a file of its own, holding the name's bytes and nothing else (so a name of any
// length and with any characters comes back exactly), readable by its owner only and replaced
// whole (a temporary file, then renamed). The files are kept in a directory that only the user
// can write in: the user's runtime directory ($XDG_RUNTIME_DIR/corvane-qpname-TOKEN) when it
// is the user's and not writable by group or others; else the user's cache directory
// ($XDG_CACHE_HOME or ~/.cache, then corvane/qpname-TOKEN, the folder made private to the user
// and refused when it is not). Only a regular file owned by the user is read, without following
// a symbolic link and without waiting on a pipe or device put in its place.
#pragma once

#include <string>

namespace corvane {

// A new random token: 32 lowercase hexadecimal digits.
std::string newQpnameToken();

// Whether token has the form newQpnameToken gives.
bool isQpnameToken(const std::string& token);

// The file the store keeps token's name in; "" when the token is not one or there is no
// directory fit for the store.
std::string qpnameStorePath(const std::string& token);

// Stores name for the holder of token, replacing any name stored for it before. With an empty
// token (newQPI started by hand) there is no one to hand the name to: nothing is stored and the
// result is true. False, with the reason in error, when the token is not one or the store cannot
// be written; the name stored before is then left as it was.
bool set_qpname(const std::string& token, const std::string& name, std::string& error);

// The name stored for token; "" when none is stored (or the store cannot be read, or the token
// is not one).
std::string get_qpname(const std::string& token);

// Forgets the name stored for token: get_qpname then gives "" until a name is stored again.
void clear_qpname(const std::string& token);

} // namespace corvane
