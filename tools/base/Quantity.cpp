#include "base/Quantity.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <iomanip>
#include <sstream>

namespace {

std::string timeText(const std::tm& parts, const std::string& form) {
    std::ostringstream text;
    text << std::put_time(&parts, form.c_str());
    return text.str();
}

}  // namespace

std::optional<uint64_t> parseQuantity(std::string_view text) {
    double factor = 1.0;
    if (!text.empty()) {
        switch (text.back()) {
            case 'k':
            case 'K':
                factor = 1e3;
                break;
            case 'M':
            case 'm':
                factor = 1e6;
                break;
            case 'G':
            case 'g':
                factor = 1e9;
                break;
            default:
                break;
        }
        if (factor > 1.0)
            text.remove_suffix(1);
    }
    // from_chars would also take a sign, "inf" and "nan".
    if (text.empty() || text.front() < '0' || text.front() > '9')
        return std::nullopt;
    double value = 0.0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
    if (error != std::errc() || stop != end)
        return std::nullopt;
    const double rounded = std::round(value * factor);
    constexpr double kLimit = 9e18;  // below 2^63, where the conversion is still defined
    if (!(rounded < kLimit))
        return std::nullopt;
    return static_cast<uint64_t>(rounded);
}

std::string formatBitrate(uint64_t bitrate_bps) {
    const auto value = static_cast<double>(bitrate_bps);
    return bitrate_bps < 1'000'000 ? fmt::format("{:.1f} kbit/s", value / 1e3)
                                   : fmt::format("{:.3f} Mbit/s", value / 1e6);
}

std::string formatBytes(uint64_t bytes) {
    const auto value = static_cast<double>(bytes);
    if (bytes < 1'000)
        return fmt::format("{} B", bytes);
    if (bytes < 1'000'000)
        return fmt::format("{:.1f} kB", value / 1e3);
    return bytes < 1'000'000'000 ? fmt::format("{:.1f} MB", value / 1e6)
                                 : fmt::format("{:.2f} GB", value / 1e9);
}

std::string formatTime(std::chrono::milliseconds time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time).count();
    if (seconds >= 3600)
        return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
    return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
}

std::string utcTimeText(std::time_t time, const std::string& form) {
    std::tm parts{};
    gmtime_r(&time, &parts);
    return timeText(parts, form);
}

std::string localTimeText(std::time_t time, const std::string& form) {
    std::tm parts{};
    localtime_r(&time, &parts);
    return timeText(parts, form);
}

std::string counted(uint64_t number, std::string_view thing) {
    return fmt::format("{} {}{}", number, thing, number == 1 ? "" : "s");
}
