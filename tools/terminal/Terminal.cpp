#include "terminal/Terminal.h"

#include <langinfo.h>
#include <locale.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <thread>

#include "base/Errors.h"

namespace {

constexpr std::string_view kEnter = "\033[?1049h\033[?25l";  // alternate screen, no cursor
constexpr std::string_view kLeave = "\033[?25h\033[?1049l";

bool writeAll(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
        if (count < 0 && errno != EINTR)
            return false;
        text.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
    }
    return true;
}

}  // namespace

Terminal::Terminal() {
    termios settings{};
    if (isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &settings) == 0) {
        before_ = settings;
        settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        settings.c_cc[VSUSP] = settings.c_cc[VQUIT] = _POSIX_VDISABLE;
        tcsetattr(STDIN_FILENO, TCSANOW, &settings);
    }
    keys_ = before_.has_value();
    writeAll(kEnter);
}

Terminal::~Terminal() {
    writeAll(kLeave);
    if (before_)
        tcsetattr(STDIN_FILENO, TCSANOW, &*before_);
}

TerminalSize Terminal::size() const {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {80, 24};
    return {size.ws_col, size.ws_row};
}

void Terminal::show(const std::string& text) {
    // Each line replaces what stood there, so that nothing flickers.
    std::string screen = "\033[H";
    size_t rows = size().rows;
    for (std::string_view rest = text; !rest.empty() && rows > 0; --rows) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        screen.append(line).append("\033[K");
        if (!rest.empty() && rows > 1)
            screen += "\r\n";
    }
    if (!writeAll(screen + "\033[J"))
        throw Failure("the terminal has gone away");
}

char Terminal::key(std::chrono::milliseconds wait) {
    if (!keys_) {
        std::this_thread::sleep_for(wait);
        return '\0';
    }
    pollfd input{STDIN_FILENO, POLLIN, 0};
    char key = '\0';
    if (poll(&input, 1, static_cast<int>(wait.count())) > 0 && read(STDIN_FILENO, &key, 1) != 1)
        keys_ = false;
    return key;
}

bool localeIsUtf8() {
    const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
    if (locale == nullptr)
        return false;
    const bool utf8 = std::strcmp(nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
    freelocale(locale);
    return utf8;
}
