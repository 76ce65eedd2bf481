// All streams of a command, one chain each, until they have ended or a signal comes.
#ifndef TOOLS_COMMANDS_SESSION_H
#define TOOLS_COMMANDS_SESSION_H

#include <chrono>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "base/StopSignal.h"
#include "engine/Chain.h"
#include "engine/HostModule.h"
#include "engine/Runner.h"
#include "reports/StreamStates.h"
#include "terminal/Progress.h"

// Says at once what happens, shows how far each stream has come, and sums up in the end. A stream
// that fails does not stop the others.
class Session {
  public:
    // With statistics, a line of JSON at the end of each stream has what `status` shows of it.
    explicit Session(bool statistics = false) : statistics_(statistics), runner_(stop_) {}
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    // For the chains.
    ModuleOnDemand& module() { return module_; }

    void add(std::unique_ptr<Chain> chain);

    // Takes streams out, by their numbers in the order of add(), the highest first; those behind
    // move up. They end beside the others, since some take up to a second; until they have, their
    // channels and ports are not free.
    void remove(const std::vector<size_t>& streams);
    bool removedHaveEnded() const;

    // The command reads its configuration again on SIGHUP: takeReload() tells when.
    void acceptReload() { stop_.acceptReload(); }
    bool takeReload() { return stop_.takeReload(); }

    // Throws the failure of the only stream, or Failure with `things` ("relays failed"), where some
    // of several have failed. `also` is called each time when the chains have run; while it returns
    // true, more streams may come, even if all have ended.
    void run(
        const std::string& things, const std::function<bool()>& also = [] { return false; });

    // Says something above the progress.
    void tell(const std::string& text) { progress_.warn(text); }

  private:
    void attend();
    void publish(Runner::Clock::time_point now);
    void sumUp(const Chain& chain);
    void warn(size_t i, const std::string& text);
    std::exception_ptr failure(size_t i) const;
    void conclude(const std::string& things);

    const bool statistics_;
    StopSignal stop_;
    Runner runner_;
    ModuleOnDemand module_;
    std::vector<std::unique_ptr<Chain>> chains_;
    std::vector<bool> told_;
    std::future<void> removed_;  // all that was removed has ended when it is ready
    Progress progress_;
    StatePublisher publisher_;
    Runner::Clock::time_point publishAt_{};
    // The room that the streams' first seconds took, by which their rates are told, goes back to
    // the system then.
    Runner::Clock::time_point trimAt_ = Runner::Clock::now() + std::chrono::milliseconds(1500);
};

#endif
