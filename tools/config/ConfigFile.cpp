#include "config/ConfigFile.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <algorithm>
#include <bitset>
#include <cmath>
#include <sstream>
#include <utility>

#include "base/Errors.h"
#include "base/RegularFile.h"
#include "config/ConfigRules.h"
#include "config/MonitorKeys.h"
#include "config/TableReader.h"
#include "media/SdpFile.h"
#include "media/StreamUrl.h"

namespace {

constexpr size_t kLargestFile = size_t{1} << 20;
// The parser takes keys of any depth, "a.b.c", and its stack has an end. No key of ours has a dot.
constexpr size_t kMostDots = 1000;

// Outside of strings and comments; numbers have some.
size_t countDots(std::string_view text) {
    size_t dots = 0;
    char quote = '\0';
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quote == '"' && c == '\\')
            ++i;
        else if (quote != '\0')
            quote = c == quote || c == '\n' ? '\0' : quote;
        else if (c == '"' || c == '\'')
            quote = c;
        else if (c == '#')
            i = std::min(text.find('\n', i), text.size());
        else
            dots += c == '.' ? 1 : 0;
    }
    return dots;
}

class FileReader {
  public:
    explicit FileReader(ConfigProblems& problems) : problems_(problems), rules_(problems) {}

    ServiceConfig read(const toml::table& file) {
        ServiceConfig config;
        TableReader reader(file, "", problems_);
        forEach(reader, "send", [&](TableReader& entry) { config.send.push_back(send(entry)); });
        forEach(reader, "receive",
                [&](TableReader& entry) { config.receive.push_back(receive(entry)); });
        forEach(reader, "relay", [&](TableReader& entry) { config.relay.push_back(relay(entry)); });
        forEach(reader, "monitor",
                [&](TableReader& entry) { config.monitor.push_back(monitor(entry)); });
        reader.complainOfOthers();
        if (file.empty())
            problems_.add({1, 1, ""},
                          "there is no [[send]], [[receive]], [[relay]] or [[monitor]]");
        rules_.finish();
        return config;
    }

  private:
    template <typename Use>
    void forEach(TableReader& file, std::string_view section, Use use) {
        const toml::node* const node = file.find(section);
        if (node == nullptr)
            return;
        const toml::array* const entries = node->as_array();
        if (entries == nullptr) {
            problems_.add(placeOf(node->source(), std::string(section)),
                          fmt::format("entries begin with [[{}]]", section));
            return;
        }
        for (size_t i = 0; i < entries->size(); ++i) {
            const toml::node& entry = *entries->get(i);
            const std::string name = fmt::format("{}[{}]", section, i);
            if (!entry.is_table()) {
                file.expect(entry, name, "a table");
                continue;
            }
            TableReader reader(*entry.as_table(), name, problems_);
            use(reader);
            reader.complainOfOthers();
        }
    }

    // What the parser makes of the text; none where it complains.
    template <typename Parse>
    auto checked(const std::string& text, const ConfigPlace& place, Parse parse)
        -> std::optional<decltype(parse(text))> {
        if (text.empty())
            return std::nullopt;  // complained of already
        try {
            return parse(text);
        } catch (const UsageError& error) {
            problems_.add(place, error.what());
            return std::nullopt;
        }
    }

    // Reads a URL and passes it to `check`, which refuses what is no good for its direction.
    std::optional<StreamUrl> url(const std::string& text, const ConfigPlace& place,
                                 void (*check)(const StreamUrl&)) {
        return checked(text, place, [check](const std::string& given) {
            StreamUrl url = parseStreamUrl(given);
            check(url);
            return url;
        });
    }

    Shaping shaping(TableReader& entry) {
        Shaping shaping;
        const toml::node* const cbr = entry.find("cbr");
        if (cbr != nullptr && cbr->is_boolean())
            shaping.constant = entry.flag("cbr");
        else
            shaping.rate_bps = entry.quantity<uint32_t>("cbr", UINT32_MAX, "true, ");
        shaping.constant = shaping.constant || shaping.rate_bps;
        shaping.delay = entry.seconds("delay", 0.0);
        if (shaping.delay > std::chrono::seconds(1))
            problems_.add(entry.place("delay"), "is 1 second at most");
        shaping.asIs = entry.flag("as_is");
        for (const char* const key : {"as_is", "bitrate"})
            if (shaping.constant && entry.find(key) != nullptr)
                problems_.add(entry.place(key), "excludes 'cbr'");
        return shaping;
    }

    // The URL of a stream to receive, which a file may describe.
    std::string stream(TableReader& entry, const char* key) {
        return stream(entry.text(key), entry.place(key));
    }
    std::string stream(const std::string& text, const ConfigPlace& place) {
        return checked(text, place, streamOf).value_or("");
    }

    Announcing announcing(TableReader& entry, const Destinations& destinations) {
        Announcing announcing{entry.find("sdp") != nullptr ? entry.text("sdp") : "",
                              entry.find("announce") != nullptr ? entry.text("announce") : ""};
        rules_.announceOutput(announcing, destinations,
                              entry.place(announcing.name.empty() ? "sdp" : "announce"));
        return announcing;
    }

    SendJob send(TableReader& entry) {
        SendJob job;
        job.input = entry.text("input");
        job.url = entry.text("url");
        job.bitrate_bps = entry.quantity<uint32_t>("bitrate", UINT32_MAX);
        job.loop = entry.flag("loop");
        job.follow = entry.flag("follow");
        if (job.loop && job.follow)
            problems_.add(entry.place("follow"), "excludes 'loop'");
        job.shaping = shaping(entry);
        job.start = entry.seconds("start", 0.0);
        job.duration = entry.seconds("duration", 0.001);
        rules_.addInput(job.input, entry.place("input"));
        if (job.loop)
            rules_.repeatInput(job.input, entry.place("loop"));
        if (job.follow)
            rules_.followInput(job.input, entry.place("follow"));
        const auto destination = url(job.url, entry.place("url"), checkDestination);
        Destinations destinations;
        destinations.add(destination);
        job.announcing = announcing(entry, destinations);
        if (destination) {
            rules_.addDestination(*destination, entry.place("url"));
            rules_.delayOutput(job.shaping, destination->rtp, job.bitrate_bps,
                               entry.place("delay"));
        }
        return job;
    }

    ReceiveJob receive(TableReader& entry) {
        ReceiveJob job;
        job.url = stream(entry, "url");
        job.output = entry.text("output");
        job.duration = entry.seconds("duration", 0.001);
        job.bytes = entry.quantity<uint64_t>("bytes", INT64_MAX);
        job.idleTimeout = entry.seconds("idle_timeout", 0.001);
        job.rotateBytes = entry.quantity<uint64_t>("rotate_size", INT64_MAX);
        job.rotateTime = entry.seconds("rotate_time", 0.001);
        rules_.addOutput(job.output, entry.place("output"));
        for (const char* const key : {"rotate_size", "rotate_time"})
            if (entry.find(key) != nullptr)
                rules_.rotateOutput(job.output, entry.place(key));
        if (const auto paths = checked(job.url, entry.place("url"), parsePaths))
            rules_.addRecorded(*paths, entry.place("url"));
        return job;
    }

    // One text, or an array of them: a single one needs no brackets.
    template <typename Use>
    static void forEachOf(TableReader& entry, const char* key, Use use) {
        const toml::node* const node = entry.find(key);
        if (const toml::array* const list = node != nullptr ? node->as_array() : nullptr) {
            for (size_t i = 0; i < list->size(); ++i)
                use(*list->get(i), fmt::format("{}[{}]", entry.fieldOf(key), i));
        } else if (node != nullptr) {
            use(*node, entry.fieldOf(key));
        }
    }

    // Adds the other inputs to the relay's sources.
    Failover failover(TableReader& entry, size_t relay) {
        Failover failover;
        std::vector<ConfigPlace> places;
        forEachOf(entry, "or", [&](const toml::node& node, const std::string& field) {
            places.push_back(placeOf(node.source(), field));
            failover.others.push_back(stream(entry.text(node, field), places.back()));
            const std::string& other = failover.others.back();
            if (const auto paths =
                    isStreamUrl(other) ? checked(other, places.back(), parsePaths) : std::nullopt)
                rules_.addSource(*paths, places.back(), relay);
        });
        rules_.failOver(failover, places);
        if (const auto within = entry.seconds("switch", 0.1))
            failover.within = *within;
        const toml::node* const back = entry.find("return");
        if (back != nullptr && back->value_or(std::string_view()) == "never")
            failover.returnAfter.reset();
        else
            failover.returnAfter = entry.seconds("return", 0.0).value_or(*failover.returnAfter);
        for (const char* const key : {"switch", "return"})
            if (failover.others.empty() && entry.find(key) != nullptr)
                problems_.add(entry.place(key), "has no effect without 'or'");
        return failover;
    }

    RelayJob relay(TableReader& entry) {
        RelayJob job;
        job.from = stream(entry, "from");
        const size_t number = rules_.addRelay();
        if (const auto paths = checked(job.from, entry.place("from"), parsePaths))
            rules_.addSource(*paths, entry.place("from"), number);
        job.failover = failover(entry, number);
        Destinations destinations;
        const auto addDestination = [&](const toml::node& node, const std::string& field) {
            job.to.push_back(entry.text(node, field));
            const ConfigPlace place = placeOf(node.source(), field);
            const auto destination = url(job.to.back(), place, checkDestination);
            destinations.add(destination);
            if (destination)
                rules_.addDestination(*destination, place, number);
        };
        forEachOf(entry, "to", addDestination);
        if (job.to.empty())
            problems_.add(entry.place("to"), "at least one URL is needed");
        job.bitrate_bps = entry.quantity<uint32_t>("bitrate", UINT32_MAX);
        job.shaping = shaping(entry);
        rules_.delayOutput(job.shaping, destinations.rtp, job.bitrate_bps, entry.place("delay"));
        job.announcing = announcing(entry, destinations);
        return job;
    }

    MonitorJob monitor(TableReader& entry) {
        MonitorJob job;
        job.url = stream(entry, "url");
        if (entry.find("name") != nullptr)
            job.name = entry.text("name");
        if (entry.find("on_alarm") != nullptr)
            job.onAlarm = entry.text("on_alarm");
        if (entry.find("webhook") != nullptr)
            job.webhook =
                checked(entry.text("webhook"), entry.place("webhook"), webhookOf).value_or("");
        for (const LimitKey& limit : kLimitKeys)
            if (const auto value = entry.number(limit.key, 0.0, "a number of seconds"))
                limit.of(job.limits) = std::chrono::nanoseconds(std::llround(*value * 1e9));
        if (const auto rate = entry.number("loss_rate", 0.0, "a number of packets a second"))
            job.limits.lossRate = *rate;
        job.limits.transport.tablesRequired = entry.flag("tables_required");
        ignore(entry, job.limits.alarms.ignored);
        if (const auto source = url(job.url, entry.place("url"), checkSource))
            rules_.addWatched(*source, job.name, entry.place("url"));
        return job;
    }

    void ignore(TableReader& entry, std::bitset<ts::kChecks>& ignored) {
        const toml::node* const node = entry.find("ignore");
        const toml::array* const list = node != nullptr ? node->as_array() : nullptr;
        if (node != nullptr && list == nullptr)
            entry.expect(*node, entry.fieldOf("ignore"), "an array of strings");
        for (size_t i = 0; list != nullptr && i < list->size(); ++i) {
            const std::string field = fmt::format("{}[{}]", entry.fieldOf("ignore"), i);
            const std::string name = entry.text(*list->get(i), field);
            size_t check = 0;
            while (check < ts::kChecks && name != ts::info(static_cast<ts::Check>(check)).name)
                ++check;
            if (check < ts::kChecks)
                ignored.set(check);
            else if (!name.empty())
                problems_.add(placeOf(list->get(i)->source(), field),
                              fmt::format("there is no check '{}'", name));
        }
    }

    ConfigProblems& problems_;
    ConfigRules rules_;
};

double inSeconds(std::chrono::milliseconds time) {
    return std::chrono::duration<double>(time).count();
}

// Stores what is set.
struct TableWriter {
    toml::table table;

    template <typename Number>
    void number(const char* key, const std::optional<Number>& value) {
        if (value)
            table.insert(key, static_cast<int64_t>(*value));
    }
    void seconds(const char* key, const std::optional<std::chrono::milliseconds>& value) {
        if (value)
            table.insert(key, inSeconds(*value));
    }
    void text(const char* key, const std::string& value) { table.insert(key, value); }
    void shaping(const Shaping& shaping) {
        number("cbr", shaping.rate_bps);
        if (shaping.constant && !shaping.rate_bps)
            table.insert("cbr", true);
        seconds("delay", shaping.delay);
        if (shaping.asIs)
            table.insert("as_is", true);
    }
    void failover(const Failover& failover) {
        const Failover usual;
        toml::array others;
        for (const std::string& other : failover.others)
            others.push_back(isStreamUrl(other) ? fullUrl(parsePaths(other)) : other);
        if (!others.empty())
            table.insert("or", std::move(others));
        if (failover.within != usual.within)
            seconds("switch", failover.within);
        if (!failover.returnAfter)
            text("return", "never");
        else if (failover.returnAfter != usual.returnAfter)
            seconds("return", failover.returnAfter);
    }
    void announcing(const Announcing& announcing) {
        if (!announcing.folder.empty())
            text("sdp", announcing.folder);
        if (!announcing.name.empty())
            text("announce", announcing.name);
    }
    void url(const char* key, const std::string& value, bool destination) {
        table.insert(key, fullUrl(parseStreamUrl(value), destination));
    }
    void paths(const char* key, const std::string& value) {
        table.insert(key, fullUrl(parsePaths(value)));
    }
};

toml::table tableOf(const SendJob& job) {
    TableWriter writer;
    writer.text("input", job.input);
    writer.url("url", job.url, true);
    writer.number("bitrate", job.bitrate_bps);
    writer.shaping(job.shaping);
    writer.announcing(job.announcing);
    writer.table.insert("loop", job.loop);
    if (job.follow)
        writer.table.insert("follow", true);
    writer.seconds("start", job.start);
    writer.seconds("duration", job.duration);
    return std::move(writer.table);
}

toml::table tableOf(const ReceiveJob& job) {
    TableWriter writer;
    writer.paths("url", job.url);
    writer.text("output", job.output);
    writer.seconds("duration", job.duration);
    writer.number("bytes", job.bytes);
    writer.seconds("idle_timeout", job.idleTimeout);
    writer.number("rotate_size", job.rotateBytes);
    writer.seconds("rotate_time", job.rotateTime);
    return std::move(writer.table);
}

toml::table tableOf(const RelayJob& job) {
    TableWriter writer;
    writer.paths("from", job.from);
    writer.failover(job.failover);
    toml::array to;
    for (const std::string& url : job.to)
        to.push_back(fullUrl(parseStreamUrl(url), true));
    writer.table.insert("to", std::move(to));
    writer.number("bitrate", job.bitrate_bps);
    writer.shaping(job.shaping);
    writer.announcing(job.announcing);
    return std::move(writer.table);
}

toml::table tableOf(const MonitorJob& job) {
    TableWriter writer;
    writer.url("url", job.url, false);
    if (!job.name.empty())
        writer.text("name", job.name);
    if (!job.onAlarm.empty())
        writer.text("on_alarm", job.onAlarm);
    if (!job.webhook.empty())
        writer.text("webhook", job.webhook);
    ts::MonitorLimits limits = job.limits;
    ts::MonitorLimits usual;
    for (const LimitKey& limit : kLimitKeys)
        if (limit.of(limits) != limit.of(usual))
            writer.table.insert(limit.key, std::chrono::duration<double>(limit.of(limits)).count());
    if (limits.lossRate != usual.lossRate)
        writer.table.insert("loss_rate", limits.lossRate);
    if (limits.transport.tablesRequired)
        writer.table.insert("tables_required", true);
    toml::array ignored;
    for (size_t check = 0; check < ts::kChecks; ++check)
        if (limits.alarms.ignored[check])
            ignored.push_back(ts::info(static_cast<ts::Check>(check)).name);
    if (!ignored.empty())
        writer.table.insert("ignore", std::move(ignored));
    return std::move(writer.table);
}

template <typename Job>
void store(toml::table& file, const char* section, const std::vector<Job>& jobs, bool evenNone) {
    toml::array entries;
    for (const Job& job : jobs)
        entries.push_back(tableOf(job));
    if (!entries.empty() || evenNone)
        file.insert(section, std::move(entries));
}

template <typename Job>
std::vector<Job> needed(std::vector<Job> jobs, const std::string& file, const char* section) {
    if (jobs.empty())
        throw Failure(fmt::format("'{}' has no [[{}]]", file, section));
    return jobs;
}

}  // namespace

ServiceConfig parseConfig(std::string_view text, const std::string& file) {
    ConfigProblems problems(file);
    ServiceConfig config;
    try {
        if (countDots(text) > kMostDots)
            problems.add({1, 1, ""}, "there are too many dots outside of strings");
        else
            config = FileReader(problems).read(toml::parse(text));
    } catch (const toml::parse_error& error) {
        const std::string_view what = error.description();
        const bool isBare = what.find("could not determine value type") != what.npos;
        problems.add(placeOf(error.source(), ""),
                     std::string(what) +
                         (isBare ? "; texts stand in quotes, and flags are true or false" : ""));
    }
    problems.throwIfAny();
    return config;
}

ServiceConfig readConfig(const std::string& file) {
    const std::string text = readRegularFile(file, kLargestFile + 1);
    if (text.size() > kLargestFile)
        throw Failure(fmt::format("'{}' is too long for a configuration file", file));
    return parseConfig(text, file);
}

std::vector<SendJob> readSendJobs(const std::string& file) {
    return needed(readConfig(file).send, file, "send");
}

std::vector<ReceiveJob> readReceiveJobs(const std::string& file) {
    return needed(readConfig(file).receive, file, "receive");
}

std::vector<RelayJob> readRelayJobs(const std::string& file) {
    return needed(readConfig(file).relay, file, "relay");
}

std::vector<MonitorJob> readMonitorJobs(const std::string& file) {
    return needed(readConfig(file).monitor, file, "monitor");
}

std::string formatConfig(const ServiceConfig& config, bool json) {
    toml::table file;
    store(file, "send", config.send, json);
    store(file, "receive", config.receive, json);
    store(file, "relay", config.relay, json);
    store(file, "monitor", config.monitor, json);
    std::ostringstream text;
    if (json)
        text << toml::json_formatter(file) << '\n';
    else
        text << toml::toml_formatter(file) << '\n';
    return text.str();
}
