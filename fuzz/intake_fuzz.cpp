// Datagrams of any content and length on a receive channel, beside a model of what becomes of them.
//
// Input: the mode and the count to begin with, then datagrams: one byte, in which bit 0 asks the
// host to read all first, two bytes of length, and up to 80 bytes of contents; the rest is made up.
#include <unistd.h>

#include "FakeSockets.h"
#include "Fuzz.h"
#include "Module.h"

static constexpr uint32_t kChannel = 5;
static RtpChannelContextExt& g_Row = g_ContextExt[0][kReceive][kChannel];

static RtpChannelContext& Start() {
    QXV_RTP_ReceiveStart(g_pContext, kChannel);
    while (g_Row.Socket.load() == nullptr)
        usleep(1000);
    return g_pContext->Channels[kReceive][kChannel];
}

struct Model {
    uint32_t Mode;
    uint32_t Others;  // in a row, of the other form
    uint32_t Size = 1;
    uint64_t Count = 0;
    Bytes Stored{};

    void Take(const Bytes& data) {
        const size_t list = data.size() < 13 ? 0 : 12 + size_t{4} * (data[0] % 16);
        const bool rtp = list != 0 && list < data.size() && data[0] / 64 == 2 &&
                         data[1] % 128 == 33 && data[list] == 'G';
        Others = Mode == uint32_t{rtp} ? 0 : Others + 1;
        if (Others == 4)
            Mode = rtp ? 1 : 0;
        const size_t header = Mode == 1 && (rtp || list >= data.size()) ? list : 0;
        const auto payload = static_cast<uint32_t>(data.size() - header);
        Count = payload != Size && payload != 0 ? 1 : Count + 1;
        Size = payload != 0 ? payload : Size;
        if (header <= data.size() && payload < (4 << 20) - Stored.size())
            Stored.insert(Stored.end(), data.begin() + static_cast<long>(header), data.end());
    }
};

static void ReadAll(Bytes& expected) {
    Bytes got(g_Row.Buffer.load()->GetDataSize());
    QXV_RTP_Receive(g_pContext, kChannel, got.data(), static_cast<uint32_t>(got.size()));
    Check(got == expected);
    expected.clear();
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static RtpChannelContext& record = Start();
    CZAQStreamTimer& timer = *g_Row.Timer.load();
    Input input{{data, size}};
    Model model{input.Byte(), input.Byte() * 0x01010101u};
    std::atomic_ref(record.Config.Rtp) = static_cast<uint8_t>(model.Mode);
    record.RtpSwitchCount = model.Others;
    timer.RxInitialize(model.Size);
    while (!input.Rest.empty()) {
        if ((input.Byte() & 1) != 0)
            ReadAll(model.Stored);
        Bytes datagram(input.Word() % 65508);
        std::ranges::copy(input.Bytes(std::min<size_t>(datagram.size(), 80)), datagram.begin());
        for (size_t i = 80; i < datagram.size(); i += 61)
            datagram[i] = static_cast<uint8_t>(i + model.Count);
        model.Take(datagram);
        RxProcess(g_Row.Socket.load(), nullptr, nullptr, datagram.data(),
                  static_cast<uint32_t>(datagram.size()));
        Check(std::atomic_ref(record.Config.Rtp) == model.Mode);
        Check(record.RtpSwitchCount == model.Others);
        Check(timer.GetBlockSize() == model.Size && timer.GetBlocks() == model.Count);
    }
    ReadAll(model.Stored);
    return 0;
}
