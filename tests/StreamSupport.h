// Pieces of transport streams, made by hand.
#ifndef TESTS_STREAMSUPPORT_H
#define TESTS_STREAMSUPPORT_H

#include <bitstream/mpeg/psi.h>

#include <string>

// Packets of one section: a PID, a table, and what stands between its length and its CRC.
inline std::string Packets(const std::string& pid, const std::string& table,
                           const std::string& body) {
    using namespace std::string_literals;
    std::string section = table + "\x80\0"s + body + "CRC_", packets;
    auto* const data = reinterpret_cast<uint8_t*>(section.data());
    psi_set_length(data, static_cast<uint16_t>(body.size() + PSI_CRC_SIZE));
    psi_set_crc(data);
    section = '\0' + section;
    for (size_t i = 0; i * 184 < section.size(); ++i) {
        packets += '\x47' + pid + static_cast<char>(0x10 | i) + section.substr(i * 184, 184);
        packets.resize((i + 1) * 188, '\xFF');
        packets[i * 188 + 1] |= i == 0 ? 0x40 : 0;
    }
    return packets;
}

#endif
