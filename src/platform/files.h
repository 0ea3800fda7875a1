// Whole-file reads and writes, and the few file operations the core needs.
//
// Every failure comes back as false with the system's reason in `error` ("No such file or
// directory"); the caller decides what to tell the user.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace corvane {

// Reads the whole file at path into contents (bytes as stored). A file larger than maxBytes is
// not read: false, with its size and the limit in error.
bool readWholeFile(const std::string& path, std::string& contents, std::string& error,
                   std::size_t maxBytes = static_cast<std::size_t>(-1));

// Writes contents to path whole or not at all: the bytes go to a new temporary file beside
// path, are flushed to disk, and the temporary is renamed over path. On failure path is left
// as it was and no temporary remains. A new file gets the usual permissions (0666 less umask).
bool writeWholeFile(const std::string& path, std::string_view contents, std::string& error);

// True when path names a file (not a directory) that can be opened for reading.
bool fileExists(const std::string& path);

// Deletes the file at path (never a directory); false when it could not be deleted.
bool removeFile(const std::string& path);

// Fault injection for tests: the n-th call of writeWholeFile from now on (1 is the next call)
// writes part of its temporary and then fails as if the disk were full. 0 switches it off.
void failNthFileWrite(int n);

} // namespace corvane
