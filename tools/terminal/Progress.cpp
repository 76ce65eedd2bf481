#include "terminal/Progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

#include "base/SafeText.h"

namespace {

constexpr std::chrono::milliseconds kInterval{250};

// A longer line would wrap, and more lines would scroll: the next ones could not take their place.
winsize terminalSize() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        size = {.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
    return size;
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

void Progress::show(const std::vector<std::string>& lines) {
    if (!terminal_)
        return;
    clear();
    const winsize size = terminalSize();
    for (const std::string& line : lines) {
        if (shown_ == size.ws_row)
            break;
        if (shown_ > 0)
            print("\n");
        print(cutLines(printable(line), size.ws_col - size_t{1}));
        ++shown_;
    }
}

void Progress::summary(const std::string& line) {
    clear();
    if (terminal_)
        print(printable(line) + "\n");
}

void Progress::warn(const std::string& line) {
    clear();
    print(fmt::format("qxvrtp: {}\n", printable(line)));
}

void Progress::clear() {
    if (shown_ > 1)
        print(fmt::format("\033[{}A", shown_ - 1));
    if (shown_ > 0)
        print("\r\033[J");
    shown_ = 0;
}
