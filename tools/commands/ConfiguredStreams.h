// The streams of a session, which SIGHUP changes to what their configuration file then says.
#ifndef TOOLS_COMMANDS_CONFIGUREDSTREAMS_H
#define TOOLS_COMMANDS_CONFIGUREDSTREAMS_H

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "commands/Session.h"
#include "config/ConfigReload.h"

// A stream whose job is in the new file, too, is not touched. The others end first, so that those
// which are new find their channels and ports free. No step makes the streams wait.
//
// The session is one of the commands' or has the functions of it that are used here.
template <typename Job, typename ChainOf, typename SessionOf = Session>
class ConfiguredStreams {
  public:
    using Make = std::function<std::unique_ptr<ChainOf>(const Job&)>;

    // Reads and adds all streams. The session outlives the object.
    ConfiguredStreams(SessionOf& session, JobSource<Job> source, Make make)
        : session_(session), source_(std::move(source)), make_(std::move(make)) {
        if (!source_.file.empty())
            session_.acceptReload();
        start(source_.read());
    }

    const std::vector<ChainOf*>& chains() const { return chains_; }

    // For Session::run().
    bool attend() {
        if (coming_ && session_.removedHaveEnded()) {
            start(coming_->added);
            session_.tell(coming_->text());
            coming_.reset();
        }
        if (!coming_ && !reload_.isReading() && session_.takeReload())
            reload_.begin(source_);
        if (const auto jobs = reload_.take([this](const auto& text) { session_.tell(text); })) {
            coming_ = changesOf(jobs_, *jobs);
            for (const size_t i : coming_->gone) {
                jobs_.erase(jobs_.begin() + static_cast<std::ptrdiff_t>(i));
                chains_.erase(chains_.begin() + static_cast<std::ptrdiff_t>(i));
            }
            session_.remove(coming_->gone);
        }
        return coming_ || reload_.isReading();
    }

  private:
    void start(const std::vector<Job>& jobs) {
        for (const Job& job : jobs) {
            auto chain = make_(job);
            jobs_.push_back(job);
            chains_.push_back(chain.get());
            session_.add(std::move(chain));
        }
    }

    SessionOf& session_;
    const JobSource<Job> source_;
    const Make make_;
    std::vector<Job> jobs_;         // in the order of the session's streams
    std::vector<ChainOf*> chains_;  // the session's
    ConfigReload<Job> reload_;
    std::optional<JobChanges<Job>> coming_;  // to be started when others have ended
};

#endif
