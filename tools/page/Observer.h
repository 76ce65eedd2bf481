// Looks at the machine and its streams again and again, and tells what is wrong, since when, and
// what has happened.
#ifndef TOOLS_PAGE_OBSERVER_H
#define TOOLS_PAGE_OBSERVER_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "page/History.h"
#include "page/Snapshot.h"

// The name of a channel's or a stream's history.
std::string channelSeries(const Host& host, const ChannelState& channel);
std::string streamSeries(const std::string& name);

class Observer {
  public:
    using Seconds = std::chrono::duration<double>;

    // The history outlives the observer.
    explicit Observer(History& history) : history_(history) {}

    // Once a second. `now` is of a clock that never goes back, `wall` since the epoch.
    std::shared_ptr<const Snapshot> look(Machine machine, std::vector<StreamFindings> streams,
                                         std::chrono::nanoseconds now, double wall);

  private:
    struct Seen {
        Host host;
        std::map<std::string, std::chrono::nanoseconds> heard;  // channels, by series
    };
    void meetHosts(const Machine& machine, double wall);
    void judgeChannels(const Host& host, Seen& seen, std::chrono::nanoseconds now);
    void judgeProcesses(const std::vector<StreamProcess>& processes, std::chrono::nanoseconds now);
    void judgeStream(const StreamFindings& stream);
    void judgeEnded(double wall);
    void settle(double wall);
    void tell(double wall, const char* kind, const PageSubject& subject, const std::string& text);

    History& history_;
    uint64_t looks_ = 0;
    std::map<std::string, Seen> hosts_;
    std::deque<EndedHost> ended_;
    std::map<std::string, uint64_t> errors_;                 // by stream
    std::map<std::string, std::chrono::nanoseconds> heard_;  // inputs of processes
    std::vector<Problem> problems_;
    std::map<std::string, Problem> standing_;  // by key
    std::deque<PageEvent> events_;
    uint64_t told_ = 0;
};

#endif
