// Starting another program, following its output and waiting for it.
//
// A program runs with its standard output and error streams connected to the caller: the
// output is handed over line by line as it comes, the end of the error stream is kept. Between
// lines the caller gets control back at least every few milliseconds it asks for, so a window
// can stay responsive and a user can interrupt the program.
//
// The program runs in a process group of its own, so that stopping it reaches the programs it
// starts too, and a Ctrl-C at the terminal reaches only the caller, which decides. It never
// outlives the caller: it is killed when the thread that started it ends, so start programs
// from a thread that lives as long as they may run (the main thread).
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace corvane {

// The directory of the running executable, without a trailing '/'; "" when it is unknown.
std::string executableDirectory();

// The program to run for name: the file of that name beside the running executable when there
// is one, else the first match on the search path (PATH); "" when there is none. A name that
// holds a '/' is a path and is returned as it is.
std::string findProgram(const std::string& name);

// A line of output longer than this is handed over in pieces of this length, so that a program
// that writes without newlines cannot fill the memory.
inline constexpr std::size_t maxOutputLineLength = std::size_t{1} << 20;
// Of the error stream, the last errorOutputKept bytes at least are kept.
inline constexpr std::size_t errorOutputKept = std::size_t{64} << 10;

class ChildProgram {
public:
    ChildProgram() = default;
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;
    // A program still running when its ChildProgram goes away is killed and reaped.
    ~ChildProgram();

    // Starts program with the arguments, each passed as one argument (blanks and all), in the
    // caller's directory and environment. False, with the system's reason in error, when it
    // could not be started (no such file, not executable).
    bool start(const std::string& program, const std::vector<std::string>& arguments,
               std::string& error);

    // Waits at most timeoutMs for the program to write or end, and hands every complete line
    // of its standard output (without the newline) to onLine, a line longer than
    // maxOutputLineLength in pieces of that length. Returns true while the program may still
    // write; false once it has ended and all its output has been handed over (a last line
    // without a newline included).
    bool poll(int timeoutMs, const std::function<void(const std::string&)>& onLine);

    // A descriptor that is ready for reading whenever poll has something to do: output to hand
    // over, a stream closed or the program ended. A caller with an event loop of its own (a
    // QSocketNotifier) watches it and calls poll(0, ...) when it is ready, instead of waiting in
    // poll. It stays the same from start until the ChildProgram goes away; -1 before start.
    // (The end of a program that has closed its streams before ending is seen on Linux 5.3 and
    // later; before, only poll with a timeout notices it.)
    int readyDescriptor() const { return ready_; }

    // Asks the program and its process group to stop (SIGTERM); it may still write before it
    // ends, or ignore the request.
    void interrupt();
    // Stops the program and its process group at once (SIGKILL).
    void kill();

    // After poll has returned false: how the program ended.
    bool exitedNormally() const { return exited_; }
    int exitCode() const { return exitCode_; }   // when exitedNormally()
    int signalNumber() const { return signal_; } // the signal that ended it, otherwise
    // The end of what it wrote to stderr (all of it up to errorOutputKept bytes).
    const std::string& errorOutput() const { return errors_; }

private:
    using LineSink = std::function<void(const std::string&)>;
    std::size_t readStream(int& fd, std::string& buffer);
    void handOverLines(const LineSink& onLine);
    void closeStream(int& fd);
    void signalGroup(int signal);
    void reap(bool wait);

    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    int pidFd_ = -1; // readable once the program has ended
    int ready_ = -1; // an epoll set of out_, err_ and pidFd_
    std::string outBuffer_, errors_;
    std::size_t scanned_ = 0; // outBuffer_ holds no newline before this
    bool ended_ = false;
    bool exited_ = false;
    int exitCode_ = -1;
    int signal_ = 0;
};

} // namespace corvane
