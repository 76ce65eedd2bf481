// What the entries of a configuration file, or the arguments of a command, must not be to each
// other, and the list of complaints.
#ifndef TOOLS_CONFIG_CONFIGRULES_H
#define TOOLS_CONFIG_CONFIGRULES_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/Jobs.h"
#include "media/StreamUrl.h"

struct ConfigPlace {
    uint32_t line;
    uint32_t column;
    std::string field;  // "send[1].url", or "URL 2" of a command line; empty = none in particular
};

class ConfigProblems {
  public:
    explicit ConfigProblems(std::string file = {}) : file_(std::move(file)) {}
    void add(const ConfigPlace& place, std::string_view what);

    // Throws ConfigErrors.
    void throwIfAny();

    // Throws the first as UsageError, for a command line.
    void throwFirst() const;

  private:
    std::string file_;
    std::vector<std::pair<ConfigPlace, std::string>> found_;
};

// The URL in one form: addresses as short as can be, names as they are, and with the options that
// matter in its direction, the TTL of groups included.
std::string fullUrl(const StreamUrl& url, bool destination);
std::string fullUrl(const std::vector<StreamUrl>& paths);  // of an input

// The text, which throws UsageError where it is not the address of a web server.
std::string webhookOf(const std::string& text);

// What the destinations of a stream are. One that is not known, as it has been complained of, may
// be anything.
struct Destinations {
    void add(const std::optional<StreamUrl>& url) {
        rtp = rtp || !url || url->rtp;
        groups = groups || !url || (url->rtp && (url->multicast || url->hostIsName));
    }
    bool rtp = false;     // one is
    bool groups = false;  // by rtp://
};

// Collects the ends of all streams, and complains where two exclude each other.
class ConfigRules {
  public:
    explicit ConfigRules(ConfigProblems& problems) : problems_(problems) {}

    void addInput(const std::string& path, const ConfigPlace& place);
    void addOutput(const std::string& path, const ConfigPlace& place);

    // The places are those of the wish.
    void repeatInput(const std::string& path, const ConfigPlace& place);
    void followInput(const std::string& path, const ConfigPlace& place);
    void rotateOutput(const std::string& path, const ConfigPlace& place);
    void announceOutput(const Announcing& announcing, const Destinations& destinations,
                        const ConfigPlace& place);
    void delayOutput(const Shaping& shaping, bool rtp, const std::optional<uint32_t>& bitrate_bps,
                     const ConfigPlace& place);

    // Returns the number of the relay.
    size_t addRelay();
    // A stream, on all paths on which it comes in; one of those that the relay takes in.
    void addSource(const std::vector<StreamUrl>& paths, const ConfigPlace& place,
                   std::optional<size_t> relay = std::nullopt);
    // To be recorded. There are as many recordings as receive channels.
    void addRecorded(const std::vector<StreamUrl>& paths, const ConfigPlace& place);
    // Which of the inputs may be files; the places are theirs.
    void failOver(const Failover& failover, const std::vector<ConfigPlace>& places);
    // For a monitor, which needs no channel. `name` tells its streams apart in reports.
    void addWatched(const StreamUrl& url, const std::string& name, const ConfigPlace& place);
    void addDestination(const StreamUrl& url, const ConfigPlace& place,
                        std::optional<size_t> relay = std::nullopt);

    // To be called when all have been added: looks for relays that feed themselves.
    void finish();

  private:
    struct Source {
        StreamUrl url;
        ConfigPlace place;
    };
    struct Destination {
        StreamUrl url;
        ConfigPlace place;
        std::optional<size_t> relay;
    };

    bool haveChannel(const ConfigPlace& place, std::string_view direction);
    void addReceiver(const StreamUrl& url, const ConfigPlace& place);
    bool reaches(size_t relay, size_t goal, std::vector<bool>& seen) const;
    bool feedsOneThatReaches(const Destination& to, size_t goal, std::vector<bool>& seen) const;

    ConfigProblems& problems_;
    std::map<std::string, std::string> inputs_;   // "-" only, and the field that names it first
    std::map<std::string, std::string> outputs_;  // the same for all files
    std::map<std::string, size_t> channels_;      // by section and direction
    std::vector<std::string> watched_;            // names
    std::vector<Source> sources_;
    std::vector<Destination> destinations_;
    std::vector<std::vector<size_t>> relays_;  // their sources
};

// Applies the rules to a command line: of pairs, of one source and its destinations,
// or of sources. Throws
// UsageError.
void checkArguments(const std::vector<SendJob>& jobs);
void checkArguments(const std::vector<ReceiveJob>& jobs);
void checkArguments(const RelayJob& job);
void checkArguments(const std::vector<MonitorJob>& jobs);

#endif
