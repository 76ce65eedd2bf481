#include "base/StopSignal.h"

#include <algorithm>
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
    await(std::chrono::nanoseconds(0));
    return signal_ != 0;
}

void StopSignal::await(std::chrono::nanoseconds time) {
    if (signal_ != 0)
        return;
    const auto rest = std::max(time, std::chrono::nanoseconds(0));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(rest);
    const sigset_t set = stopSignals();
    const timespec wait{.tv_sec = seconds.count(), .tv_nsec = (rest - seconds).count()};
    const int signal = sigtimedwait(&set, nullptr, &wait);
    if (signal > 0)
        signal_ = signal;
}

const char* StopSignal::name() const {
    return signal_ == SIGTERM ? "SIGTERM" : "SIGINT";
}
