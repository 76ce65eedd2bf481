#include "engine/AlarmCommand.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

namespace {

using namespace std::chrono_literals;

constexpr size_t kMostRunning = 8;
constexpr size_t kMostWaiting = 512;
constexpr auto kLongest = 30s;

// In a process group of its own, and without what this process does to signals and standard input.
// Standard output has the reports, so the command's goes where its errors go.
int spawn(pid_t& process, char* const* arguments, char* const* environment) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, STDERR_FILENO, STDOUT_FILENO);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    const int error =
        posix_spawnp(&process, arguments[0], &files, &attributes, arguments, environment);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return error;
}

}  // namespace

void AlarmCommand::add(const std::string& command, std::vector<std::string> facts) {
    if (waiting_.size() < kMostWaiting)
        waiting_.push_back({command, std::move(facts)});
    else if (!std::exchange(overrun_, true))
        events_.push_back(fmt::format("'{}' is not run for each alarm: {} wait already", command,
                                      waiting_.size()));
}

void AlarmCommand::run(Clock::time_point now) {
    std::erase_if(running_, [&](Process& process) { return hasEnded(process, now); });
    while (!waiting_.empty() && running_.size() < kMostRunning) {
        start(waiting_.front(), now);
        waiting_.pop_front();
    }
    overrun_ = overrun_ && !waiting_.empty();
}

void AlarmCommand::start(const Call& call, Clock::time_point now) {
    std::vector<char*> environment;
    // Of two of one name the first counts: an alarm's program may have started this process.
    for (char** variable = environ; *variable != nullptr; ++variable)
        if (!std::string_view(*variable).starts_with("QXVRTP_"))
            environment.push_back(*variable);
    // The strings are not changed; the interface is older than const.
    for (const std::string& fact : call.facts)
        environment.push_back(const_cast<char*>(fact.c_str()));
    environment.push_back(nullptr);
    char* const arguments[] = {const_cast<char*>(call.command.c_str()), nullptr};
    pid_t process = 0;
    if (const int error = spawn(process, arguments, environment.data()); error != 0)
        events_.push_back(fmt::format("'{}' cannot be run: {}", call.command, strerror(error)));
    else
        running_.push_back({process, now, call.command, false});
}

bool AlarmCommand::hasEnded(Process& process, Clock::time_point now) {
    int status = 0;
    if (waitpid(process.id, &status, WNOHANG) == 0) {
        if (now - process.started > kLongest && !std::exchange(process.killed, true)) {
            events_.push_back(
                fmt::format("'{}' is killed after {} s", process.command, kLongest / 1s));
            kill(-process.id, SIGKILL);
            kill(process.id, SIGKILL);  // it may have left its group
        }
        return false;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
        events_.push_back(
            fmt::format("'{}' failed with code {}", process.command, WEXITSTATUS(status)));
    else if (WIFSIGNALED(status) && !process.killed)
        events_.push_back(
            fmt::format("'{}' was ended by signal {}", process.command, WTERMSIG(status)));
    return true;
}
