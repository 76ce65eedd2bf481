// Programme-specific and service information (ISO/IEC 13818-1, 2.4.4; EN 300 468): which programmes
// a stream has, what they are called, and what their PIDs carry.
#ifndef STREAMS_PSITABLES_H
#define STREAMS_PSITABLES_H

#include <array>
#include <bitset>
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
    const char* kind;         // "video", "audio", "subtitle" or "data"
    const char* codec;        // "" = not known
    std::string language;     // ISO 639; "" = not given
    bool additional = false;  // audio for some listeners only, which may pause
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
    std::vector<uint16_t> accessPids{};  // of conditional access: what the PMT says about it
    bool described = false;              // the PMT has come
};

// Whatever the stream says, the tables stay within some tens of megabytes.
class PsiTables {
  public:
    // Sections of the PIDs below 0x15 that have any, of the network information and of all PMTs.
    // `intact`: the CRC is right, of tables that need one.
    using Sink = std::function<void(uint16_t pid, std::span<const uint8_t> section, bool intact)>;

    explicit PsiTables(Sink sink = {});

    // The packets of a stream, each of them, but for damaged ones and duplicates.
    void add(const uint8_t* packet, Continuity continuity);

    std::optional<uint16_t> transportStreamId() const { return transportStreamId_; }
    const std::map<uint16_t, Programme>& programmes() const { return programmes_; }
    const std::map<uint16_t, Service>& services() const { return services_; }
    uint16_t networkPid() const { return networkPid_; }
    const std::vector<uint16_t>& accessPids() const { return accessPids_; }  // by the CAT
    uint64_t damagedSections() const { return damaged_; }  // wrong lengths and wrong CRCs
    // Of what refers to PIDs: grows with each.
    uint64_t changes() const { return changes_; }

  private:
    using Crc = std::array<uint8_t, 4>;

    void watch(uint16_t pid);
    void addSection(uint16_t pid, std::span<const uint8_t> section);
    void addPat(std::span<const uint8_t> section);
    bool addPmt(uint16_t pid, std::span<const uint8_t> section);
    bool addSdt(std::span<const uint8_t> section);

    Sink sink_;
    std::map<uint16_t, SectionAssembler> assemblers_;
    std::bitset<kNullPid + 1> watched_;  // have an assembler
    std::optional<uint16_t> transportStreamId_;
    uint8_t patVersion_ = 0;
    uint16_t networkPid_;
    std::map<uint16_t, Programme> programmes_;
    std::map<uint16_t, Service> services_;
    std::vector<uint16_t> accessPids_;
    std::map<uint32_t, Crc> known_;  // by table, programme and number: the CRC of the last
    uint64_t damaged_ = 0;
    uint64_t changes_ = 0;
};

// What the PIDs are for that do not stand in a PMT; null for others.
const char* reservedPidName(uint16_t pid);

#endif
