// Programme-specific and service information (ISO/IEC 13818-1, 2.4.4; EN 300 468): which programmes
// a stream has, what they are called, and what their PIDs carry.
#ifndef STREAMS_PSITABLES_H
#define STREAMS_PSITABLES_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "TransportStream.h"

// Puts the sections of one PID together from the payloads of its packets.
class SectionAssembler {
  public:
    // The section is as long as its header says.
    using Sink = std::function<void(std::span<const uint8_t> section)>;

    void add(std::span<const uint8_t> payload, bool unitStart, const Sink& sink);
    void reset() { pending_.clear(), active_ = false; }

  private:
    void take(const Sink& sink);

    std::vector<uint8_t> pending_;  // less than a section and a packet
    bool active_ = false;           // the beginning of pending_ is that of a section
};

struct ElementaryStream {
    uint16_t pid;
    uint8_t streamType;
    const char* kind;      // "video", "audio", "subtitle" or "data"
    const char* codec;     // "" = not known
    std::string language;  // ISO 639; "" = not given
};

struct Service {
    uint8_t type;
    std::string name;
    std::string provider;
};

struct Programme {
    uint16_t pmtPid;
    std::optional<uint16_t> pcrPid;  // none before the PMT has come, or without a PCR
    std::vector<ElementaryStream> streams;
};

// Whatever the stream says, the tables stay within some tens of megabytes.
class PsiTables {
  public:
    // The packets of a stream, each of them, but for damaged ones and duplicates.
    void add(const uint8_t* packet, Continuity continuity);

    std::optional<uint16_t> transportStreamId() const { return transportStreamId_; }
    const std::map<uint16_t, Programme>& programmes() const { return programmes_; }
    const std::map<uint16_t, Service>& services() const { return services_; }
    uint64_t damagedSections() const { return damaged_; }  // wrong lengths and wrong CRCs

  private:
    void addSection(uint16_t pid, std::span<const uint8_t> section);
    void addPat(std::span<const uint8_t> section);
    void addPmt(uint16_t pid, std::span<const uint8_t> section);
    void addSdt(std::span<const uint8_t> section, std::span<const uint8_t> crc);

    SectionAssembler pat_;
    SectionAssembler sdt_;
    std::map<uint16_t, SectionAssembler> pmts_;
    std::optional<uint16_t> transportStreamId_;
    uint8_t patVersion_ = 0;
    std::map<uint16_t, Programme> programmes_;
    std::map<uint16_t, Service> services_;
    std::map<uint8_t, std::array<uint8_t, 4>> sdtSections_;  // by number: the CRC of the last
    uint64_t damaged_ = 0;
};

// What the PIDs are for that do not stand in a PMT; null for others.
const char* reservedPidName(uint16_t pid);

#endif
