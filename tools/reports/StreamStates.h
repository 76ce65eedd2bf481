// The states of a process's streams, in a memory file that other processes find among its
// descriptors, as they find the tables of hosts.
#ifndef TOOLS_REPORTS_STREAMSTATES_H
#define TOOLS_REPORTS_STREAMSTATES_H

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "base/FileDescriptor.h"
#include "engine/StreamState.h"

// As the descriptor's link in /proc shows the file.
constexpr std::string_view kStatesLink = "/memfd:qxvrtp_streams (deleted)";

// Writes the file, which is there from the first state on. One thread uses it.
class StatePublisher {
  public:
    // Where there is no memory for the file, nothing is published.
    void publish(const std::vector<StreamState>& states);

  private:
    std::optional<FileDescriptor> file_;
    uint32_t sequence_ = 0;
};

struct PublishedStates {
    std::pair<dev_t, ino_t> id;
    std::time_t updated = 0;
    uint32_t leftOut = 0;  // streams for which there was no room
    std::vector<StreamState> streams;
};

// Reads the file that a descriptor of O_PATH names; none where it is not what it should be. Another
// process has written it, and it may hold anything.
std::optional<PublishedStates> readStates(int file);

const char* healthName(InputHealth health);

#endif
