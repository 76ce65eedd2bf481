#include "page/Site.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "base/FileDescriptor.h"
#include "page/Observer.h"
#include "page/PageFiles.h"
#include "page/PageJson.h"
#include "page/ProcessMetrics.h"
#include "reports/Json.h"
#include "reports/Prometheus.h"

namespace {

constexpr auto kJson = "application/json";
constexpr auto kCharts = "/usr/share/javascript/dygraphs/";
constexpr size_t kChartsBytes = 4 << 20;
constexpr size_t kOverviewPoints = 60;
constexpr size_t kChartPoints = 720;

HttpAnswer missing() {
    return {404, "text/plain", "There is nothing here.\n"};
}

// As large as it may be at most.
std::optional<std::string> fileText(const std::string& path) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    constexpr size_t kStep = 65536;
    for (size_t size = 0; file.get() >= 0 && size <= kChartsBytes;) {
        text.resize(size + kStep);
        const ssize_t count = read(file.get(), text.data() + size, kStep);
        if (count < 0)
            return std::nullopt;
        size += static_cast<size_t>(count);
        text.resize(size);
        if (count == 0)
            return text;
    }
    return std::nullopt;
}

HttpAnswer page(const std::string& path) {
    if (path == "/favicon.ico")
        return {204, "image/x-icon", {}};
    const std::string name = path == "/" ? "index.html" : path.substr(path.find('/') + 1);
    const char* const type = name.ends_with(".js")    ? "text/javascript; charset=utf-8"
                             : name.ends_with(".css") ? "text/css; charset=utf-8"
                                                      : "text/html; charset=utf-8";
    if (const std::string_view own = pageFile(name); own.data() != nullptr)
        return {200, type, std::string(own)};
    std::optional<std::string> text;
    if (name == "dygraph.js" || name == "dygraph.css")
        text = fileText(fmt::format("{}dygraph.min.{}", kCharts, name.substr(name.find('.') + 1)));
    return text ? HttpAnswer{200, type, *text} : missing();
}

using Parameters = std::map<std::string, std::string>;

std::optional<std::string> parameter(const Parameters& parameters, const std::string& name) {
    const auto found = parameters.find(name);
    return found == parameters.end() ? std::nullopt : std::optional(found->second);
}

template <typename Number>
Number number(const Parameters& parameters, const std::string& name, Number fallback) {
    const auto text = parameter(parameters, name);
    if (text)
        std::from_chars(text->data(), text->data() + text->size(), fallback);
    return fallback;
}

const Host* findHost(const Snapshot& snapshot, pid_t pid) {
    for (const Host& host : snapshot.machine.hosts)
        if (host.pid == pid)
            return &host;
    for (const EndedHost& ended : snapshot.ended)
        if (ended.host.pid == pid)
            return &ended.host;
    return nullptr;
}

HttpAnswer historyAnswer(const Snapshot& snapshot, const History& history,
                         const Parameters& parameters) {
    const auto stream = parameter(parameters, "stream");
    const auto direction = parameter(parameters, "direction");
    if (!stream && !direction)
        return {200, kJson,
                allSeriesJson(snapshot, history, number(parameters, "points", kOverviewPoints))};
    std::string series;
    if (stream) {
        series = streamSeries(*stream);
    } else if (const Host* const host = findHost(snapshot, number(parameters, "pid", pid_t{0}))) {
        ChannelState channel;
        channel.send = direction == "send";
        channel.number = number(parameters, "channel", 0U);
        series = channelSeries(*host, channel);
    }
    return {200, kJson,
            seriesJson(snapshot, history, series, number(parameters, "points", kChartPoints))};
}

}  // namespace

HttpAnswer answerFrom(const Board& board, const History& history, const HttpRequest& request) {
    const auto snapshot = board.latest();
    if (!snapshot)
        return {503, "text/plain", "The first look is not over yet.\n"};
    const std::string& path = request.path;
    if (path == "/metrics")
        return {200, "text/plain; version=0.0.4; charset=utf-8",
                statusPrometheus(snapshot->machine, false) + findingsPrometheus(snapshot->streams) +
                    processPrometheus()};
    if (path == "/api/v1/state")
        return {200, kJson, snapshot->state};
    if (path == "/api/v1/hosts")
        return {200, kJson, statusJson(snapshot->machine, false)};
    if (path == "/api/v1/processes")
        return {200, kJson, processesJson(*snapshot)};
    if (path == "/api/v1/streams")
        return {200, kJson, streamsJson(*snapshot, parameter(request.parameters, "stream"))};
    if (path == "/api/v1/history")
        return historyAnswer(*snapshot, history, request.parameters);
    if (path == "/api/v1/log")
        return {200, kJson,
                eventsJson(*snapshot, number(request.parameters, "after", uint64_t{0}))};
    return page(path);
}
