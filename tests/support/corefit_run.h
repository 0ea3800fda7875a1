// Runs the corefit executable as the desktop program does: the input path as its one argument.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace corvane::testing {

struct CorefitRun {
    int exitCode = -1;       // -1 when it did not exit normally
    std::string out, errors; // its standard output and standard error
};

// onLine sees every line of the standard output as it arrives, with the engine's process id.
inline CorefitRun runCorefit(const std::string& inputPath, std::vector<std::string> options = {},
                             const std::function<void(const std::string&, pid_t)>& onLine = {}) {
    std::vector<std::string> arguments{CORVANE_BIN_DIR "/corefit"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.push_back(inputPath);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);

    CorefitRun run;
    int out[2], errors[2];
    if (::pipe(out) != 0 || ::pipe(errors) != 0) return run;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errors[1], 2);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addclose(&actions, errors[0]);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(errors[1]);
    if (spawned != 0) {
        run.errors = std::string("cannot start corefit: ") + std::strerror(spawned);
        ::close(out[0]);
        ::close(errors[0]);
        return run;
    }
    auto drain = [](int fd, std::string& into,
                    const std::function<void(const std::string&)>& line) {
        char buffer[4096];
        std::size_t lineStart = into.size();
        for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) != 0;) {
            if (got < 0) {
                if (errno == EINTR) continue;
                break;
            }
            into.append(buffer, static_cast<std::size_t>(got));
            for (std::size_t end; line && (end = into.find('\n', lineStart)) != std::string::npos;
                 lineStart = end + 1)
                line(into.substr(lineStart, end - lineStart));
        }
        ::close(fd);
    };
    drain(out[0], run.out, [&](const std::string& line) {
        if (onLine) onLine(line, pid);
    });
    drain(errors[0], run.errors, {});
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
    return run;
}

} // namespace corvane::testing
