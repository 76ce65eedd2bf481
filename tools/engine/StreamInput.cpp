#include "engine/StreamInput.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/Quantity.h"
#include "engine/SocketInput.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kStartInterval = 1s;
constexpr auto kNoSignal = 1s;  // of silence

double milliseconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

// A receive channel, once the names in the URL are known.
class ChannelInput : public StreamInput {
  public:
    ChannelInput(const StreamUrl& url, ModuleOnDemand& module)
        : url_(url), number_(module.receiveNumber()), module_(module) {}

    Clock::time_point attend(Clock::time_point now) override {
        if (!channel_ && now >= retry_)
            start(now);
        if (channel_ && !channel_->socketIsOpen())
            trouble_ = noSocket(url_).what();
        return Clock::time_point::max();
    }

    std::string trouble() const override { return trouble_; }
    QXV_RTP_Statistics statistics() const override {
        return channel_ ? channel_->statistics() : QXV_RTP_Statistics{};
    }
    bool isRtp() const override { return channel_ && channel_->isRtp(); }
    uint32_t measuredBitrate() const override { return channel_ ? channel_->measuredBitrate() : 0; }
    size_t receive(std::span<uint8_t> space) override {
        return channel_ ? channel_->receive(space) : 0;
    }

  private:
    void start(Clock::time_point now) {
        retry_ = now + kStartInterval;
        try {
            if (const auto url = addresses_.poll(url_))
                channel_.emplace(module_.get(), number_.value(), receiveConfig(*url));
            else
                trouble_ = fmt::format("the address of {} has not been found yet", url_.text);
        } catch (const std::runtime_error& failure) {
            trouble_ = failure.what();
        }
    }

    const StreamUrl url_;
    const ChannelNumber number_;
    ModuleOnDemand& module_;
    LookUp addresses_;
    std::optional<ReceiveChannel> channel_;
    Clock::time_point retry_{};
    std::string trouble_;
};

}  // namespace

std::unique_ptr<StreamInput> makeInput(const std::string& url, ModuleOnDemand& module,
                                       SocketMeans& means) {
    const std::vector<StreamUrl> paths = parsePaths(url);
    if (isRepaired(paths))
        return std::make_unique<SocketInput>(paths, means);
    return std::make_unique<ChannelInput>(paths.front(), module);
}

std::string describeRepairs(const RepairReport& report) {
    std::string text =
        fmt::format("{} lost, {} reordered", report.counts.lost, report.counts.reordered);
    if (report.socketDrops > 0)
        text += fmt::format(", {} dropped by this machine", report.socketDrops);
    if (report.counts.repaired > 0)
        text += fmt::format(", {} restored by FEC", report.counts.repaired);
    for (size_t i = 0; report.paths.size() > 1 && i < report.paths.size(); ++i)
        text += fmt::format("{} {}", i == 0 ? ", paths lost" : "", report.paths[i].path.lost);
    return text;
}

std::vector<std::string> describePaths(const RepairReport& report) {
    std::vector<std::string> lines;
    for (const auto& [url, path, fec] : report.paths) {
        if (report.paths.size() > 1)
            lines.push_back(fmt::format(
                "the path {} brought {}, lost {}, of which others brought {}, and was {:.1f} ms "
                "behind at most",
                url, counted(path.received, "datagram"), path.lost, path.saved,
                milliseconds(path.greatestSkew)));
        if (fec)
            lines.push_back(fmt::format("FEC restored {} of {}, and could not restore {}",
                                        counted(fec->repaired, "datagram"), url, fec->unrepaired));
    }
    return lines;
}

InputState stateOf(const StreamInput& input, const std::string& url,
                   Chain::Clock::duration silence) {
    const QXV_RTP_Statistics statistics = input.statistics();
    InputState state;
    state.url = url;
    state.health = statistics.SocketOpen == 0 ? InputHealth::kNoSocket
                   : silence >= kNoSignal     ? InputHealth::kNoSignal
                                              : InputHealth::kOnAir;
    state.bytes = statistics.Bytes;
    state.bitrate_bps = input.measuredBitrate();
    state.datagramsDropped = statistics.DatagramsDropped;
    const auto repairs = input.repairs();
    if (!repairs)
        return state;
    const ts::RepairCounts& counts = repairs->counts;
    state.datagramsDropped += repairs->socketDrops;
    state.repair = {counts.lost, counts.reordered, counts.duplicates, counts.repaired};
    for (const PathRepair& path : repairs->paths)
        if (repairs->paths.size() > 1)
            state.paths.push_back({path.url, path.path.received, path.path.lost, path.path.saved,
                                   milliseconds(path.path.skew)});
    return state;
}
