#include "commands/ReceiveStatistics.h"

#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

#include "base/Quantity.h"
#include "terminal/Progress.h"

uint64_t ReceiveStatistics::bitrate_bps() const {
    if (dataSeconds <= 0.0)
        return 0;
    return static_cast<uint64_t>(std::llround(static_cast<double>(bytes) * 8.0 / dataSeconds));
}

ReceiveStatistics makeStatistics(const ReceiveChain& chain) {
    const auto seconds = [](auto time) {
        return std::round(std::chrono::duration<double>(time).count() * 1e3) / 1e3;
    };
    ReceiveStatistics result;
    result.url = chain.job().url;
    result.output = chain.job().output;
    result.files = chain.output().files();
    result.datagrams = chain.datagrams();
    result.datagramsDropped = chain.datagramsDropped();
    result.bytes = chain.figures().bytes;
    result.packets = chain.packets().packets();
    result.packetSize = chain.packets().packetSize();
    result.continuityErrors = chain.packets().continuityErrors();
    result.syncLosses = chain.packets().syncLosses();
    result.skippedBytes = chain.packets().skippedBytes();
    result.gaps = chain.packets().gaps();
    if (result.datagrams > 0)
        result.rtp = chain.figures().rtp;
    result.seconds = seconds(chain.sinceOpened());
    result.dataSeconds = seconds(chain.withData());
    result.repairs = chain.repairs();
    result.error = chain.error();
    return result;
}

std::string describeSkipped(const ReceiveStatistics& statistics) {
    return fmt::format("{}: skipped {} bytes ({}) that are not TS packets", statistics.url,
                       statistics.skippedBytes, counted(statistics.gaps, "gap"));
}

std::string describe(const ReceiveStatistics& statistics) {
    const auto time = std::chrono::milliseconds(std::llround(statistics.seconds * 1e3));
    return fmt::format(
        "received {} in {} from {} ({}): {}, {}, {}, sync lost {}{}", formatBytes(statistics.bytes),
        formatTime(time), statistics.url, statistics.rtp.value_or(false) ? "rtp" : "raw",
        formatBitrate(statistics.bitrate_bps()), counted(statistics.datagrams, "datagram"),
        counted(statistics.continuityErrors, "continuity error"),
        counted(statistics.syncLosses, "time"),
        statistics.repairs ? ", " + describeRepairs(*statistics.repairs) : "");
}

namespace {

double milliseconds(std::chrono::nanoseconds time) {
    return std::round(std::chrono::duration<double, std::milli>(time).count() * 1e3) / 1e3;
}

nlohmann::ordered_json toJson(const std::optional<RepairReport>& repairs) {
    if (!repairs)
        return nullptr;
    auto paths = nlohmann::ordered_json::array();
    for (const auto& [url, path, fec] : repairs->paths) {
        paths.push_back({{"url", url},
                         {"datagrams", path.received},
                         {"lost", path.lost},
                         {"lost_here_only", path.saved},
                         {"longest_skew_ms", milliseconds(path.greatestSkew)},
                         {"fec", nullptr}});
        if (fec)
            paths.back()["fec"] = {{"datagrams", fec->received},
                                   {"strange", fec->strange},
                                   {"restored", fec->repaired},
                                   {"not_restored", fec->unrepaired}};
    }
    const ts::RepairCounts& counts = repairs->counts;
    return {{"window_ms", milliseconds(repairs->window)},
            {"lost", counts.lost},
            {"reordered", counts.reordered},
            {"restored", counts.repaired},
            {"duplicates", counts.duplicates},
            {"late", counts.late},
            {"strays", counts.strays},
            {"restarts", counts.restarts + counts.ssrcChanges},
            {"socket_drops", repairs->socketDrops},
            {"paths", std::move(paths)}};
}

}  // namespace

std::string toJson(const ReceiveStatistics& statistics) {
    const auto text = [](const std::string& value) {
        return value.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(value);
    };
    const std::string mode = !statistics.rtp ? "" : *statistics.rtp ? "rtp" : "raw";
    const nlohmann::ordered_json object{{"url", statistics.url},
                                        {"output", statistics.output},
                                        {"files", statistics.files},
                                        {"mode", text(mode)},
                                        {"seconds", statistics.seconds},
                                        {"data_seconds", statistics.dataSeconds},
                                        {"datagrams", statistics.datagrams},
                                        {"bytes", statistics.bytes},
                                        {"packets", statistics.packets},
                                        {"packet_size", statistics.packetSize},
                                        {"bitrate_bps", statistics.bitrate_bps()},
                                        {"skipped_bytes", statistics.skippedBytes},
                                        {"gaps", statistics.gaps},
                                        {"datagrams_dropped", statistics.datagramsDropped},
                                        {"repair", toJson(statistics.repairs)},
                                        {"continuity_errors", statistics.continuityErrors},
                                        {"sync_losses", statistics.syncLosses},
                                        {"error", text(statistics.error)}};
    // A name may have bytes that are no UTF-8.
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}
