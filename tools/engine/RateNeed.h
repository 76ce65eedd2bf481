// Whether a stream that is made constant needs more than its rate, and what it loses by that.
#ifndef TOOLS_ENGINE_RATENEED_H
#define TOOLS_ENGINE_RATENEED_H

#include <fmt/format.h>

#include <chrono>
#include <optional>
#include <string>

#include "Shaper.h"
#include "base/Quantity.h"
#include "engine/Chain.h"

// A stream that gets busier and busier needs more each time, which is told again, but not for each
// of its pictures.
class RateNeed {
  public:
    using Time = Chain::Clock::time_point;

    std::optional<std::string> tell(const std::string& name, const ts::ShaperStatus& status,
                                    Time now) {
        if (now < again_)
            return std::nullopt;
        auto text = tell(name, status);
        if (text) {
            told_bps_ = status.rateNeeded_bps;
            toldDropped_ = status.dropped;
            again_ = now + std::chrono::seconds(10);
        }
        return text;
    }

    // At the end.
    std::optional<std::string> tell(const std::string& name, const ts::ShaperStatus& status) const {
        if (status.rateNeeded_bps <= told_bps_ && status.dropped <= toldDropped_)
            return std::nullopt;
        const std::string lost =
            status.dropped == 0 ? ""
                                : ", and lost " + counted(status.dropped, "packet") + " by that";
        return fmt::format("{} is late at {}{}; so far, --cbr {} would have done", name,
                           formatBitrate(status.rate_bps), lost, status.rateNeeded_bps);
    }

  private:
    uint32_t told_bps_ = 0;
    uint64_t toldDropped_ = 0;
    Time again_{};
};

#endif
