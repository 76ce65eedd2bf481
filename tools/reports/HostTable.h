// The channel table of a host, read from outside and without the module: loading it would replace
// the table.
#ifndef TOOLS_REPORTS_HOSTTABLE_H
#define TOOLS_REPORTS_HOSTTABLE_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

enum class ChannelMode { kRaw, kRtp, kUnknown };

// One record. The file is other people's: addresses have been made one word of ASCII, and a
// record's place alone decides which channel it is.
struct ChannelState {
    bool send = false;
    uint32_t number = 0;
    bool running = false;     // has been started and not ended
    bool socketOpen = false;  // made, and matching the configuration
    ChannelMode mode = ChannelMode::kUnknown;
    std::string address;       // destination, group or own address
    std::string localAddress;  // of the interface; "" = left to the system
    uint16_t port = 0;
    uint8_t ttl = 0;
    uint32_t asked_bps = 0;  // 0 on receive channels
    uint32_t measured_bps = 0;
    uint32_t bufferBytes = 0;
};

// Which file it is, whatever its name: its device and its inode.
using FileId = std::pair<dev_t, ino_t>;

struct ChannelTable {
    std::string path;
    std::string owner;  // user name, or number
    FileId id;
    bool replaced = false;   // the file has lost its name
    bool plausible = false;  // has what the module writes there at load
    uint32_t handles = 0;    // as counted there
    std::vector<ChannelState> channels;
};

// Copies and interprets the table; changes nothing, not even the file's access time where the
// system allows that. No link is followed, and neither a FIFO nor a device is opened. Throws
// Failure when there is none.
ChannelTable readTable(const std::string& path);

// The same of a file that a descriptor of O_PATH names.
ChannelTable readTable(int file, const std::string& path);

// A user's name, or number, as one word of ASCII.
std::string userName(uid_t user);

#endif
