// Whole-file reads and writes, and the few file operations the core needs.
//
// Every failure comes back as false with the system's reason in `error` ("No such file or
// directory"); the caller decides what to tell the user.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// Reads the whole file at path into contents (bytes as stored). A file larger than maxBytes is
// not read: false, with its size and the limit in error. Only a regular file is read: a FIFO, a
// device or a folder is refused at once, never waited for.
bool readWholeFile(const std::string& path, std::string& contents, std::string& error,
                   std::size_t maxBytes = static_cast<std::size_t>(-1));

// Writes contents to path whole or not at all: the bytes go to a new temporary file beside
// path (".corvane-" and six letters, so a long file name still fits), are flushed to disk, and
// the temporary is renamed over path. On failure path is left as it was and no temporary
// remains. When path is a symbolic link, the file it leads to is written and the link stays. An
// existing file keeps its permissions; a new one gets the usual ones (0666 less umask).
bool writeWholeFile(const std::string& path, std::string_view contents, std::string& error);

// One file of writeWholeFiles: its path and the bytes it is to hold.
struct FileText {
    std::string path;
    std::string_view text;
};

// Writes several files as a unit, each as writeWholeFile would: all temporaries are written and
// flushed first, and only then renamed over their files, in order. When a file cannot be
// written, none is changed, no temporary remains, and failedPath names the file. (Only a rename
// that fails after earlier ones succeeded, which needs the directory to change under it, leaves
// those earlier files replaced.)
bool writeWholeFiles(const std::vector<FileText>& files, std::string& failedPath,
                     std::string& error);

// True when path names a file (not a directory) that can be opened for reading.
bool fileExists(const std::string& path);

// Deletes the file at path (never a directory); false when it could not be deleted.
bool removeFile(const std::string& path);

// Fault injection for tests: while writesUntilFault is above 0, it counts down at every file
// written by writeWholeFile or writeWholeFiles, and the file at which it reaches 0 gets part of
// its temporary written and then fails as if the disk were full.
struct FileFaults {
    int writesUntilFault = 0;
};
extern FileFaults fileFaults;

// The n-th file written from now on fails (1 is the next one); 0 switches it off.
void failNthFileWrite(int n);

} // namespace corvane
