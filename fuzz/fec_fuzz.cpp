// Any losses, any parity, and parity that was tampered with.
//
// Input: three bytes each. The first tells what comes; the others tell how much of the stream is
// skipped and follows, or which numbers a parity covers. Two more tell what is tampered with.
#include <map>
#include <string>

#include "FecDecoder.h"
#include "Fuzz.h"
#include "RtpSupport.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace std::chrono_literals;
    Input input{{data, size}};
    ts::FecDecoder decoder;
    std::map<uint16_t, std::string> sent;
    bool tampered = false;
    uint64_t media = 0, restored = 0;
    uint16_t next = 65'000;
    const auto makeMedia = [](uint16_t number) {
        return RtpHeader(number, number * 90U, 5) + "\x47" + BigEndian(number * 77'777U, 4) +
               std::string(number % 20, 'x');
    };
    const ts::FecDecoder::Sink sink = [&](std::span<const uint8_t> datagram) {
        const auto rtp = ts::readRtp(datagram);
        Check(rtp.has_value());
        // Without tampering, it is what was sent.
        if (!tampered)
            Check(makeMedia(rtp->sequence) == std::string(datagram.begin(), datagram.end()));
        ++restored;
    };
    ts::Time now = 0s;
    while (!input.Rest.empty() && media < 1500) {
        const uint8_t kind = input.Byte();
        const uint8_t first = input.Byte(), second = input.Byte();
        now += 1ms;
        if (kind % 4 == 0) {
            next = static_cast<uint16_t>(next + first % 8);
            for (int i = 0; i < 1 + second % 32; ++i, ++media)
                decoder.pushMedia(BytesOf(makeMedia(next++)), now, sink);
            continue;
        }
        if (kind % 4 == 1 && kind & 0x40) {
            decoder.pushMedia(BytesOf(makeMedia(static_cast<uint16_t>(next - first))), now, sink);
            ++media;
            continue;
        }
        std::vector<std::string> members;
        const auto offset = static_cast<uint16_t>(1 + (kind >> 4));
        for (int i = 0; i < 1 + second % 24; ++i)
            members.push_back(makeMedia(static_cast<uint16_t>(next - first + i * offset)));
        std::string parity = ParityOf(members, static_cast<uint8_t>(offset), offset == 1);
        if (kind % 4 == 3) {
            tampered = true;
            const uint8_t place = input.Byte();
            parity[place % 48] = static_cast<char>(input.Byte());
            parity.resize(place & 0x80 ? 20 + first : parity.size());
        }
        decoder.pushFec(BytesOf(parity), now, sink);
    }
    const ts::FecCounts& counts = decoder.counts();
    Check(counts.repaired == restored && counts.repaired <= counts.received);
    Check(decoder.wait(now) <= 5 * now / 4);
    return 0;
}
