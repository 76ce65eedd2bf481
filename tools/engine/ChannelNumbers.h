// Which of the module's channels a command uses.
#ifndef TOOLS_ENGINE_CHANNELNUMBERS_H
#define TOOLS_ENGINE_CHANNELNUMBERS_H

#include <atomic>
#include <bit>
#include <cstdint>
#include <utility>

#include "QXV_RTP.h"
#include "base/Errors.h"

class ChannelNumbers;

// The number of a channel, which nobody else gets while this object lives.
class ChannelNumber {
  public:
    ChannelNumber(ChannelNumbers& owner, uint32_t value) : owner_(&owner), value_(value) {}
    ChannelNumber(ChannelNumber&& other) noexcept
        : owner_(std::exchange(other.owner_, nullptr)), value_(other.value_) {}
    ChannelNumber(const ChannelNumber&) = delete;
    ChannelNumber& operator=(const ChannelNumber&) = delete;
    ~ChannelNumber();

    uint32_t value() const { return value_; }

  private:
    ChannelNumbers* owner_;
    const uint32_t value_;
};

// Of one direction.
//
// Thread safety: any thread takes a number and gives one back.
class ChannelNumbers {
  public:
    // The lowest that is free. Throws Failure where there is none.
    ChannelNumber take() {
        for (uint32_t used = used_.load();;) {
            const auto lowest = static_cast<uint32_t>(std::countr_one(used));
            if (lowest >= QXV_RTP_CHANNELS)
                throw Failure("all channels are in use");
            if (used_.compare_exchange_weak(used, used | 1U << lowest))
                return {*this, lowest};
        }
    }

  private:
    friend class ChannelNumber;
    std::atomic<uint32_t> used_{0};  // a bit for each
};

inline ChannelNumber::~ChannelNumber() {
    if (owner_ != nullptr)
        owner_->used_.fetch_and(~(1U << value_));
}

#endif
