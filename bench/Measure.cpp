#include "Measure.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

constexpr unsigned kLifetime_s = 180;  // of a child whose parent hangs

// The number behind "name:" in one of the kernel's tables of a process.
double field(const std::filesystem::path& file, const std::string& name) {
    std::ifstream table(file);
    for (std::string line; std::getline(table, line);)
        if (line.starts_with(name + ":"))
            return std::stod(line.substr(name.size() + 1));
    return 0.0;
}

Meter::Usage sumUp(const Children& children) {
    Meter::Usage usage{static_cast<double>(now_ns()) * 1e-9, 0.0, 0.0};
    for (const Child& child : children) {
        // The process's own clock has no tick: it counts what the scheduler counts.
        clockid_t clock;
        if (clock_getcpuclockid(child.pid(), &clock) != 0)
            throw Failure("a measured process has ended early");
        usage.cpu_s += static_cast<double>(now_ns(clock)) * 1e-9;
        const std::filesystem::path tasks = "/proc/" + std::to_string(child.pid()) + "/task";
        for (const auto& task : std::filesystem::directory_iterator(tasks))
            usage.wakeups += field(task.path() / "status", "voluntary_ctxt_switches");
    }
    return usage;
}

}  // namespace

void pinTo(Place place) {
    const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    if (processors < 2 || place == Place::Anywhere)
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    if (place == Place::Traffic)
        CPU_SET(0, &set);
    else
        for (long processor = 1; processor < processors; ++processor)
            CPU_SET(static_cast<size_t>(processor), &set);
    sched_setaffinity(0, sizeof(set), &set);
}

Child Child::fork(Place place, const std::function<void()>& routine) {
    const pid_t parent = getpid();
    const pid_t pid = ::fork();
    if (pid < 0)
        throw Failure(std::string("fork: ") + strerror(errno));
    if (pid > 0)
        return Child(pid);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The parent may have ended before the line above.
    if (getppid() != parent)
        _exit(1);
    alarm(kLifetime_s);
    pinTo(place);
    try {
        routine();
    } catch (const std::exception& error) {
        const std::string text = std::string("qxvrtp-bench: ") + error.what() + "\n";
        [[maybe_unused]] const ssize_t size = write(STDERR_FILENO, text.data(), text.size());
        _exit(1);
    }
    _exit(0);
}

Child Child::execute(Place place, const std::vector<std::string>& arguments) {
    return fork(place, [&arguments] {
        const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            dup2(null, stream);
        std::vector<char*> argv;
        argv.reserve(arguments.size() + 1);
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    });
}

Child::~Child() {
    if (pid_ == 0)
        return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

bool Child::running() {
    if (pid_ != 0 && waitpid(pid_, nullptr, WNOHANG) == pid_)
        pid_ = 0;
    return pid_ != 0;
}

bool Child::join(double seconds) {
    return waitFor(seconds, [this] { return !running(); });
}

Meter::Meter(const Children& children) : children_(children), before_(sumUp(children)) {}

Meter::Usage Meter::read() const {
    const Usage now = sumUp(children_);
    return {now.elapsed_s - before_.elapsed_s, now.cpu_s - before_.cpu_s,
            now.wakeups - before_.wakeups};
}

double memoryOf(pid_t pid, const std::string& measure) {
    return field("/proc/" + std::to_string(pid) + "/smaps_rollup", measure);
}

int64_t now_ns(clockid_t clock) {
    timespec time;
    clock_gettime(clock, &time);
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

void sleepFor(double seconds) {
    const auto nanoseconds = static_cast<int64_t>(seconds * 1e9);
    timespec time{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
    while (nanosleep(&time, &time) != 0 && errno == EINTR) {
    }
}

bool waitFor(double seconds, const std::function<bool()>& condition) {
    const int64_t deadline = now_ns() + static_cast<int64_t>(seconds * 1e9);
    while (!condition()) {
        if (now_ns() > deadline)
            return false;
        sleepFor(0.01);
    }
    return true;
}

double percentile(std::vector<double> values, double percent) {
    if (values.empty())
        return 0.0;
    const auto last = static_cast<double>(values.size() - 1);
    const auto nth = values.begin() + std::lround(last * percent / 100.0);
    std::nth_element(values.begin(), nth, values.end());
    return *nth;
}
