#include "qpname/qpname.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace corvane {

namespace {

// A stored name longer than this is not a name this store wrote: it is not read.
constexpr std::size_t maxStoredBytes = std::size_t{1} << 20;
constexpr std::size_t tokenBytes = 16;

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

bool isDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

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

// Closes its descriptor when it goes.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    void reset(int fd) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    int get() const { return fd_; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

// Opens path as a directory that only the user can write in: the user's, and not writable by
// group or others, so that nothing in it was put there by anyone else. -1, with the reason in
// error (and errno kept), otherwise.
int openPrivateDirectory(const std::string& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int openError = errno;
        error = "cannot open " + path + ": " + errorText(openError);
        errno = openError;
        return -1;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0)
        error = "cannot examine " + path + ": " + errorText(errno);
    else if (info.st_uid != ::getuid())
        error = path + " belongs to another user";
    else if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        error = path + " can be written by others than its owner";
    else
        return fd;
    ::close(fd);
    errno = EACCES;
    return -1;
}

// Where the store keeps its files: the directory, open, and how the files' names begin.
struct Store {
    std::string directory;
    std::string prefix;
    Descriptor fd;
    bool missing = false; // the cache folder is not there (yet)

    std::string fileName(const std::string& token) const { return prefix + token; }
};

// Opens the store's directory: the runtime directory when it is private to the user, else the
// folder in the user's cache, made (private) when create is set. False, with the reason in
// error, when there is no directory fit for the store.
bool openStore(Store& store, bool create, std::string& error) {
    if (const std::string runtime = absoluteFromEnvironment("XDG_RUNTIME_DIR"); !runtime.empty()) {
        std::string unfit;
        store.fd.reset(openPrivateDirectory(runtime, unfit));
        if (store.fd.get() >= 0) {
            store.directory = runtime;
            store.prefix = "corvane-qpname-";
            return true;
        }
    }
    std::string cache = absoluteFromEnvironment("XDG_CACHE_HOME");
    if (cache.empty()) {
        const std::string home = homeDirectory();
        if (home.empty()) {
            error = "there is neither a runtime directory nor a home directory to keep the name in";
            return false;
        }
        cache = home + "/.cache";
    }
    store.directory = cache + "/corvane";
    store.prefix = "qpname-";
    if (create && !makeDirectories(store.directory, error)) return false;
    store.fd.reset(openPrivateDirectory(store.directory, error));
    store.missing = store.fd.get() < 0 && errno == ENOENT;
    return store.fd.get() >= 0;
}

// Hexadecimal digits of bytes from the system's random source; when it has none, of the
// process id and the clocks, which differ between the runs that may meet in one store.
std::string randomHex(std::size_t byteCount) {
    std::vector<unsigned char> bytes(byteCount);
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::getrandom(bytes.data() + done, bytes.size() - done, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    if (done < bytes.size()) {
        static std::atomic<std::uint64_t> calls{0};
        const auto wall = std::chrono::system_clock::now().time_since_epoch().count();
        const auto steady = std::chrono::steady_clock::now().time_since_epoch().count();
        std::uint64_t state = (static_cast<std::uint64_t>(::getpid()) << 40) ^
                              static_cast<std::uint64_t>(wall) ^
                              (static_cast<std::uint64_t>(steady) << 1) ^
                              (++calls * 0xBF58476D1CE4E5B9u);
        for (unsigned char& byte : bytes) { // splitmix64
            state += 0x9E3779B97F4A7C15u;
            std::uint64_t z = state;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
            byte = static_cast<unsigned char>(z ^ (z >> 31));
        }
    }
    static constexpr char digits[] = "0123456789abcdef";
    std::string hex;
    for (const unsigned char byte : bytes) {
        hex += digits[byte >> 4];
        hex += digits[byte & 15];
    }
    return hex;
}

} // namespace

std::string newQpnameToken() { return randomHex(tokenBytes); }

bool isQpnameToken(const std::string& token) {
    if (token.size() != 2 * tokenBytes) return false;
    for (const char c : token)
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    return true;
}

std::string qpnameStorePath(const std::string& token) {
    if (!isQpnameToken(token)) return "";
    Store store;
    std::string error;
    if (!openStore(store, false, error) && !store.missing) return "";
    return store.directory + "/" + store.fileName(token);
}

bool set_qpname(const std::string& token, const std::string& name, std::string& error) {
    if (token.empty()) return true; // started by hand: no window waits for the name
    if (!isQpnameToken(token)) {
        error = "\"" + token + "\" is not a name store token";
        return false;
    }
    Store store;
    if (!openStore(store, true, error)) return false;
    const std::string path = store.directory + "/" + store.fileName(token);

    // The temporary file, made new (never one found there) and readable by its owner only.
    std::string temporary;
    Descriptor fd;
    for (int attempt = 0; fd.get() < 0 && attempt < 100; ++attempt) {
        temporary = ".corvane-qpname-" + randomHex(6);
        fd.reset(::openat(store.fd.get(), temporary.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (fd.get() < 0 && errno != EEXIST) break;
    }
    if (fd.get() < 0) {
        error = "cannot write in " + store.directory + ": " + errorText(errno);
        return false;
    }
    const bool written = writeAll(fd.get(), name) && ::fsync(fd.get()) == 0;
    const int writeError = errno;
    const int closed = ::close(fd.release());
    if (closed != 0 || !written ||
        ::renameat(store.fd.get(), temporary.c_str(), store.fd.get(),
                   store.fileName(token).c_str()) != 0) {
        error = "cannot write " + path + ": " + errorText(written ? errno : writeError);
        ::unlinkat(store.fd.get(), temporary.c_str(), 0);
        return false;
    }
    return true;
}

std::string get_qpname(const std::string& token) {
    if (!isQpnameToken(token)) return "";
    Store store;
    std::string error;
    if (!openStore(store, false, error)) return "";
    // Not through a symbolic link, and without waiting for a writer when a pipe is found.
    const Descriptor fd(::openat(store.fd.get(), store.fileName(token).c_str(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd.get() < 0) return "";
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::getuid() ||
        static_cast<std::uint64_t>(info.st_size) > maxStoredBytes)
        return "";
    std::string name;
    char buffer[4096];
    while (name.size() <= maxStoredBytes) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return "";
        if (n == 0) break;
        name.append(buffer, static_cast<std::size_t>(n));
    }
    return name.size() <= maxStoredBytes ? name : "";
}

void clear_qpname(const std::string& token) {
    if (!isQpnameToken(token)) return;
    Store store;
    std::string error;
    if (openStore(store, false, error)) ::unlinkat(store.fd.get(), store.fileName(token).c_str(), 0);
}

} // namespace corvane
