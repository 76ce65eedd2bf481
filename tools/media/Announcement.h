// A stream that is made known to other programs while it is sent.
#ifndef TOOLS_MEDIA_ANNOUNCEMENT_H
#define TOOLS_MEDIA_ANNOUNCEMENT_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "media/StreamUrl.h"

// How to make streams known that are sent under RTP.
struct Announcing {
    std::string folder;  // for a file that describes the stream (SDP); empty = none
    std::string name;  // of the session, by which groups are announced (SAP); empty = they are not
    bool operator==(const Announcing&) const = default;
};

// The file is there, and listeners know the session, as long as the object lives. What cannot be
// written or sent holds up nothing.
//
// One thread uses it.
class Announcement {
  public:
    using Clock = std::chrono::steady_clock;

    // The URL has no names any more (HostNames.h). What fails is added to the events, once.
    Announcement(StreamUrl url, const Announcing& how, std::vector<std::string>& events);
    Announcement(const Announcement&) = delete;
    Announcement& operator=(const Announcement&) = delete;
    ~Announcement();

    // Announces the session when it is time to.
    void run(Clock::time_point now);

  private:
    bool send(bool takesBack);

    const StreamUrl url_;
    const std::string name_;
    const std::string group_;   // empty = it is not announced
    const std::string origin_;  // an address of this machine
    const std::string sdp_;
    std::string file_;  // empty = there is none
    uint64_t sent_ = 0;
    Clock::time_point next_{};
};

#endif
