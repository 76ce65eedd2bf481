// Configuration files (TOML) of the send, receive, relay and monitor services; qxvrtp.toml(5)
// describes them.
#ifndef TOOLS_CONFIG_CONFIGFILE_H
#define TOOLS_CONFIG_CONFIGFILE_H

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "engine/Jobs.h"

struct ServiceConfig {
    std::vector<SendJob> send;
    std::vector<ReceiveJob> receive;
    std::vector<RelayJob> relay;
    std::vector<MonitorJob> monitor;
};

// All that is wrong with a file, in the order of its lines, one complaint a line:
// "/etc/qxvrtp/news.toml:12:9: send[1].url: ...". Entries count from 0.
struct ConfigErrors : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads the text of a file; `file` is its name in complaints. Throws ConfigErrors.
ServiceConfig parseConfig(std::string_view text, const std::string& file);

// Reads a file. Throws ConfigErrors, or Failure when the file cannot be read.
ServiceConfig readConfig(const std::string& file);

// Reads the entries of one section of a file. Throws Failure, too, when there are none.
std::vector<SendJob> readSendJobs(const std::string& file);
std::vector<ReceiveJob> readReceiveJobs(const std::string& file);
std::vector<RelayJob> readRelayJobs(const std::string& file);
std::vector<MonitorJob> readMonitorJobs(const std::string& file);

// The configuration as TOML, which parseConfig() reads again, or as JSON: URLs in their full form,
// numbers without suffixes.
std::string formatConfig(const ServiceConfig& config, bool json);

#endif
