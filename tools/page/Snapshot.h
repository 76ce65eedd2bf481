// What the page shows at one moment.
#ifndef TOOLS_PAGE_SNAPSHOT_H
#define TOOLS_PAGE_SNAPSHOT_H

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "reports/Hosts.h"
#include "reports/StreamFindings.h"

// What a problem or an event is about: a watched stream, or a process, or one of its channels or
// inputs.
struct PageSubject {
    std::string stream = {};
    pid_t pid = 0;
    std::string direction = {};
    uint32_t channel = 0;
    std::string input = {};  // the URL
    std::string title = {};  // for people
};

struct Problem {
    std::string key;  // the same for as long as it lasts
    bool alarm;       // or a warning
    PageSubject subject;
    std::string text;
    double since = 0;  // seconds since the epoch, as all times of the page
};

struct PageEvent {
    uint64_t number = 0;  // from 1 up
    double time = 0;
    const char* kind = "";  // "alarm", "warning", "cleared" or "host"
    PageSubject subject;
    std::string text;
};

struct EndedHost {
    Host host;
    double ended = 0;
};

struct Snapshot {
    uint64_t number = 0;  // from 1 up
    double time = 0;
    int64_t second = 0;  // the history's
    Machine machine;
    std::vector<StreamFindings> streams;
    std::vector<EndedHost> ended;   // in the last hour, the last one first
    std::vector<Problem> problems;  // the worst and latest first
    std::vector<PageEvent> events;  // the oldest first
    std::string state;              // as JSON, in one line
};

// Where the latest snapshot is.
//
// Thread safety: any thread calls anything.
class Board {
  public:
    void publish(std::shared_ptr<const Snapshot> snapshot);
    // Null before the first one.
    std::shared_ptr<const Snapshot> latest() const;
    // Waits for one behind number `seen`; null when the board is closed.
    std::shared_ptr<const Snapshot> await(uint64_t seen) const;
    void close();

  private:
    mutable std::mutex mutex_;  // guards all
    mutable std::condition_variable changed_;
    std::shared_ptr<const Snapshot> snapshot_;
    bool closed_ = false;
};

#endif
