// The jobs of a command, and how a configuration file is read again while its streams run.
#ifndef TOOLS_CONFIG_CONFIGRELOAD_H
#define TOOLS_CONFIG_CONFIGRELOAD_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Where the jobs of a command come from. Reading them throws UsageError, ConfigErrors or Failure.
template <typename Job>
struct JobSource {
    std::string file;  // empty = the command line
    std::function<std::vector<Job>()> read;
};

// What a new file changes.
template <typename Job>
struct JobChanges {
    std::vector<size_t> gone;  // indexes of the old jobs, the highest first
    std::vector<Job> added;
    size_t kept = 0;

    std::string text() const;
};

std::string changesText(size_t started, size_t ended, size_t unchanged);

template <typename Job>
std::string JobChanges<Job>::text() const {
    return changesText(added.size(), gone.size(), kept);
}

// The order of the jobs is of no importance; one that is there twice is there twice.
template <typename Job>
JobChanges<Job> changesOf(const std::vector<Job>& old, std::vector<Job> wanted) {
    JobChanges<Job> changes;
    for (size_t i = old.size(); i-- > 0;) {
        const auto same = std::find(wanted.begin(), wanted.end(), old[i]);
        if (same == wanted.end())
            changes.gone.push_back(i);
        else
            wanted.erase(same);
    }
    changes.kept = old.size() - changes.gone.size();
    changes.added = std::move(wanted);
    return changes;
}

// Calls `read` once more where the file has changed meanwhile. Throws Failure when it does not stop
// changing, and when nobody waits for it any more.
void readStable(const std::string& file, const std::atomic<bool>& abandoned,
                const std::function<void()>& read);

// The lines that tell why the exception's file cannot be used.
std::vector<std::string> complaints(const std::exception_ptr& failure);

// Reads on a thread of its own: a file may be large, or lie on a disk that is slow.
template <typename Job>
class ConfigReload {
  public:
    ConfigReload() = default;
    ConfigReload(const ConfigReload&) = delete;
    ConfigReload& operator=(const ConfigReload&) = delete;
    ~ConfigReload() { abandoned_ = true; }

    void begin(const JobSource<Job>& source) {
        reading_ = std::async(std::launch::async, [this, source] {
            std::vector<Job> jobs;
            readStable(source.file, abandoned_, [&] { jobs = source.read(); });
            return jobs;
        });
    }
    bool isReading() const { return reading_.valid(); }

    // The jobs, once they have been read. Where the file cannot be used, `tell` gets the lines that
    // say why, and there are none.
    template <typename Tell>
    std::optional<std::vector<Job>> take(Tell tell) {
        using namespace std::chrono_literals;
        if (!reading_.valid() || reading_.wait_for(0s) != std::future_status::ready)
            return std::nullopt;
        try {
            return reading_.get();
        } catch (const std::exception&) {
            for (const std::string& line : complaints(std::current_exception()))
                tell(line);
            return std::nullopt;
        }
    }

  private:
    std::atomic<bool> abandoned_{false};
    std::future<std::vector<Job>> reading_;  // its end is waited for by its destructor
};

#endif
