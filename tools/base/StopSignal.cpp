#include "base/StopSignal.h"

#include <csignal>
#include <ctime>

namespace {

sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

StopSignal::StopSignal() {
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
}

bool StopSignal::requested() {
    if (signal_ == 0) {
        const sigset_t set = stopSignals();
        const timespec noWait{};
        const int signal = sigtimedwait(&set, nullptr, &noWait);
        if (signal > 0)
            signal_ = signal;
    }
    return signal_ != 0;
}

const char* StopSignal::name() const {
    return signal_ == SIGTERM ? "SIGTERM" : "SIGINT";
}
