#include "engine/Collector.h"

#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>

namespace {

using namespace std::chrono_literals;

constexpr size_t kSpaceBytes = size_t{256} * 1024;
constexpr std::chrono::duration<double> kLongestPause = 40ms;
constexpr std::chrono::duration<double> kShortestPause = 1ms;
constexpr double kMostFilled = 0.25;

}  // namespace

Collector::~Collector() {
    if (thread_.joinable())
        thread_.join();
}

void Collector::start() {
    thread_ = std::thread([this] { run(); });
}

void Collector::run() {
    pthread_setname_np(pthread_self(), "collect");
    // The system may wake this thread together with others.
    prctl(PR_SET_TIMERSLACK, std::chrono::nanoseconds(1ms).count());
    std::vector<uint8_t> space(kSpaceBytes);
    for (auto last = Clock::now();;) {
        const auto now = Clock::now();
        bool running = false;
        double filled = 0.0;
        auto due = Clock::time_point::max();
        for (ReceiveChain* const chain : chains_) {
            if (chain->hasEnded())
                continue;
            chain->serve(space, stop_.load());
            running |= !chain->hasEnded();
            filled = std::max(filled, chain->filled());
            due = std::min(due, chain->due());
        }
        if (!running)
            return;
        const std::chrono::duration<double> sinceLast = now - last;
        const auto pause = std::clamp(sinceLast * (kMostFilled / std::max(filled, 1e-9)),
                                      kShortestPause, kLongestPause);
        last = now;
        wait(std::min(due, now + std::chrono::duration_cast<Clock::duration>(pause)));
    }
}

// Until that time, or until there is room in a pipe again.
void Collector::wait(Clock::time_point until) {
    std::vector<pollfd> pipes;
    for (const ReceiveChain* const chain : chains_)
        if (const int pipe = chain->hasEnded() ? -1 : chain->fullPipe(); pipe >= 0)
            pipes.push_back({pipe, POLLOUT, 0});
    const auto left = std::max(until - Clock::now(), Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const timespec timeout{seconds.count(), (left - seconds).count()};
    ppoll(pipes.data(), pipes.size(), &timeout, nullptr);
}
