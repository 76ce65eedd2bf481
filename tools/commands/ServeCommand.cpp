#include "commands/ServeCommand.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <malloc.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

#include "base/Errors.h"
#include "base/SafeText.h"
#include "base/StandardError.h"
#include "base/StopSignal.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/ConfigCommand.h"
#include "commands/ConfiguredStreams.h"
#include "config/ConfigFile.h"
#include "config/ConfigRules.h"
#include "engine/MonitorChain.h"
#include "engine/Runner.h"
#include "media/SdpFile.h"
#include "page/History.h"
#include "page/Observer.h"
#include "page/Site.h"
#include "page/Snapshot.h"
#include "reports/Hosts.h"

namespace {

using namespace std::chrono_literals;
using Clock = Chain::Clock;

constexpr auto kAddress = "127.0.0.1";
constexpr uint16_t kPort = 9810;
constexpr auto kLookInterval = 1s;

struct Arguments {
    std::vector<std::string> urls;
    std::string config;
    std::string listen;
    std::string names;
};

std::chrono::nanoseconds wallAhead() {
    return std::chrono::system_clock::now().time_since_epoch() - Clock::now().time_since_epoch();
}

// Looks at the hosts and at what the monitors have found, once a second.
class Lookout : public Chain {
  public:
    // All outlive the chain.
    Lookout(const std::vector<std::unique_ptr<MonitorChain>>& monitors, History& history,
            Board& board)
        : monitors_(monitors), observer_(history), board_(board) {}

    std::optional<Clock::time_point> run(Clock::time_point now) override {
        const auto ahead = wallAhead();
        std::vector<StreamFindings> streams;
        for (const auto& chain : monitors_) {
            // The observer tells them by the checks' states.
            chain->takeAlarms();
            streams.emplace_back(FindingsPlace{chain->job().url, chain->job().name,
                                               chain->hasSocket(), now.time_since_epoch(), ahead},
                                 chain->monitor().report());
        }
        const Observer::Seconds wall = now.time_since_epoch() + ahead;
        board_.publish(observer_.look(finder_.look(), std::move(streams), now.time_since_epoch(),
                                      wall.count()));
        return std::chrono::floor<std::chrono::seconds>(now) + kLookInterval;
    }

    void cancel() override {}
    std::string name() const override { return "hosts"; }
    std::string describe(Clock::time_point /*now*/) override { return {}; }
    std::string summary() const override { return {}; }
    std::vector<std::string> warnings() const override { return {}; }
    std::optional<std::string> unfinished() const override { return std::nullopt; }

  private:
    const std::vector<std::unique_ptr<MonitorChain>>& monitors_;
    HostFinder finder_{{}};
    Observer observer_;
    Board& board_;
};

// The monitors. Nothing is told of their progress, which the page shows.
class PageSession {
  public:
    PageSession(StopSignal& stop, Runner& runner) : stop_(stop), runner_(runner) {}

    const std::vector<std::unique_ptr<MonitorChain>>& monitors() const { return monitors_; }

    void acceptReload() { stop_.acceptReload(); }
    bool takeReload() { return stop_.takeReload(); }
    void add(std::unique_ptr<MonitorChain> monitor) {
        runner_.add(*monitor);
        monitors_.push_back(std::move(monitor));
    }
    void remove(const std::vector<size_t>& monitors) {  // the highest first
        for (const size_t i : monitors) {
            runner_.remove(i + 1);
            monitors_.erase(monitors_.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    bool removedHaveEnded() const { return true; }
    void tell(const std::string& text) const { printError(printable("qxvrtp: " + text) + "\n"); }

  private:
    StopSignal& stop_;
    Runner& runner_;  // has the lookout in front of the monitors
    std::vector<std::unique_ptr<MonitorChain>> monitors_;
};

HttpServer::Settings settingsOf(const Arguments& given) {
    const auto wrong = [&] {
        return UsageError(
            fmt::format("--listen: '{}' is no address and port, like 127.0.0.1:9810 or [::1]:9810",
                        given.listen));
    };
    HttpServer::Settings settings{kAddress, kPort, {}};
    std::istringstream names(given.names);
    for (std::string name; std::getline(names, name, ',');)
        settings.names.push_back(name);
    if (given.listen.empty())
        return settings;
    const std::string_view text = given.listen;
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        throw wrong();
    std::string_view address = text.substr(0, colon);
    const std::string_view port = text.substr(colon + 1);
    const bool ipv6 = address.starts_with('[') && address.ends_with(']');
    if (ipv6)
        address = address.substr(1, address.size() - 2);
    settings.address = address;
    in6_addr parsed{};
    const auto [end, error] =
        std::from_chars(port.data(), port.data() + port.size(), settings.port);
    if (error != std::errc() || end != port.data() + port.size() || settings.port == 0 ||
        inet_pton(ipv6 ? AF_INET6 : AF_INET, settings.address.c_str(), &parsed) != 1)
        throw wrong();
    return settings;
}

std::vector<MonitorJob> jobsOf(const Arguments& given) {
    if (!given.config.empty())
        return readMonitorJobs(given.config);
    std::vector<MonitorJob> jobs;
    for (const std::string& url : given.urls) {
        MonitorJob job;
        job.url = streamOf(url);
        jobs.push_back(job);
    }
    checkArguments(jobs);
    return jobs;
}

constexpr auto kHelp =
    "One page for this machine: all hosts with their channels, the streams that are named here or\n"
    "in [[monitor]] entries, what is wrong and since when, and the last hour. Hosts are only\n"
    "looked at, never disturbed; streams are watched as by 'qxvrtp monitor', on sockets of their\n"
    "own. Alarms run no programs and are posted nowhere: that is left to 'qxvrtp monitor'.\n"
    "\n"
    "  /                   the page; its charts need Debian's libjs-dygraphs\n"
    "  /metrics            for Prometheus\n"
    "  /api/v1/...         JSON: state, hosts, streams, history, log, events\n"
    "\n"
    "Anybody who reaches the address can read all of it and change nothing. It is 127.0.0.1,\n"
    "port 9810, unless --listen says otherwise: on that address other machines reach it as well,\n"
    "unencrypted and without a password; a reverse proxy in front of it can add both. Requests\n"
    "for other names than localhost and that address are refused, so that no other site can make\n"
    "a browser read the page; --host adds a name, like that of the proxy.\n"
    "\n"
    "SIGHUP has it read the file of --config again. Ends with SIGINT or SIGTERM, successfully "
    "(0).\n"
    "\n"
    "Examples:\n"
    "  qxvrtp serve rtp://239.1.1.1:5000 rtp://239.1.1.2:5000\n"
    "  qxvrtp serve -c news.toml --host streams.example.org\n";

}  // namespace

void runServe(const HttpServer::Settings& settings, const JobSource<MonitorJob>& jobs) {
    // Each thread would get a heap of its own otherwise.
    mallopt(M_ARENA_MAX, 2);
    StopSignal stop;
    Runner runner(stop);
    SocketMeans means;
    PageSession session(stop, runner);
    History history;
    Board board;
    Lookout lookout(session.monitors(), history, board);
    runner.add(lookout);
    ConfiguredStreams<MonitorJob, MonitorChain, PageSession> streams(
        session, jobs, [&means](const MonitorJob& job) {
            return std::make_unique<MonitorChain>(job, means, std::nullopt);
        });

    const HttpServer server(
        settings, [&](const HttpRequest& request) { return answerFrom(board, history, request); },
        [&](uint64_t& seen) -> std::optional<std::string> {
            const auto snapshot = board.await(seen);
            if (!snapshot)
                return std::nullopt;
            seen = snapshot->number;
            return snapshot->state;
        });
    const bool ipv6 = settings.address.find(':') != std::string::npos;
    fmt::print(stderr, "http://{}{}{}:{}/\n", ipv6 ? "[" : "", settings.address, ipv6 ? "]" : "",
               settings.port);
    runner.run([&] {
        for (const auto& monitor : session.monitors())
            for (const std::string& event : monitor->takeEvents())
                session.tell(monitor->name() + ": " + event);
        return streams.attend();
    });
    board.close();
    for (size_t i = 0; i <= session.monitors().size(); ++i)
        if (runner.failure(i))
            std::rethrow_exception(runner.failure(i));
}

CommandModel serveCommand() {
    CommandModel command("serve", "Show this machine on a page, with metrics and JSON");
    const auto given = std::make_shared<Arguments>();
    command.addArguments("URL", given->urls, "Streams to watch", "URL");
    addConfigOption(command, given->config);
    command.addOption("-l,--listen", given->listen, "ADDRESS:PORT", "127.0.0.1:9810 if not given");
    command.addOption("--host", given->names, "NAME",
                      "Another name by which it is reached, or several, with commas");
    command.footer = kHelp + urlHelp();
    command.action = [given] {
        runServe(settingsOf(*given), {given->config, [given] { return jobsOf(*given); }});
    };
    return command;
}
