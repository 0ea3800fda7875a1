#include "platform/files.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane {

namespace {

int writesUntilFault = 0;

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

// Creates a new, empty temporary file beside path; returns its descriptor (or -1) and name.
int createTemporaryBeside(const std::string& path, std::string& name) {
    static std::atomic<unsigned> counter{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
        name = path + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
        const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    errno = EEXIST;
    return -1;
}

} // namespace

bool readWholeFile(const std::string& path, std::string& contents, std::string& error,
                   std::size_t maxBytes) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        error = systemReason(errno);
        return false;
    }
    contents.clear();
    char buffer[65536];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        if (contents.size() + n > maxBytes) {
            struct stat status {};
            const bool sized = ::fstat(::fileno(file), &status) == 0 && S_ISREG(status.st_mode);
            std::fclose(file);
            contents.clear();
            error =
                sized ? "the file is " + std::to_string(status.st_size) + " bytes, more than the " +
                            std::to_string(maxBytes) + " bytes it may hold"
                      : "it holds more than the " + std::to_string(maxBytes) + " bytes it may hold";
            return false;
        }
        contents.append(buffer, n);
    }
    const bool failed = std::ferror(file) != 0;
    const int code = errno;
    std::fclose(file);
    if (failed) {
        error = systemReason(code);
        return false;
    }
    return true;
}

bool writeWholeFile(const std::string& path, std::string_view contents, std::string& error) {
    std::string temporary;
    const int fd = createTemporaryBeside(path, temporary);
    if (fd < 0) {
        error = systemReason(errno);
        return false;
    }
    bool ok = true;
    if (writesUntilFault > 0 && --writesUntilFault == 0) {
        writeAll(fd, contents.substr(0, contents.size() / 2));
        errno = ENOSPC;
        ok = false;
    } else {
        ok = writeAll(fd, contents) && ::fsync(fd) == 0;
    }
    int code = errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        code = errno;
    }
    if (ok && std::rename(temporary.c_str(), path.c_str()) != 0) {
        ok = false;
        code = errno;
    }
    if (!ok) {
        ::unlink(temporary.c_str());
        error = systemReason(code);
    }
    return ok;
}

bool fileExists(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat status {};
    const bool isFile = ::fstat(fd, &status) == 0 && !S_ISDIR(status.st_mode);
    ::close(fd);
    return isFile;
}

bool removeFile(const std::string& path) { return ::unlink(path.c_str()) == 0; }

void failNthFileWrite(int n) { writesUntilFault = n > 0 ? n : 0; }

} // namespace corvane
