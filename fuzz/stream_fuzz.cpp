// Any bytes as a transport stream, in pieces of any length.
//
// Input: the length of the pieces in two bytes, then the stream.
#include "Fuzz.h"
#include "TransportStream.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input{{data, size}};
    const size_t piece = input.Word() + 1;
    const auto stream = input.Rest;
    const auto layout = findPackets(stream);
    Check(!layout || stream[layout->offset + 2 * layout->packetSize] == 0x47);

    PacketSplitter splitter;
    ContinuityCounter continuity;
    PcrBitrate shortRate(kPacketBytes);
    PcrBitrate longRate(kPacketWithParityBytes);
    auto next = stream.begin();  // packets come in the stream's order and do not overlap
    uint64_t packets = 0;
    while (!input.Rest.empty())
        splitter.feed(input.Bytes(piece), [&](const uint8_t* packet) {
            const size_t length = splitter.packetSize();
            next = std::search(next, stream.end(), packet, packet + length);
            Check(packet[0] == 0x47 && next != stream.end());
            next += static_cast<long>(length);
            ++packets;
            continuity.add(packet);
            shortRate.add(packet);
            longRate.add(packet);
        });
    Check(splitter.packets() == packets && continuity.errors() <= packets);
    Check(shortRate.bitrate() <= longRate.bitrate());
    return 0;
}
