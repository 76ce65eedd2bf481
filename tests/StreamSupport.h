// Pieces of transport streams, made by hand.
#ifndef TESTS_STREAMSUPPORT_H
#define TESTS_STREAMSUPPORT_H

#include <bitstream/mpeg/psi.h>
#include <bitstream/mpeg/ts.h>

#include <optional>
#include <string>

#include "RtpSupport.h"

struct PacketFields {
    uint16_t pid = 0x100;
    uint8_t counter = 0;
    bool payload = true;
    bool discontinuous = false;
    bool scrambled = false;
    std::optional<uint64_t> pcr = std::nullopt;  // 27 MHz
};

// A packet of these fields and of filling.
inline std::string Packet(const PacketFields& fields, size_t size = 188) {
    std::string packet(size, 'f');
    auto* const data = reinterpret_cast<uint8_t*>(packet.data());
    ts_init(data);
    ts_set_pid(data, fields.pid);
    ts_set_cc(data, fields.counter);
    ts_set_scrambling(data, fields.scrambled ? 2 : 0);
    if (fields.payload)
        ts_set_payload(data);
    if (fields.pcr || fields.discontinuous || !fields.payload)
        ts_set_adaptation(data, fields.payload ? 7 : 183);
    if (fields.discontinuous)
        tsaf_set_discontinuity(data);
    if (fields.pcr) {
        tsaf_set_pcr(data, *fields.pcr / 300);
        tsaf_set_pcrext(data, static_cast<uint16_t>(*fields.pcr % 300));
    }
    return packet;
}

// Packets of one section: a PID, a table, what stands between its length and its CRC, and the
// continuity counter of the first packet.
inline std::string Packets(const std::string& pid, const std::string& table,
                           const std::string& body, size_t counter = 0) {
    using namespace std::string_literals;
    // Of those with a CRC, only the TOT has the short header.
    std::string section = table + (table == "\x73" ? "\0\0"s : "\x80\0"s) + body + "CRC_", packets;
    auto* const data = reinterpret_cast<uint8_t*>(section.data());
    psi_set_length(data, static_cast<uint16_t>(body.size() + PSI_CRC_SIZE));
    psi_set_crc(data);
    section = '\0' + section;
    for (size_t i = 0; i * 184 < section.size(); ++i) {
        packets.append(1, '\x47').append(pid);
        packets += static_cast<char>(0x10 | ((counter + i) & 0xF));
        packets += section.substr(i * 184, 184);
        packets.resize((i + 1) * 188, '\xFF');
        packets[i * 188 + 1] |= i == 0 ? 0x40 : 0;
    }
    return packets;
}

#endif
