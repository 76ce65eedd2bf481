// A shared table into which another process writes whatever it likes, while channels run.
//
// Input: steps of two bytes, what and where, and more as the step needs.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "Fuzz.h"
#include "Module.h"

static constexpr uint32_t kRunning = 3;  // of each direction: the rest must stay as it is

// As another process has it.
static std::span<uint8_t> Table() {
    const int file = open(QXV_RTP_TABLE_PATH, O_RDWR | O_CLOEXEC);
    void* const table =
        mmap(nullptr, sizeof(RtpContext), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    Check(table != MAP_FAILED);
    for (uint32_t channel = 0; channel < kRunning; ++channel) {
        QXV_RTP_SendStart(g_pContext, channel, 8000000, 256);
        QXV_RTP_ReceiveStart(g_pContext, channel);
    }
    return {static_cast<uint8_t*>(table), sizeof(RtpContext)};
}

static void Restart(uint32_t channel) {
    QXV_RTP_ReceiveEnd(g_pContext, channel);
    QXV_RTP_ReceiveStart(g_pContext, channel);
    if (g_ContextExt[0][kSend][channel].Cancel == 0)  // ending one may take a second
        return;
    QXV_RTP_SendEnd(g_pContext, channel);
    QXV_RTP_SendStart(g_pContext, channel, 1000000000, 256);
}

static void Feed(uint32_t channel, std::span<const uint8_t> bytes) {
    uint8_t packets[7 * 188];
    std::fill_n(packets, sizeof(packets), uint8_t{0x47});
    std::ranges::copy(bytes, packets + 1);
    if (g_ContextExt[0][kSend][channel].Buffer.load()->GetFreeSize() >= sizeof(packets))
        QXV_RTP_Send(g_pContext, channel, packets, sizeof(packets));
    if (g_ContextExt[0][kReceive][channel].Buffer.load()->GetDataSize() > 0)
        QXV_RTP_Receive(g_pContext, channel, packets, 1);
    usleep(100);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::span<uint8_t> table = Table();
    Input input{{data, size}};
    while (!input.Rest.empty()) {
        const uint32_t step = input.Byte();
        const uint32_t where = input.Byte();
        const uint32_t channel = where % kRunning;
        const auto bytes = input.Bytes(step / 4);
        RtpChannelConfig config;
        if (step % 4 == 0) {
            Feed(channel, bytes);
        } else if (step % 4 == 1) {
            const size_t record = where / 128 * kChannels + channel;
            const size_t place = where % 64 == 0 ? input.Word() % table.size()
                                                 : 16 + record * sizeof(RtpChannelContext) +
                                                       input.Word() % sizeof(RtpChannelContext);
            std::ranges::copy(bytes.first(std::min(bytes.size(), table.size() - place)),
                              table.begin() + static_cast<long>(place));
        } else if (step % 4 == 2) {
            Restart(channel);
        } else {
            QXV_RTP_GetConfig(g_pContext, where / 128, channel, &config);
            QXV_RTP_SetConfig(g_pContext, where / 128, channel, &config);
            QXV_RTP_SetBitrate(g_pContext, channel, where);
        }
    }
    for (const auto& rows : g_ContextExt[0])
        for (uint32_t channel = kRunning; channel < kChannels; ++channel)
            Check(rows[channel].Running == 0 && rows[channel].Buffer == nullptr);
    return 0;
}
