#include "platform/process.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace corvane {

namespace {

bool isExecutableFile(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

void closeFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// Output a program writes after it has ended (a child of its own still holding the stream) is
// read up to this much; the rest is dropped rather than waited for.
constexpr std::size_t lateOutputLimit = 1 << 20;

} // namespace

std::string executableDirectory() {
    char buffer[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return "";
    const std::string path(buffer, static_cast<std::size_t>(n));
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string findProgram(const std::string& name) {
    if (name.empty()) return "";
    if (name.find('/') != std::string::npos) return name;
    if (const std::string beside = executableDirectory(); !beside.empty()) {
        const std::string candidate = beside + "/" + name;
        if (isExecutableFile(candidate)) return candidate;
    }
    const char* path = std::getenv("PATH");
    std::string_view rest = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    while (true) {
        const std::size_t colon = rest.find(':');
        const std::string_view part = rest.substr(0, colon); // an empty entry is "."
        std::string candidate(part.empty() ? std::string_view(".") : part);
        candidate.append("/").append(name);
        if (isExecutableFile(candidate)) return candidate;
        if (colon == std::string_view::npos) return "";
        rest.remove_prefix(colon + 1);
    }
}

ChildProgram::~ChildProgram() {
    if (pid_ > 0 && !ended_) {
        signalGroup(SIGKILL);
        reap(true);
    }
    closeFd(out_);
    closeFd(err_);
    closeFd(pidFd_);
    closeFd(ready_);
}

void ChildProgram::closeStream(int& fd) {
    // Taken out of the set first: the set forgets a descriptor only once nothing refers to
    // what it reads any more.
    if (fd >= 0 && ready_ >= 0) ::epoll_ctl(ready_, EPOLL_CTL_DEL, fd, nullptr);
    closeFd(fd);
}

namespace {

// In the child between fork and exec, where only async-signal-safe calls may be made: makes fd
// the descriptor target, open across exec.
bool moveTo(int fd, int target) {
    if (fd == target) return ::fcntl(fd, F_SETFD, 0) == 0;
    return ::dup2(fd, target) == target;
}

// The child's side of start: its own process group, killed with its parent, /dev/null as its
// input and the pipes as its output. Reports errno on the report pipe when it cannot run.
[[noreturn]] void becomeProgram(pid_t parent, const char* program, char* const* argv,
                                const sigset_t& mask, int out, int err, int report) {
    ::setpgid(0, 0);
    int code = ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 ? 0 : errno;
    if (code == 0 && ::getppid() != parent) ::_exit(127); // the caller is gone already
    // Above 2, so that moving one of them cannot overwrite another.
    const int outFd = ::fcntl(out, F_DUPFD_CLOEXEC, 3);
    const int errFd = ::fcntl(err, F_DUPFD_CLOEXEC, 3);
    const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (code == 0 && (outFd < 0 || errFd < 0 || input < 0 || !moveTo(input, 0) ||
                      !moveTo(outFd, 1) || !moveTo(errFd, 2)))
        code = errno;
    ::sigprocmask(SIG_SETMASK, &mask, nullptr);
    if (code == 0) {
        ::execve(program, argv, environ);
        code = errno;
    }
    while (::write(report, &code, sizeof code) < 0 && errno == EINTR) {
    }
    ::_exit(127);
}

} // namespace

bool ChildProgram::start(const std::string& program, const std::vector<std::string>& arguments,
                         std::string& error) {
    int outPipe[2] = {-1, -1}, errPipe[2] = {-1, -1}, reportPipe[2] = {-1, -1};
    if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0 ||
        ::pipe2(reportPipe, O_CLOEXEC) != 0) {
        error = std::strerror(errno);
        for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) closeFd(fd);
        return false;
    }

    // Everything the child needs is made before fork: after it, the child may only make
    // async-signal-safe calls. Signals are held across fork, so that the child runs none of
    // the caller's handlers while it sets itself up.
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t parent = ::getpid();
    sigset_t all, mask;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &mask);
    const pid_t pid = ::fork();
    if (pid == 0)
        becomeProgram(parent, program.c_str(), argv.data(), mask, outPipe[1], errPipe[1],
                      reportPipe[1]);
    const int forkError = errno;
    ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    for (int fd : {outPipe[1], errPipe[1], reportPipe[1]}) ::close(fd);

    int childError = 0;
    if (pid < 0) {
        childError = forkError;
    } else {
        ::setpgid(pid, pid); // as the child does, so that it holds whichever runs first
        ssize_t got;
        while ((got = ::read(reportPipe[0], &childError, sizeof childError)) < 0 &&
               errno == EINTR) {
        }
        if (got != sizeof childError) childError = 0; // closed by exec: the program runs
    }
    ::close(reportPipe[0]);
    if (childError != 0) {
        if (pid > 0) {
            while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
        ::close(outPipe[0]);
        ::close(errPipe[0]);
        error = std::strerror(childError);
        return false;
    }
    pid_ = pid;
    out_ = outPipe[0];
    err_ = errPipe[0];
    pidFd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); // close-on-exec; -1 when old
    ready_ = ::epoll_create1(EPOLL_CLOEXEC);
    for (int fd : {out_, err_, pidFd_}) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        if (fd >= 0 && ready_ >= 0) ::epoll_ctl(ready_, EPOLL_CTL_ADD, fd, &event);
    }
    return true;
}

std::size_t ChildProgram::readStream(int& fd, std::string& buffer) {
    char chunk[65536];
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return 0;
    if (n <= 0) {
        closeStream(fd);
        return 0;
    }
    buffer.append(chunk, static_cast<std::size_t>(n));
    return static_cast<std::size_t>(n);
}

void ChildProgram::handOverLines(const LineSink& onLine) {
    // Each byte is looked at once: the search goes on from scanned_, and what has been handed
    // over is cut off the front once per call.
    std::size_t start = 0;
    std::size_t from = scanned_;
    while (true) {
        const std::size_t limit = std::min(outBuffer_.size(), start + maxOutputLineLength + 1);
        const void* found =
            from < limit ? std::memchr(outBuffer_.data() + from, '\n', limit - from) : nullptr;
        std::string line;
        if (found != nullptr) {
            const std::size_t newline =
                static_cast<std::size_t>(static_cast<const char*>(found) - outBuffer_.data());
            line.assign(outBuffer_, start, newline - start);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            start = from = newline + 1;
        } else if (outBuffer_.size() - start > maxOutputLineLength) {
            line.assign(outBuffer_, start, maxOutputLineLength);
            start = from = start + maxOutputLineLength;
        } else {
            from = outBuffer_.size();
            break;
        }
        onLine(line);
    }
    outBuffer_.erase(0, start);
    scanned_ = from - start;
}

void ChildProgram::reap(bool wait) {
    int status = 0;
    pid_t got;
    do got = ::waitpid(pid_, &status, wait ? 0 : WNOHANG);
    while (got < 0 && errno == EINTR);
    if (got == 0) return;
    ended_ = true;
    if (got < 0) return; // not our child any more; nothing to learn
    exited_ = WIFEXITED(status);
    exitCode_ = exited_ ? WEXITSTATUS(status) : -1;
    signal_ = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

bool ChildProgram::poll(int timeoutMs, const LineSink& onLine) {
    if (pid_ <= 0) return false;
    const auto readErrors = [this] {
        const std::size_t got = readStream(err_, errors_);
        if (errors_.size() > 2 * errorOutputKept)
            errors_.erase(0, errors_.size() - errorOutputKept);
        return got;
    };
    if (out_ >= 0 || err_ >= 0 || pidFd_ >= 0) {
        // A negative descriptor is left out by poll.
        pollfd fds[3] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}, {pidFd_, POLLIN, 0}};
        const int ready = ::poll(fds, 3, timeoutMs);
        if (ready > 0) {
            if (fds[0].revents != 0 && readStream(out_, outBuffer_) > 0) handOverLines(onLine);
            if (fds[1].revents != 0) readErrors();
        }
    } else if (!ended_) {
        ::poll(nullptr, 0, std::min(timeoutMs, 10));
    }
    if (!ended_) reap(false);
    if (!ended_) return true;

    // Ended: take what is still in the streams without waiting for more.
    std::size_t late = 0;
    for (int* fd : {&out_, &err_}) {
        while (*fd >= 0 && late < lateOutputLimit) {
            pollfd one{*fd, POLLIN, 0};
            if (::poll(&one, 1, 0) <= 0) break;
            const std::size_t got = fd == &out_ ? readStream(out_, outBuffer_) : readErrors();
            if (got == 0) break;
            late += got;
            if (fd == &out_) handOverLines(onLine);
        }
        closeStream(*fd);
    }
    closeStream(pidFd_);
    if (!outBuffer_.empty()) {
        onLine(outBuffer_);
        outBuffer_.clear();
    }
    scanned_ = 0;
    return false;
}

void ChildProgram::signalGroup(int signal) {
    // The group has the program's number, which stays taken until the program is reaped; a
    // program that has left its group is reached on its own.
    if (pid_ <= 0 || ended_) return;
    if (::kill(-pid_, signal) != 0 || ::getpgid(pid_) != pid_) ::kill(pid_, signal);
}

void ChildProgram::interrupt() { signalGroup(SIGTERM); }

void ChildProgram::kill() { signalGroup(SIGKILL); }

} // namespace corvane
