#include "qpname/qpname.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace corvane {

namespace {

// A stored name longer than this is not a name this store wrote: it is not read.
constexpr std::size_t maxStoredBytes = std::size_t{1} << 20;

bool isDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The value of an environment variable that holds an absolute path; "" otherwise, as the XDG
// base directory rules ask.
std::string absoluteFromEnvironment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && value[0] == '/' ? value : "";
}

std::string homeDirectory() {
    if (std::string home = absoluteFromEnvironment("HOME"); !home.empty()) return home;
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr && found->pw_dir[0] == '/')
        return found->pw_dir;
    return "";
}

std::string errorText(int error) { return std::strerror(error); }

// Makes directory and the folders above it that are missing, each readable by its owner only.
bool makeDirectories(const std::string& directory, std::string& error) {
    if (isDirectory(directory)) return true;
    const std::size_t slash = directory.rfind('/');
    if (slash != std::string::npos && slash > 0 &&
        !makeDirectories(directory.substr(0, slash), error))
        return false;
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        error = "cannot make " + directory + ": " + errorText(errno);
        return false;
    }
    return true;
}

bool writeAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

} // namespace

std::string qpnameStorePath() {
    if (const std::string runtime = absoluteFromEnvironment("XDG_RUNTIME_DIR");
        !runtime.empty() && isDirectory(runtime))
        return runtime + "/corvane-qpname";
    std::string cache = absoluteFromEnvironment("XDG_CACHE_HOME");
    if (cache.empty()) {
        const std::string home = homeDirectory();
        if (home.empty()) return "";
        cache = home + "/.cache";
    }
    return cache + "/corvane/qpname";
}

bool set_qpname(const std::string& name, std::string& error) {
    const std::string path = qpnameStorePath();
    if (path.empty()) {
        error = "there is neither a runtime directory nor a home directory to keep the name in";
        return false;
    }
    const std::string directory = path.substr(0, path.rfind('/'));
    if (!makeDirectories(directory, error)) return false;
    std::string temporary = directory + "/.corvane-qpname-XXXXXX";
    const int fd = ::mkstemp(temporary.data()); // made readable and writable by its owner only
    if (fd < 0) {
        error = "cannot write in " + directory + ": " + errorText(errno);
        return false;
    }
    const bool written = writeAll(fd, name) && ::fsync(fd) == 0;
    const int writeError = errno;
    if (::close(fd) != 0 || !written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = "cannot write " + path + ": " + errorText(written ? errno : writeError);
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

std::string get_qpname() {
    const std::string path = qpnameStorePath();
    const int fd = path.empty() ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    std::string name;
    char buffer[4096];
    while (name.size() <= maxStoredBytes) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        name.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return name.size() <= maxStoredBytes ? name : "";
}

void clear_qpname() {
    const std::string path = qpnameStorePath();
    if (!path.empty()) ::unlink(path.c_str());
}

} // namespace corvane
