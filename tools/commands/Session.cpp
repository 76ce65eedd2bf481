#include "commands/Session.h"

#include <fmt/format.h>
#include <malloc.h>

#include <algorithm>
#include <utility>

#include "base/Errors.h"
#include "reports/StatesJson.h"

namespace {

// What measuring the streams takes is given back soon after, whenever they begin.
constexpr std::chrono::seconds kTrimInterval{5};
constexpr std::chrono::seconds kPublishInterval{1};

std::string message(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return error.what();
    }
}

}  // namespace

Session::~Session() {
    for (const auto& chain : chains_)
        chain->cancel();
}

void Session::add(std::unique_ptr<Chain> chain) {
    chains_.push_back(std::move(chain));
    runner_.add(*chains_.back());
    told_.push_back(false);
}

void Session::remove(const std::vector<size_t>& streams) {
    std::vector<std::unique_ptr<Chain>> removed;
    for (const size_t i : streams) {
        chains_[i]->cancel();
        sumUp(*chains_[i]);
        removed.push_back(std::move(chains_[i]));
        const auto at = static_cast<std::ptrdiff_t>(i);
        chains_.erase(chains_.begin() + at);
        told_.erase(told_.begin() + at);
        runner_.remove(i);
    }
    removed_ =
        std::async(std::launch::async, [chains = std::move(removed)]() mutable { chains.clear(); });
}

bool Session::removedHaveEnded() const {
    return !removed_.valid() ||
           removed_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

void Session::run(const std::string& things, const std::function<bool()>& also) {
    runner_.run([&] {
        attend();
        return also();
    });
    attend();
    conclude(things);
}

void Session::attend() {
    const auto now = Runner::Clock::now();
    if (now >= trimAt_) {
        malloc_trim(0);
        trimAt_ = now + kTrimInterval;
    }
    for (size_t i = 0; i < chains_.size(); ++i) {
        for (const std::string& event : chains_[i]->takeEvents())
            progress_.warn(event);
        if (!runner_.failure(i) || told_[i])
            continue;
        told_[i] = true;
        chains_[i]->cancel();
        if (chains_.size() > 1)
            warn(i, message(runner_.failure(i)));
    }
    if (now >= publishAt_)
        publish(now);
    if (!progress_.due())
        return;
    std::vector<std::string> lines;
    for (size_t i = 0; i < chains_.size(); ++i) {
        Chain& chain = *chains_[i];
        const std::string state = runner_.failure(i) ? "failed"
                                  : runner_.ended(i) ? chain.summary()
                                                     : chain.describe(now);
        lines.push_back(chains_.size() == 1 ? state : fmt::format("{}  {}", chain.name(), state));
    }
    progress_.show(lines);
}

void Session::publish(Runner::Clock::time_point now) {
    publishAt_ = now + kPublishInterval;
    std::vector<StreamState> states;
    for (size_t i = 0; i < chains_.size(); ++i) {
        StreamState state = runner_.ended(i) ? StreamState{} : chains_[i]->state(now);
        if (!state.kind.empty())
            states.push_back(std::move(state));
    }
    publisher_.publish(states);
}

void Session::warn(size_t i, const std::string& text) {
    progress_.warn(fmt::format("{}: {}", chains_[i]->name(), text));
}

std::exception_ptr Session::failure(size_t i) const {
    const auto unfinished = chains_[i]->unfinished();
    if (runner_.ended(i) || !unfinished)
        return runner_.failure(i);
    return std::make_exception_ptr(
        Failure(fmt::format("stopped by {} before {}", stop_.name(), *unfinished)));
}

void Session::sumUp(const Chain& chain) {
    if (const std::string summary = chain.summary(); !summary.empty())
        progress_.summary(summary);
    for (const std::string& warning : chain.warnings())
        progress_.warn(warning);
    if (statistics_)
        fmt::print(stderr, "{}\n", stateText(chain.state(Runner::Clock::now())));
}

void Session::conclude(const std::string& things) {
    size_t failed = 0;
    for (size_t i = 0; i < chains_.size(); ++i) {
        sumUp(*chains_[i]);
        const auto why = failure(i);
        failed += why ? 1 : 0;
        if (why && !told_[i] && chains_.size() > 1)
            warn(i, message(why));
    }
    if (failed > 0 && chains_.size() == 1)
        std::rethrow_exception(failure(0));
    if (failed > 0)
        throw Failure(fmt::format("{} of {} {}", failed, chains_.size(), things));
}
