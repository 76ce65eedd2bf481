#include "Progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

namespace {

constexpr std::chrono::milliseconds kInterval{250};

// A longer line would wrap, and the next one could not take its place.
size_t terminalWidth() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return 80;
    return size.ws_col;
}

// A terminal that has gone away is no reason to stop.
void print(const std::string& text) {
    static_cast<void>(std::fputs(text.c_str(), stderr));
}

}  // namespace

Progress::Progress() : terminal_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    clear();
}

std::chrono::milliseconds Progress::elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_);
}

bool Progress::due() {
    if (!terminal_ || Clock::now() < next_)
        return false;
    next_ = Clock::now() + kInterval;
    return true;
}

void Progress::show(const std::string& line) {
    if (!terminal_)
        return;
    print(fmt::format("\r\033[K{}", line.substr(0, terminalWidth() - 1)));
    shown_ = true;
}

void Progress::summary(const std::string& line) {
    clear();
    if (terminal_)
        print(line + "\n");
}

void Progress::clear() {
    if (shown_)
        print("\r\033[K");
    shown_ = false;
}

std::string formatTime(std::chrono::milliseconds time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time).count();
    if (seconds >= 3600)
        return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
    return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
}
