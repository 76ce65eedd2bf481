#include "base/StopSignal.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>

StopSignal::StopSignal(std::initializer_list<int> further) {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    for (const int signal : further) {
        // A signal that is ignored comes all the same once it is blocked.
        struct sigaction now {};
        if (sigaction(signal, nullptr, &now) == 0 && now.sa_handler != SIG_IGN)
            sigaddset(&signals_, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
}

void StopSignal::acceptReload() {
    reloads_ = true;
    hasTerminal_ = isatty(STDERR_FILENO) == 1;
    sigaddset(&signals_, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
}

bool StopSignal::takeReload() {
    return reload_.exchange(false);
}

bool StopSignal::requested() {
    await(std::chrono::nanoseconds(0));
    return signal_ != 0;
}

void StopSignal::await(std::chrono::nanoseconds time) {
    if (signal_ != 0)
        return;
    const auto rest = std::max(time, std::chrono::nanoseconds(0));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(rest);
    const timespec wait{.tv_sec = seconds.count(), .tv_nsec = (rest - seconds).count()};
    const int signal = sigtimedwait(&signals_, nullptr, &wait);
    if (signal == SIGHUP && reloads_ && !(hasTerminal_ && isatty(STDERR_FILENO) != 1))
        reload_ = true;
    else if (signal > 0)
        signal_ = signal;
}

const char* StopSignal::name() const {
    switch (signal_) {
        case SIGTERM:
            return "SIGTERM";
        case SIGHUP:
            return "SIGHUP";
        case SIGQUIT:
            return "SIGQUIT";
        default:
            return "SIGINT";
    }
}
