// Datagrams of RTP and of FEC (SMPTE ST 2022-1) as a sender makes them, byte by byte.
#ifndef TESTS_RTPSUPPORT_H
#define TESTS_RTPSUPPORT_H

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

inline std::span<const uint8_t> BytesOf(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

inline std::string BigEndian(uint64_t value, size_t bytes) {
    std::string text;
    for (size_t i = bytes; i-- > 0;)
        text += static_cast<char>(value >> (8 * i));
    return text;
}

inline std::string RtpHeader(uint16_t sequence, uint32_t timestamp, uint32_t ssrc) {
    return "\x80\x21" + BigEndian(sequence, 2) + BigEndian(timestamp, 4) + BigEndian(ssrc, 4);
}

// Of datagrams whose numbers are `offset` apart; all of them have the same contributing sources,
// extension and padding, or none.
inline std::string ParityOf(const std::vector<std::string>& media, uint8_t offset, bool row) {
    const auto byte = [&](size_t at) {
        uint8_t parity = 0;
        for (const std::string& each : media)
            parity ^= at < each.size() ? static_cast<uint8_t>(each[at]) : uint8_t{0};
        return static_cast<char>(parity);
    };
    size_t length = 0, longest = 0;
    for (const std::string& each : media) {
        length ^= each.size() - 12;
        longest = std::max(longest, each.size());
    }
    std::string text;
    text += static_cast<char>(0x80 | (byte(0) & 0x3F));
    text += static_cast<char>((byte(1) & 0x80) | 96);
    text += std::string(10, '\0');
    text.append(media[0], 2, 2).append(BigEndian(length, 2));
    text += static_cast<char>(0x80 | byte(1));
    text += std::string(3, '\0');
    for (size_t at = 4; at < 8; ++at)
        text += byte(at);
    text += static_cast<char>(row ? 0x40 : 0);
    text += static_cast<char>(offset);
    text += static_cast<char>(media.size());
    text += '\0';
    for (size_t at = 12; at < longest; ++at)
        text += byte(at);
    return text;
}

#endif
