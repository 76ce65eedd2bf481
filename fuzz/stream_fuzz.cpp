// Any bytes as a transport stream, in pieces of any length.
//
// Input: the length of the pieces in two bytes, then the stream.
#include <vector>

#include "Fuzz.h"
#include "TransportStream.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const size_t piece = input.Word() + 1;
    const auto taken = input.Bytes(size);
    const std::vector<uint8_t> stream(taken.begin(), taken.end());

    if (const auto layout = findPackets(stream))
        for (size_t at = layout->offset, n = 0; at < stream.size() && n < 5;
             at += layout->packetSize, ++n)
            FUZZ_CHECK(stream[at] == 0x47);

    PacketSplitter splitter;
    ContinuityCounter continuity;
    PcrBitrate shortRate(kPacketBytes);
    PcrBitrate longRate(kPacketWithParityBytes);
    auto next = stream.begin();  // packets come in the stream's order and do not overlap
    uint64_t packets = 0;
    const auto sink = [&](const uint8_t* packet) {
        const size_t length = splitter.packetSize();
        FUZZ_CHECK(packet[0] == 0x47 &&
                   (length == kPacketBytes || length == kPacketWithParityBytes));
        next = std::search(next, stream.end(), packet, packet + length);
        FUZZ_CHECK(next != stream.end());
        next += static_cast<long>(length);
        ++packets;
        continuity.add(packet);
        shortRate.add(packet);
        longRate.add(packet);
    };
    for (size_t begin = 0; begin < stream.size(); begin += piece)
        splitter.feed(std::span(stream).subspan(begin, std::min(piece, stream.size() - begin)),
                      sink);
    FUZZ_CHECK(splitter.packets() == packets && continuity.errors() <= packets);
    FUZZ_CHECK(shortRate.bitrate().has_value() == longRate.bitrate().has_value());
    FUZZ_CHECK(!shortRate.bitrate() ||
               (*shortRate.bitrate() <= *longRate.bitrate() && shortRate.seconds() > 0));
    return 0;
}
