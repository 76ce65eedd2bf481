// Any datagrams at any times, on any paths, to what puts them in order.
//
// Input: the window in a byte; then of each datagram the path and the kind, the milliseconds since
// the one before, and a step: of the number, from the one that would be next, or the length of raw
// bytes. One kind repeats a datagram as it was, so that copies come.
#include <map>
#include <set>
#include <string>

#include "Fuzz.h"
#include "Reorderer.h"
#include "RtpSupport.h"

namespace {

struct Model {
    // By what is in the payload, which is different in all datagrams but copies.
    std::map<uint32_t, ts::Time> pushed;
    std::set<uint32_t> delivered;
    uint64_t datagrams = 0, raw = 0, missing = 0;
};

std::string MakeDatagram(uint16_t sequence, uint32_t ssrc, uint32_t mark) {
    return RtpHeader(sequence, mark, ssrc) + BigEndian(uint64_t{mark} << 16, 6);
}

uint32_t MarkOf(std::span<const uint8_t> payload) {
    return payload.size() < 4 ? 0
                              : uint32_t{payload[0]} << 24 | uint32_t{payload[1]} << 16 |
                                    uint32_t{payload[2]} << 8 | payload[3];
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace std::chrono_literals;
    Input input{{data, size}};
    // A longer window would only take more memory, and so time.
    const ts::Time window = std::min<int>(input.Byte(), 16) * 4ms;
    constexpr size_t kMemory = size_t{256} << 10;
    ts::Reorderer reorderer({.window = window, .memory = kMemory});
    Model model;
    ts::Time now = 0s;
    const ts::Reorderer::Sink sink = [&](const ts::Reorderer::Delivery& delivery) {
        model.missing += delivery.missing;
        if (!delivery.rtp) {
            ++model.raw;
            return;
        }
        const auto pushed = model.pushed.find(MarkOf(delivery.payload));
        Check(pushed != model.pushed.end());
        Check(pushed->second <= delivery.arrival && delivery.arrival <= now);
        model.delivered.insert(pushed->first);
    };
    uint16_t sequence = 65'500;
    std::string last = MakeDatagram(sequence, 0, 0);
    while (!input.Rest.empty() && model.datagrams < 200) {
        const uint8_t kind = input.Byte();
        now += input.Byte() * 1ms;
        const uint32_t step = input.Word();
        std::string datagram = last;
        ++model.datagrams;
        if ((kind & 0x18) == 0x18) {
            datagram.assign(step, 'r');
        } else if ((kind & 4) == 0) {
            sequence = static_cast<uint16_t>(sequence + step + 1);
            const auto mark = static_cast<uint32_t>(model.datagrams);
            datagram = MakeDatagram(sequence, kind >> 3 & 3, mark);
            if (kind & 0x20)
                datagram.resize(20'000);
            last = datagram;
        }
        if ((kind & 0x18) != 0x18)
            model.pushed.try_emplace(MarkOf(BytesOf(datagram).subspan(12)), now);
        if (kind & 0x40)
            reorderer.release(now, sink);
        const size_t path = kind & 0x80 ? ts::Reorderer::kRepaired : kind & 3;
        reorderer.push(BytesOf(datagram), now, path, sink);
        Check(reorderer.memory() <= kMemory);
        Check(!reorderer.next() || *reorderer.next() <= now + std::max(window, ts::Time(20ms)));
    }
    reorderer.release(now + 2s, sink);
    Check(reorderer.counts().lost >= model.missing);
    now += 2s;
    reorderer.finish(sink);
    Check(!reorderer.next() && reorderer.waiting() == 0);
    const ts::RepairCounts& counts = reorderer.counts();
    Check(counts.raw == model.raw && counts.delivered <= counts.received + counts.repaired);
    Check(model.delivered.size() <= counts.delivered && counts.lost == model.missing);
    for (size_t path = 0; path < ts::Reorderer::kMostPaths; ++path) {
        const ts::PathReport report = reorderer.path(path, now);
        Check(report.saved <= report.lost && report.skew <= report.greatestSkew);
    }
    return 0;
}
