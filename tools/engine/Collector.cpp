#include "engine/Collector.h"

#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <utility>

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

void Collector::add(std::shared_ptr<ReceiveChain> chain) {
    const std::lock_guard lock(lock_);
    added_.push_back(std::move(chain));
    if (std::exchange(runs_, true))
        return;
    if (thread_.joinable())
        thread_.join();
    thread_ = std::thread([this] { run(); });
}

// False: there is nothing left to do.
bool Collector::takeAdded() {
    const std::lock_guard lock(lock_);
    for (auto& chain : added_)
        chains_.push_back(std::move(chain));
    added_.clear();
    runs_ = !chains_.empty();
    return runs_;
}

void Collector::run() {
    pthread_setname_np(pthread_self(), "collect");
    // The system may wake this thread together with others.
    prctl(PR_SET_TIMERSLACK, std::chrono::nanoseconds(1ms).count());
    CollectingMeans means{std::vector<uint8_t>(kSpaceBytes), {}};
    for (auto last = Clock::now(); takeAdded();) {
        const auto now = Clock::now();
        double filled = 0.0;
        auto due = Clock::time_point::max();
        for (const auto& chain : chains_) {
            chain->serve(means, stop_.load());
            filled = std::max(filled, chain->filled());
            due = std::min(due, chain->due());
        }
        std::erase_if(chains_, [](const auto& chain) { return chain->hasEnded(); });
        if (chains_.empty())
            continue;
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
    for (const auto& chain : chains_)
        if (const int pipe = chain->fullPipe(); pipe >= 0)
            pipes.push_back({pipe, POLLOUT, 0});
    const auto left = std::max(until - Clock::now(), Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const timespec timeout{seconds.count(), (left - seconds).count()};
    ppoll(pipes.data(), pipes.size(), &timeout, nullptr);
}
