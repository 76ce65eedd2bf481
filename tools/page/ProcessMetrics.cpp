#include "page/ProcessMetrics.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace {

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Since the epoch.
double startTime() {
    std::ifstream file("/proc/self/stat");
    std::string text{std::istreambuf_iterator<char>(file), {}};
    text.erase(0, text.rfind(')') + 1);
    // The 22nd field; two are gone.
    size_t place = 0;
    for (int i = 2; i < 22 && place != std::string::npos; ++i)
        place = text.find(' ', place + (i > 2 ? 1 : 0));
    timespec now{}, sinceBoot{};
    clock_gettime(CLOCK_REALTIME, &now);
    clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const auto boot = static_cast<double>(now.tv_sec - sinceBoot.tv_sec) +
                      static_cast<double>(now.tv_nsec - sinceBoot.tv_nsec) / 1e9;
    const double ticks = place == std::string::npos ? 0.0 : std::strtod(&text[place], nullptr);
    return boot + ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

int64_t openFiles() {
    std::error_code error;
    const std::filesystem::directory_iterator files("/proc/self/fd", error);
    return error ? 0 : std::distance(begin(files), end(files));
}

}  // namespace

std::string processPrometheus() {
    rusage usage{};
    rlimit files{};
    getrusage(RUSAGE_SELF, &usage);
    getrlimit(RLIMIT_NOFILE, &files);
    int64_t virtualPages = 0;
    int64_t residentPages = 0;
    std::ifstream("/proc/self/statm") >> virtualPages >> residentPages;
    const int64_t pageBytes = sysconf(_SC_PAGESIZE);
    static const double started = startTime();
    std::string text;
    const auto add = [&text](const char* name, const char* type, const char* help, auto value) {
        text += fmt::format("# HELP process_{0} {2}\n# TYPE process_{0} {1}\nprocess_{0} {3}\n",
                            name, type, help, value);
    };
    add("cpu_seconds_total", "counter", "Time on processors, in the kernel included.",
        seconds(usage.ru_utime) + seconds(usage.ru_stime));
    add("resident_memory_bytes", "gauge", "Memory in use.", residentPages * pageBytes);
    add("virtual_memory_bytes", "gauge", "Address space in use.", virtualPages * pageBytes);
    add("open_fds", "gauge", "File descriptors in use.", openFiles());
    add("max_fds", "gauge", "File descriptors allowed.", files.rlim_cur);
    add("start_time_seconds", "gauge", "When the process began, since the epoch.", started);
    return text;
}
