#include "base/StopSignal.h"

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

bool StopSignal::requested() {
    if (signal_ == 0) {
        const timespec noWait{};
        const int signal = sigtimedwait(&signals_, nullptr, &noWait);
        if (signal > 0)
            signal_ = signal;
    }
    return signal_ != 0;
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
