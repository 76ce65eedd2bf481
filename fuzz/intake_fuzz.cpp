// Datagrams of any content and length on a receive channel, beside a model of what becomes of them.
//
// Input: the mode and the count to begin with, then datagrams: one byte, in which bit 0 asks the host
// to read all first, two bytes of length, and up to 80 bytes of contents; the rest is made up.
#include <unistd.h>

#include <vector>

#include "FakeSockets.h"
#include "Fuzz.h"
#include "Module.h"

namespace {

constexpr uint32_t kChannel = 5;
constexpr size_t kRingBytes = (4 << 20) - 1;

RtpChannelContextExt& Row() {
    return g_ContextExt[0][kReceive][kChannel];
}

RtpChannelContext& Start() {
    QXV_RTP_ReceiveStart(g_pContext, kChannel);
    while (Row().Socket.load() == nullptr)
        usleep(1000);
    return g_pContext->Channels[kReceive][kChannel];
}

struct Model {
    uint32_t Mode;
    uint32_t Others;  // in a row, of the other form
    uint32_t Size = 0;
    uint64_t Count = 0;
    Bytes Stored{};

    void Take(const Bytes& datagram) {
        const size_t length = datagram.size();
        size_t header = length < 13 ? 0 : 12 + size_t{4} * (datagram[0] % 16);
        const bool rtp = header != 0 && header < length && datagram[0] / 64 == 2 &&
                         datagram[1] % 128 == 33 && datagram[header] == 'G';
        if (!rtp && header < length)
            header = 0;
        Others = Mode == uint32_t{rtp} ? 0 : Others + 1;
        if (Others == 4)
            Mode = rtp ? 1 : 0;
        if (Mode != 1)
            header = 0;
        const auto payload = static_cast<uint32_t>(length - header);
        if (payload != Size && payload != 0) {
            Size = payload;
            Count = 0;
        }
        ++Count;
        if (header <= length && payload <= kRingBytes - Stored.size())
            Stored.insert(Stored.end(), datagram.begin() + static_cast<long>(header),
                          datagram.end());
    }
};

void ReadAll(Bytes& expected) {
    const auto size = static_cast<uint32_t>(expected.size());
    FUZZ_CHECK(Row().Buffer.load()->GetDataSize() == size);
    Bytes got(size);
    FUZZ_CHECK(QXV_RTP_Receive(g_pContext, kChannel, got.data(), size) == 1);
    FUZZ_CHECK(got == expected);
    expected.clear();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static RtpChannelContext& record = Start();
    CZAQStreamTimer& timer = *Row().Timer.load();
    Input input(data, size);
    Model model{input.Byte(), input.Byte() * 0x01010101u};
    std::atomic_ref(record.Config.Rtp) = static_cast<uint8_t>(model.Mode);
    record.RtpSwitchCount = model.Others;
    timer.RxInitialize(model.Size = 1);
    while (!input.Empty()) {
        if ((input.Byte() & 1) != 0)
            ReadAll(model.Stored);
        Bytes datagram(input.Word() % 65508);
        const auto head = input.Bytes(std::min<size_t>(datagram.size(), 80));
        std::copy(head.begin(), head.end(), datagram.begin());
        for (size_t i = head.size(); i < datagram.size(); i += 61)
            datagram[i] = static_cast<uint8_t>(i + model.Count);
        model.Take(datagram);
        RxProcess(Row().Socket.load(), nullptr, nullptr, datagram.data(),
                  static_cast<uint32_t>(datagram.size()));
        FUZZ_CHECK(std::atomic_ref(record.Config.Rtp) == model.Mode);
        FUZZ_CHECK(record.RtpSwitchCount == model.Others);
        FUZZ_CHECK(timer.GetBlockSize() == model.Size && timer.GetBlocks() == model.Count);
    }
    ReadAll(model.Stored);
    return 0;
}
