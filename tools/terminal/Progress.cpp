#include "terminal/Progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "base/Quantity.h"
#include "base/SafeText.h"
#include "base/StandardError.h"

namespace {

constexpr std::chrono::milliseconds kInterval{250};

// A longer line would wrap, and more lines would scroll: the next ones could not take their place.
winsize terminalSize() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        size = {.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
    return size;
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
            printError("\n");
        printError(cutLines(printable(line), size.ws_col - size_t{1}));
        ++shown_;
    }
}

void Progress::summary(const std::string& line) {
    clear();
    if (terminal_)
        printError(printable(line) + "\n");
}

void Progress::warn(const std::string& line) {
    clear();
    const std::string lost =
        lost_ == 0 ? "" : fmt::format("qxvrtp: {} not shown here\n", counted(lost_, "message"));
    lost_ = printError(fmt::format("{}qxvrtp: {}\n", lost, printable(line))) ? 0 : lost_ + 1;
}

void Progress::clear() {
    if (shown_ > 1)
        printError(fmt::format("\033[{}A", shown_ - 1));
    if (shown_ > 0)
        printError("\r\033[J");
    shown_ = 0;
}
