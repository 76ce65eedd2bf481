#include "engine/SlateInput.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "base/Errors.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kReopen = 1s;
constexpr auto kLookAgain = 40ms;
constexpr size_t kSlice = size_t{64} * 1024;
constexpr int kMostSlices = 64;  // a turn

}  // namespace

void SlateInput::setOnAir(bool onAir) {
    if (std::exchange(onAir_, onAir) == onAir || !onAir)
        return;
    pacer_.reset();
    open(Clock::now());
}

void SlateInput::open(Clock::time_point now) {
    try {
        PacketSource source(path_, true);
        source_.emplace(std::move(source));
        pacer_.reset();
        loops_ = 0;
        begun_ = ready_ = false;
        trouble_ = fmt::format("'{}' has not been read yet", path_);
    } catch (const UsageError&) {
        retry_ = now + kReopen;
        trouble_ = fmt::format("'{}' is no regular file, and cannot be repeated", path_);
    } catch (const Failure& failure) {
        retry_ = now + kReopen;
        trouble_ = failure.what();
    }
}

void SlateInput::close(Clock::time_point now, const std::string& trouble) {
    source_.reset();
    pacer_.reset();
    begun_ = ready_ = false;
    retry_ = now + kReopen;
    trouble_ = trouble;
}

StreamInput::Clock::time_point SlateInput::attend(Clock::time_point now) {
    now_ = now.time_since_epoch();
    if (!source_ && now >= retry_)
        open(now);
    try {
        if (source_ && !begun_)
            begun_ = source_->findFirstPacket();
        if (begun_ && (onAir_ || !ready_))
            play(now);
    } catch (const std::runtime_error& failure) {
        close(now, failure.what());
    }
    return now + kLookAgain;
}

void SlateInput::play(Clock::time_point now) {
    if (!pacer_) {
        ts::Pacer::Options options;
        options.rate_bps = bitrate_bps_;
        pacer_.emplace(source_->packetSize(), ts::InputKind::kFile, options);
        splicer_.cut();
        firstLoop_ = loops_;
    }
    for (int chunks = 0;
         chunks < kMostSlices && pacer_->needsInput(now_) && (onAir_ || !pacer_->rate());
         ++chunks) {
        const auto packets = source_->take(kSlice);
        if (std::exchange(loops_, source_->loops()) != source_->loops())
            splicer_.cut();
        if (!packets.empty())
            pacer_->push(splicer_.join(packets, source_->packetSize()), now_);
        else if (source_->ended())
            return close(now, fmt::format("{} has become empty", source_->name()));
        else if (source_->isDry())
            return;
    }
    ready_ = pacer_->rate().has_value();
    if (!ready_ && (loops_ > firstLoop_ + 1 || !pacer_->needsInput(now_)))
        close(now, fmt::format("{} has no PCRs that tell its rate; give it with --bitrate",
                               source_->name()));
}

size_t SlateInput::receive(std::span<uint8_t> space) {
    return pacer_ && onAir_ ? pacer_->pull(space, now_) : 0;
}

QXV_RTP_Statistics SlateInput::statistics() const {
    QXV_RTP_Statistics statistics{};
    statistics.Size = sizeof statistics;
    statistics.Started = 1;
    statistics.SocketOpen = ready_ ? 1 : 0;
    return statistics;
}
