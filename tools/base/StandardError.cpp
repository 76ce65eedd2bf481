#include "base/StandardError.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

// A pipe that poll() calls writable takes PIPE_BUF bytes at once (pipe(7)).
bool printError(std::string_view text, std::chrono::milliseconds patience) {
    pollfd error{STDERR_FILENO, POLLOUT, 0};
    while (!text.empty()) {
        if (poll(&error, 1, static_cast<int>(patience.count())) != 1)
            return false;
        const ssize_t count =
            write(STDERR_FILENO, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        if (count < 0 && errno != EINTR)
            return false;
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
    return true;
}
