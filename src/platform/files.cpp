#include "platform/files.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane {

FileFaults fileFaults;

namespace {

std::string systemReason(int code) { return std::strerror(code); }

// Writes all of data to fd; false with errno set when the system refuses.
bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// Where a write to path lands: path itself or, when path is a symbolic link, the file at the end
// of its chain of links (which need not exist yet). False with errno set when the links loop.
bool followLinks(const std::string& path, std::string& target) {
    target = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat info {};
        if (::lstat(target.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) return true;
        std::string link(static_cast<std::size_t>(info.st_size) + 64, '\0');
        ssize_t length;
        while ((length = ::readlink(target.c_str(), link.data(), link.size())) >= 0 &&
               static_cast<std::size_t>(length) == link.size())
            link.resize(link.size() * 2);
        if (length <= 0) return true; // gone meanwhile: a file takes its place
        link.resize(static_cast<std::size_t>(length));
        const std::size_t slash = target.rfind('/');
        target = link[0] == '/' || slash == std::string::npos ? link
                                                              : target.substr(0, slash + 1) + link;
    }
    errno = ELOOP;
    return false;
}

// Creates a new, empty temporary file in the directory of target, with a short name of its own;
// returns its descriptor (or -1 with errno set) and name. It gets the permissions of an existing
// target file, else those of a new file.
int createTemporaryBeside(const std::string& target, std::string& name) {
    static constexpr char letters[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::random_device entropy;
    const std::size_t slash = target.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::uint64_t bits = static_cast<std::uint64_t>(entropy()) << 32 | entropy();
        name = directory + ".corvane-";
        for (int i = 0; i < 6; ++i, bits /= sizeof letters - 1)
            name += letters[bits % (sizeof letters - 1)];
        const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno == EEXIST) continue;
        struct stat existing {};
        if (fd >= 0 && ::stat(target.c_str(), &existing) == 0 && S_ISREG(existing.st_mode))
            ::fchmod(fd, existing.st_mode & 07777); // best effort: some file systems refuse
        return fd;
    }
    errno = EEXIST;
    return -1;
}

// A file of writeWholeFiles on its way: the file to replace and the temporary that holds its
// new bytes.
struct Staged {
    std::string target, temporary;
};

// Writes text to a new temporary beside the file path leads to and flushes it; false with errno
// set, and no temporary left, when that fails.
bool stage(const std::string& path, std::string_view text, Staged& staged) {
    if (!followLinks(path, staged.target)) return false;
    struct stat existing {};
    if (::stat(staged.target.c_str(), &existing) == 0 && S_ISDIR(existing.st_mode)) {
        errno = EISDIR; // found now, before any file of a unit is replaced
        return false;
    }
    const int fd = createTemporaryBeside(staged.target, staged.temporary);
    if (fd < 0) return false;
    bool ok = true;
    if (fileFaults.writesUntilFault > 0 && --fileFaults.writesUntilFault == 0) {
        writeAll(fd, text.substr(0, text.size() / 2));
        errno = ENOSPC;
        ok = false;
    } else {
        ok = writeAll(fd, text) && ::fsync(fd) == 0;
    }
    int code = errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        code = errno;
    }
    if (!ok) {
        ::unlink(staged.temporary.c_str());
        errno = code;
    }
    return ok;
}

} // namespace

bool readWholeFile(const std::string& path, std::string& contents, std::string& error,
                   std::size_t maxBytes) {
    // Without blocking: a FIFO or a device is refused at once instead of waiting for a writer.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = systemReason(errno);
        return false;
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        const int code = errno;
        ::close(fd);
        error = S_ISDIR(status.st_mode) ? "it is a folder, not a file"
                : status.st_mode != 0   ? "it is not a regular file"
                                        : systemReason(code);
        return false;
    }
    if (static_cast<std::size_t>(status.st_size) > maxBytes) {
        ::close(fd);
        error = "the file is " + std::to_string(status.st_size) + " bytes, more than the " +
                std::to_string(maxBytes) + " bytes it may hold";
        return false;
    }
    contents.clear();
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const int code = errno;
            ::close(fd);
            contents.clear();
            error = systemReason(code);
            return false;
        }
        if (n == 0) break;
        if (contents.size() + static_cast<std::size_t>(n) > maxBytes) { // it grew while read
            ::close(fd);
            contents.clear();
            error = "it holds more than the " + std::to_string(maxBytes) + " bytes it may hold";
            return false;
        }
        contents.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return true;
}

bool writeWholeFile(const std::string& path, std::string_view contents, std::string& error) {
    std::string failedPath;
    return writeWholeFiles({{path, contents}}, failedPath, error);
}

bool writeWholeFiles(const std::vector<FileText>& files, std::string& failedPath,
                     std::string& error) {
    std::vector<Staged> staged(files.size());
    // Removes the temporaries of files [from, to) and reports the file that failed.
    const auto fail = [&](std::size_t failed, std::size_t from, std::size_t to) {
        const int code = errno;
        for (std::size_t i = from; i < to; ++i) ::unlink(staged[i].temporary.c_str());
        failedPath = files[failed].path;
        error = systemReason(code);
        return false;
    };
    for (std::size_t i = 0; i < files.size(); ++i)
        if (!stage(files[i].path, files[i].text, staged[i])) return fail(i, 0, i);
    for (std::size_t i = 0; i < files.size(); ++i)
        if (std::rename(staged[i].temporary.c_str(), staged[i].target.c_str()) != 0)
            return fail(i, i, files.size());
    return true;
}

bool fileExists(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat status {};
    const bool isFile = ::fstat(fd, &status) == 0 && !S_ISDIR(status.st_mode);
    ::close(fd);
    return isFile;
}

bool removeFile(const std::string& path) { return ::unlink(path.c_str()) == 0; }

void failNthFileWrite(int n) { fileFaults.writesUntilFault = n > 0 ? n : 0; }

} // namespace corvane
