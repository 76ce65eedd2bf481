#include "commands/MonitorCommand.h"

#include <fmt/format.h>

#include <memory>
#include <utility>

#include "base/Errors.h"
#include "base/SafeText.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/ConfigCommand.h"
#include "commands/ConfiguredStreams.h"
#include "commands/Session.h"
#include "config/ConfigFile.h"
#include "config/ConfigRules.h"
#include "engine/AlarmCommand.h"
#include "engine/MonitorChain.h"
#include "engine/Webhook.h"
#include "media/LineOutput.h"
#include "media/SdpFile.h"
#include "reports/StreamFindings.h"

namespace {

using Clock = Chain::Clock;

struct MonitorOptions {
    std::chrono::milliseconds interval{10000};  // of the lines and the metrics
    bool json = false;
    bool reportAtEnd = true;  // for people, unless there are lines of JSON
    std::string metrics;      // file; empty = none
};

struct Arguments {
    std::vector<std::string> urls;
    std::string duration;
    std::string patience = "3";
    std::string config;
    std::string onAlarm;
    std::string webhook;
    std::string interval;
    MonitorOptions options;
};

constexpr std::chrono::seconds kLastPatience{2};  // in the end, with whoever reads

ts::Time wallAhead() {
    return std::chrono::system_clock::now().time_since_epoch() - Clock::now().time_since_epoch();
}

std::vector<std::string> factsOf(const MonitorChain& chain, const ts::AlarmEvent& event) {
    const ts::CheckInfo& check = ts::info(event.check);
    return {"QXVRTP_URL=" + chain.job().url,
            "QXVRTP_NAME=" + printable(chain.name()),
            fmt::format("QXVRTP_ALARM={}", check.name),
            fmt::format("QXVRTP_NUMBER={}", check.reference),
            fmt::format("QXVRTP_STATE={}", event.raised ? "raised" : "cleared"),
            "QXVRTP_DETAIL=" + printable(event.detail),
            "QXVRTP_TIME=" + isoTime(event.time + wallAhead())};
}

// All chains, and what is made of their findings.
class Watching {
  public:
    Watching(const JobSource<MonitorJob>& jobs, const MonitorOptions& options,
             std::optional<std::chrono::milliseconds> patience)
        : options_(options),
          streams_(session_, jobs,
                   [this, patience](const MonitorJob& job) {
                       return std::make_unique<MonitorChain>(job, means_, patience);
                   }),
          next_(Clock::now() + options.interval) {}

    void run() {
        std::exception_ptr failure;
        try {
            session_.run("streams could not be watched", [this] {
                attend();
                return streams_.attend();
            });
        } catch (const Failure&) {
            failure = std::current_exception();
        }
        report();
        webhook_.finish(kLastPatience);
        for (const std::string& event : webhook_.takeEvents())
            session_.tell(event);
        lines_.finish(kLastPatience);
        if (options_.reportAtEnd && !options_.json)
            for (const MonitorChain* const chain : streams_.chains())
                if (chain->wasOpened())
                    fmt::print("{}\n", findingsText(findingsOf(*chain)));
        if (failure)
            std::rethrow_exception(failure);
    }

  private:
    void attend() {
        const auto now = Clock::now();
        for (MonitorChain* const chain : streams_.chains())
            for (const ts::AlarmEvent& event : chain->takeAlarms())
                tell(*chain, event);
        command_.run(now);
        for (const auto& events : {command_.takeEvents(), webhook_.takeEvents()})
            for (const std::string& event : events)
                session_.tell(event);
        if (now < next_)
            return lines_.flush();
        // Where a report has taken long, those that were due meanwhile are left out.
        next_ += (now - next_) / options_.interval * options_.interval + options_.interval;
        report();
    }

    void tell(const MonitorChain& chain, const ts::AlarmEvent& event) {
        session_.tell(fmt::format("{}: {} {}{}{}", chain.name(), ts::info(event.check).name,
                                  event.raised ? "raised" : "cleared",
                                  event.raised && !event.detail.empty() ? ": " : "",
                                  event.raised ? event.detail : ""));
        if (const std::string& command = chain.job().onAlarm; !command.empty())
            command_.add(command, factsOf(chain, event));
        if (const std::string& url = chain.job().webhook; !url.empty())
            webhook_.add(url, alarmJson({chain.job().url, chain.job().name, chain.hasSocket(),
                                         event.time, wallAhead()},
                                        event));
    }

    void report() {
        std::vector<StreamFindings> streams;
        if (options_.json || !options_.metrics.empty())
            for (const MonitorChain* const chain : streams_.chains())
                streams.push_back(findingsOf(*chain));
        if (options_.json)
            for (const StreamFindings& stream : streams)
                lines_.add(findingsJson(stream, true));
        if (lines_.dropped() > 0 && !std::exchange(droppedIsTold_, true))
            session_.tell("lines are dropped: standard output does not take them");
        if (!options_.metrics.empty())
            writeMetrics(findingsPrometheus(streams));
    }

    void writeMetrics(const std::string& text) {
        try {
            replaceFile(options_.metrics, text);
            if (std::exchange(metricsFail_, false))
                session_.tell(fmt::format("'{}' is written again", options_.metrics));
        } catch (const Failure& failure) {
            if (!std::exchange(metricsFail_, true))
                session_.tell(fmt::format("{}. Trying again.", failure.what()));
        }
    }

    static StreamFindings findingsOf(const MonitorChain& chain) {
        return {{chain.job().url, chain.job().name, chain.hasSocket(),
                 Clock::now().time_since_epoch(), wallAhead()},
                chain.monitor().report()};
    }

    const MonitorOptions options_;
    SocketMeans means_;
    Session session_;
    ConfiguredStreams<MonitorJob, MonitorChain> streams_;
    AlarmCommand command_;
    Webhook webhook_;
    LineOutput lines_;
    Clock::time_point next_;
    bool droppedIsTold_ = false;
    bool metricsFail_ = false;
};

std::vector<MonitorJob> jobsOf(const Arguments& given) {
    std::vector<MonitorJob> jobs;
    if (!given.config.empty())
        jobs = readMonitorJobs(given.config);
    for (const std::string& url : given.urls) {
        MonitorJob job;
        job.url = streamOf(url);
        if (!given.duration.empty())
            job.duration = duration("--duration", given.duration, 0.1, 1e9);
        jobs.push_back(job);
    }
    const std::string webhook = given.webhook.empty() ? "" : webhookOf(given.webhook);
    for (MonitorJob& job : jobs) {
        if (job.onAlarm.empty())
            job.onAlarm = given.onAlarm;
        if (job.webhook.empty())
            job.webhook = webhook;
        if (!job.webhook.empty())
            Webhook::require();
    }
    if (given.config.empty())
        checkArguments(jobs);
    return jobs;
}

constexpr auto kHelp =
    "Looks at every datagram and every packet of up to 64 streams, on sockets of its own: other\n"
    "receivers of a group on this machine get all datagrams as before. It takes no channel and\n"
    "leaves the table of 'status' alone.\n"
    "\n"
    "It reports loss, order and jitter of RTP, a second sender, sizes, TTL and DSCP; delay factor\n"
    "and media loss rate (RFC 4445); the errors of ETSI TR 101 290; bitrates, programmes and "
    "PIDs.\n"
    "Datagrams that this process was too slow to read are counted apart from those that the\n"
    "network has lost.\n"
    "docs/monitoring.md explains each figure.\n"
    "\n"
    "Alarms: an error that lasts raises one, and it is cleared when the error has been absent\n"
    "for a while; a line on standard error tells both. Limits and times are keys of [[monitor]]\n"
    "in a configuration file; see qxvrtp.toml(5).\n"
    "--on-alarm runs a program, without a shell or arguments, for at most 30 seconds, 8 at a\n"
    "time. Its environment has QXVRTP_URL, QXVRTP_NAME, QXVRTP_ALARM (no_signal),\n"
    "QXVRTP_NUMBER (1.1), QXVRTP_STATE (raised or cleared), QXVRTP_DETAIL and QXVRTP_TIME.\n"
    "--webhook posts a JSON object to the URL, by libcurl: machine, name, url, check (no_signal),\n"
    "number (1.1), priority, state (raised or cleared), detail and time. What the server does not\n"
    "take is tried again for 15 seconds, and then dropped. A URL with a secret is better kept in "
    "a\n"
    "configuration file, since all users see the arguments of a process.\n"
    "\n"
    "A socket that cannot be opened is waited for, and so is a stream that does not come; only\n"
    "when there is no socket within --patience of the start is a stream given up (1); with\n"
    "--config, it is tried for ever. At the end, by a signal or after --duration, a report of\n"
    "each stream is printed, but not with --json or --config. Ends successfully (0).\n"
    "\n"
    "Examples:\n"
    "  qxvrtp monitor rtp://239.1.1.1:5000 rtp://239.1.1.2:5000\n"
    "  qxvrtp monitor udp://@:5000 --json --interval 1 | jq .alarms\n"
    "  qxvrtp monitor -c news.toml --metrics /var/lib/prometheus/node-exporter/news.prom\n";

}  // namespace

CommandModel monitorCommand() {
    CommandModel command("monitor", "Watch streams and raise alarms");
    const auto given = std::make_shared<Arguments>();
    command
        .addArguments("URL", given->urls,
                      "Groups to join, or local addresses to listen on (udp://@:5000 = any)", "URL")
        .require();
    command.addOption("-d,--duration", given->duration, "SECONDS",
                      "End after this time; without it, with SIGINT or SIGTERM");
    command.addOption("--patience", given->patience, "SECONDS",
                      "How long to wait for a socket that cannot be opened; 3 if not given");
    addConfigOption(command, given->config);
    command.addFlag("-j,--json", given->options.json,
                    "Print one JSON object, in a line, for each stream and interval");
    command.addOption("--metrics", given->options.metrics, "FILE",
                      "Replace this file with metrics for Prometheus, once an interval");
    command.addOption("-i,--interval", given->interval, "SECONDS", "10 if not given");
    command.addOption("--on-alarm", given->onAlarm, "PROGRAM",
                      "Run this when an alarm is raised or cleared");
    command.addOption("--webhook", given->webhook, "URL",
                      "Post each alarm that is raised or cleared to this web server (http, https)");
    command.footer = kHelp + urlHelp();
    command.action = [given] {
        MonitorOptions options = given->options;
        options.reportAtEnd = given->config.empty();
        if (!given->interval.empty())
            options.interval = duration("--interval", given->interval, 0.1, 1e6);
        const auto patience = duration("--patience", given->patience, 0.0, 1e9);
        // Watches until all have had their duration, or SIGINT or SIGTERM comes.
        Watching({given->config, [given] { return jobsOf(*given); }}, options,
                 given->config.empty() ? std::optional(patience) : std::nullopt)
            .run();
    };
    return command;
}
