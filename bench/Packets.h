// The stream that the bench sends: each datagram has its number, by which a receiver knows it.
#ifndef BENCH_PACKETS_H
#define BENCH_PACKETS_H

#include <cstdint>
#include <cstring>

inline constexpr uint32_t kPacketBytes = 188;
inline constexpr uint32_t kPayloadBytes = 7 * kPacketBytes;
inline constexpr uint16_t kFirstPort = 5000;   // channel n has port 5000 + n
inline constexpr uint32_t kStamps = 1U << 17;  // datagrams of a channel that can be told apart

// At the end of the first packet; stream.py writes it there, too.
inline constexpr uint32_t kNumberOffset = kPacketBytes - sizeof(uint64_t);

inline void fillDatagram(uint8_t* data, uint64_t number) {
    memset(data, 0xFF, kPayloadBytes);
    for (uint32_t packet = 0; packet < 7; ++packet) {
        const auto counter = static_cast<uint8_t>(0x10 | ((number * 7 + packet) & 15));
        const uint8_t header[] = {0x47, 0x01, 0x00, counter};
        memcpy(data + size_t{packet} * kPacketBytes, header, sizeof(header));
    }
    memcpy(data + kNumberOffset, &number, sizeof(number));
}

inline uint64_t numberOf(const uint8_t* data) {
    uint64_t number;
    memcpy(&number, data + kNumberOffset, sizeof(number));
    return number;
}

#endif
