// Which of several inputs to send on.
#ifndef STREAMS_SELECTOR_H
#define STREAMS_SELECTOR_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "Shaper.h"
#include "StreamHealth.h"

namespace ts {

// The inputs stand in the order in which they are preferred. An input that has no signal is left at
// once for the best other one; one that is ill, for one that has been well for a second. An input
// that is preferred to the one in use is returned to when it has been well for `returnAfter`.
//
// The last one may be a last resort, which is never ill. It is used while no other has a signal,
// and left when one has had it for a second, or for `returnAfter`, where that is shorter.
class Selector {
  public:
    struct Options {
        std::optional<Time> returnAfter = std::chrono::seconds(10);  // none: never
        bool lastResort = false;
    };
    enum class Reason : uint8_t { kBegin, kNoSignal, kIll, kReturn };
    struct Choice {
        std::optional<size_t> before;
        size_t input;
        Reason reason;
    };

    Selector(size_t inputs, const Options& options);

    // To be called for each input, and then choose(), at least every 100 ms. `heard` is when its
    // last packets came: silence takes a while to show, and must not count as calm.
    void note(size_t input, Health health, Time heard);
    // None: nothing changes.
    std::optional<Choice> choose(Time now);

    uint64_t switches() const { return switches_; }  // the beginning not counted

  private:
    struct Input {
        Health health = Health::kNone;
        Time heard{};
        Time signalSince{};  // holds while there is a signal
        Time wellSince{};    // holds while it is well
    };
    int rank(size_t input) const;
    bool isLastResort(size_t input) const {
        return options_.lastResort && input + 1 == inputs_.size();
    }
    std::optional<size_t> best() const;
    std::optional<size_t> wellFor(size_t end, Time time) const;
    std::optional<Choice> begin(Time now);
    Choice use(size_t input, Reason reason);

    const Options options_;
    std::vector<Input> inputs_;
    std::optional<Time> begun_;
    std::optional<size_t> current_;
    uint64_t switches_ = 0;
};

}  // namespace ts

#endif
