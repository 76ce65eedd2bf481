#include "page/Observer.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>
#include <utility>

#include "media/StreamUrl.h"
#include "page/PageJson.h"
#include "reports/Text.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

constexpr nanoseconds kSilence = 3s;  // the table's rates are a second old
constexpr double kEndedWarns = 300;   // seconds
constexpr double kEndedStays = 3600;
constexpr size_t kMostEnded = 64;
constexpr size_t kMostEvents = 500;

// A process number is used again.
std::string hostKey(const Process& host) {
    return fmt::format("{}-{}", host.pid, host.startTicks);
}

std::string hostTitle(const Process& host) {
    return fmt::format("{} (process {})", host.command, host.pid);
}

PageSubject subjectOf(const Process& host) {
    PageSubject subject;
    subject.pid = host.pid;
    subject.title = hostTitle(host);
    return subject;
}

PageSubject subjectOf(const Host& host, const ChannelState& channel) {
    PageSubject subject = subjectOf(host);
    subject.direction = directionName(channel);
    subject.channel = channel.number;
    subject.title = fmt::format("{}: {} {}, {}", hostTitle(host), subject.direction, channel.number,
                                endpointOf(channel));
    return subject;
}

uint64_t errorsOf(const ts::MonitorReport& report) {
    return report.stream.continuityErrors + report.stream.transportErrors +
           report.stream.sectionErrors + report.stream.syncLosses;
}

}  // namespace

std::string channelSeries(const Host& host, const ChannelState& channel) {
    return fmt::format("{}/{}/{}", hostKey(host), directionName(channel), channel.number);
}

std::string streamSeries(const std::string& name) {
    return "stream/" + name;
}

std::shared_ptr<const Snapshot> Observer::look(Machine machine, std::vector<StreamFindings> streams,
                                               nanoseconds now, double wall) {
    const int64_t second = std::chrono::floor<std::chrono::seconds>(now).count();
    problems_.clear();
    meetHosts(machine, wall);
    for (const Host& host : machine.hosts) {
        judgeChannels(host, hosts_[hostKey(host)], now);
        for (const ChannelState& channel : host.table.channels)
            if (channel.running)
                history_.add(channelSeries(host, channel), second,
                             {.bitrate_bps = static_cast<float>(channel.measured_bps)});
    }
    judgeProcesses(machine.processes, now);
    for (const StreamFindings& stream : streams) {
        judgeStream(stream);
        const ts::MonitorReport& report = stream.report;
        const uint64_t errors = errorsOf(report) + report.delivery.lost;
        const uint64_t before =
            std::exchange(errors_.try_emplace(stream.name(), errors).first->second, errors);
        const auto& factor = report.delivery.delayFactor_ms;
        HistoryPoint point;
        if (report.bitrate_bps)
            point.bitrate_bps = static_cast<float>(*report.bitrate_bps);
        if (factor)
            point.jitter_ms = static_cast<float>(*factor);
        else if (report.reception.rtp)
            point.jitter_ms = static_cast<float>(report.reception.rtp->jitter_ms);
        point.errors = static_cast<float>(errors - std::min(errors, before));
        history_.add(streamSeries(stream.name()), second, point);
    }
    history_.expire(second);
    judgeEnded(wall);
    settle(wall);

    auto snapshot = std::make_shared<Snapshot>();
    snapshot->number = ++looks_;
    snapshot->time = wall;
    snapshot->second = second;
    snapshot->machine = std::move(machine);
    snapshot->streams = std::move(streams);
    snapshot->ended.assign(ended_.begin(), ended_.end());
    snapshot->problems = problems_;
    snapshot->events.assign(events_.begin(), events_.end());
    snapshot->state = stateJson(*snapshot);
    return snapshot;
}

// Those that were there at the first look are no news.
void Observer::meetHosts(const Machine& machine, double wall) {
    std::set<std::string> live;
    for (const Host& host : machine.hosts) {
        const std::string key = hostKey(host);
        live.insert(key);
        const auto [place, isNew] = hosts_.try_emplace(key);
        if (isNew && looks_ > 0)
            tell(wall, "host", subjectOf(host), "Has started");
        place->second.host = host;
    }
    for (auto place = hosts_.begin(); place != hosts_.end();) {
        if (live.contains(place->first)) {
            ++place;
            continue;
        }
        ended_.push_front({std::move(place->second.host), wall});
        place = hosts_.erase(place);
    }
    while (!ended_.empty() &&
           (ended_.size() > kMostEnded || wall - ended_.back().ended > kEndedStays))
        ended_.pop_back();
}

void Observer::judgeChannels(const Host& host, Seen& seen, nanoseconds now) {
    if (!host.table.plausible)
        problems_.push_back({"damaged/" + hostKey(host), false, subjectOf(host),
                             "Its channel table holds what no host writes there"});
    for (const ChannelState& channel : host.table.channels) {
        const std::string series = channelSeries(host, channel);
        if (!channel.running) {
            seen.heard.erase(series);
            continue;
        }
        const auto [heard, isNew] = seen.heard.try_emplace(series, now);
        if (channel.measured_bps > 0)
            heard->second = now;
        const bool silent = now - heard->second >= kSilence;
        if (!silent)
            continue;
        const char* const text = !channel.socketOpen ? "Has no socket"
                                 : channel.send      ? "Sends nothing"
                                                     : "Nothing arrives";
        problems_.push_back({"channel/" + series, !channel.socketOpen || !channel.send,
                             subjectOf(host, channel), text});
    }
}

// Inputs with sockets of their own: the others, and the outputs, are channels.
void Observer::judgeProcesses(const std::vector<StreamProcess>& processes, nanoseconds now) {
    std::map<std::string, nanoseconds> heard;
    for (const StreamProcess& process : processes)
        for (const StreamState& stream : process.states.streams)
            for (const InputState& input : stream.inputs) {
                const auto is = [](InputHealth health) {
                    return [health](const InputState& other) { return other.health == health; };
                };
                const bool hasSocket =
                    input.repair || (stream.kind == "relay" && isStreamUrl(input.url));
                const bool works = is(InputHealth::kOnAir)(input) ||
                                   is(InputHealth::kStandby)(input) || !hasSocket;
                const std::string key =
                    fmt::format("input/{}/{}/{}", hostKey(process), stream.name, input.url);
                const auto before = heard_.find(key);
                const nanoseconds last = works || before == heard_.end() ? now : before->second;
                heard[key] = last;
                if (now - last < kSilence)
                    continue;
                PageSubject subject = subjectOf(process);
                subject.input = input.url;
                subject.title =
                    fmt::format("{}: {} from {}", hostTitle(process), stream.kind, input.url);
                problems_.push_back({key,
                                     std::none_of(stream.inputs.begin(), stream.inputs.end(),
                                                  is(InputHealth::kOnAir)),
                                     subject,
                                     is(InputHealth::kNoSocket)(input)   ? "Has no socket"
                                     : is(InputHealth::kNoSignal)(input) ? "Nothing arrives"
                                                                         : "Is faulty"});
            }
    heard_ = std::move(heard);
}

void Observer::judgeStream(const StreamFindings& stream) {
    PageSubject subject;
    subject.stream = stream.name();
    subject.title = stream.name();
    if (!stream.place.socketOpen)
        problems_.push_back({"socket/" + stream.name(), true, subject, "Has no socket"});
    for (size_t i = 0; i < ts::kChecks; ++i) {
        const ts::CheckState& state = stream.report.checks[i];
        if (!state.raised)
            continue;
        const ts::CheckInfo& check = ts::info(static_cast<ts::Check>(i));
        // How long there had been no signal when the alarm was raised is old by now.
        const bool isTold =
            !state.detail.empty() && static_cast<ts::Check>(i) != ts::Check::kNoSignal;
        problems_.push_back(
            {fmt::format("check/{}/{}", check.name, stream.name()), true, subject,
             fmt::format("{}{}{}", check.text, isTold ? ": " : "", isTold ? state.detail : "")});
    }
}

void Observer::judgeEnded(double wall) {
    for (const EndedHost& ended : ended_)
        if (wall - ended.ended < kEndedWarns)
            problems_.push_back({"ended/" + hostKey(ended.host), false, subjectOf(ended.host),
                                 "Is no longer a host"});
}

// Gives each problem its time, tells of those that have come and gone, and puts them in order.
void Observer::settle(double wall) {
    std::map<std::string, Problem> standing;
    for (Problem& problem : problems_) {
        const auto before = standing_.find(problem.key);
        problem.since = before == standing_.end() ? wall : before->second.since;
        if (before == standing_.end())
            tell(wall, problem.alarm ? "alarm" : "warning", problem.subject, problem.text);
        standing[problem.key] = problem;
    }
    for (const auto& [key, problem] : standing_)
        // That a host has ended remains so.
        if (!standing.contains(key) && !key.starts_with("ended/"))
            tell(wall, "cleared", problem.subject, problem.text);
    standing_ = std::move(standing);
    std::stable_sort(
        problems_.begin(), problems_.end(), [](const Problem& one, const Problem& other) {
            return std::tuple(one.alarm, one.since) > std::tuple(other.alarm, other.since);
        });
}

void Observer::tell(double wall, const char* kind, const PageSubject& subject,
                    const std::string& text) {
    events_.push_back({++told_, wall, kind, subject, text});
    if (events_.size() > kMostEvents)
        events_.pop_front();
}
