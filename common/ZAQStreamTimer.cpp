#include "ZAQStreamTimer.h"

#include "StreamFormat.h"

namespace {

using zaq::MutexLock;

constexpr double kRtpClock_Hz = 90000.0;
constexpr uint32_t kSsrc = 0x0000AA55;

// Useful rate of a 64-QAM DVB-C channel at 6.875 Mbaud, the assumption while no rate is known.
constexpr uint32_t kDefaultBitrate_bps = 38014706;

// The low 32 bits of `value` truncated toward zero. A conversion that leaves the range of uint64_t
// is undefined in C++; it is reached when the wall clock steps back, which makes the elapsed time
// wrap to nearly 2^64 ms. The result there is that of the processor's conversion: no low bits set.
uint32_t LowBits(double value) {
    constexpr double kTwoTo64 = 18446744073709551616.0;
    return value >= 0.0 && value < kTwoTo64 ? static_cast<uint32_t>(static_cast<uint64_t>(value))
                                            : 0;
}

// The timestamp follows the count of blocks, not the clock, so the thread's jitter stays outside.
uint32_t TimeStamp(const CZAQStreamTimer& timer) ZAQ_REQUIRES(timer.Lock) {
    const auto blocks = timer.BlocksTransfered.load(std::memory_order_relaxed);
    return LowBits(static_cast<double>(blocks) * timer.TicksPerBlock) + timer.TimestampBase;
}

// Starts all counts anew at `now`.
void Restart(CZAQStreamTimer& timer, uint32_t blockSize, uint32_t bitrate, uint64_t now)
    ZAQ_REQUIRES(timer.Lock) {
    timer.BlockSize.store(blockSize, std::memory_order_relaxed);
    timer.TargetBitrate.store(bitrate, std::memory_order_relaxed);
    timer.MeasuredBitrate.store(0, std::memory_order_relaxed);
    timer.StartTick = timer.LastTick = now;
    timer.BlocksTransfered.store(0, std::memory_order_relaxed);
    timer.LastBlocks = 0;
    timer.SequenceNumber = 0;
    timer.TimestampBase = 0;
}

void Store(unsigned int* output, uint32_t value) {
    if (output != nullptr)
        *output = value;
}

}  // namespace

CZAQStreamTimer::CZAQStreamTimer() noexcept = default;
CZAQStreamTimer::~CZAQStreamTimer() = default;

// The relaxed accesses in this file: the four values are independent numbers that publish no other
// memory. Where they must agree with the other fields, the lock orders them.

uint32_t CZAQStreamTimer::GetBlockSize() {
    return BlockSize.load(std::memory_order_relaxed);
}

uint32_t CZAQStreamTimer::GetBitrate() {
    return TargetBitrate.load(std::memory_order_relaxed);
}

uint32_t CZAQStreamTimer::GetBitrateActual() {
    return MeasuredBitrate.load(std::memory_order_relaxed);
}

uint64_t CZAQStreamTimer::GetBlocks() {
    return BlocksTransfered.load(std::memory_order_relaxed);
}

void CZAQStreamTimer::IncreaseBlocksTransfered() {
    // One indivisible step: a load and a store of their own could write back the old count over the
    // zero of an initialiser that runs in between, and the pacing would be off by that count.
    BlocksTransfered.fetch_add(1, std::memory_order_relaxed);
}

void CZAQStreamTimer::IncreaseBlocksTransfered(unsigned int count) {
    BlocksTransfered.fetch_add(count, std::memory_order_relaxed);
}

int CZAQStreamTimer::TxInitialize(unsigned int blockSize, unsigned int bitrate) {
    if (bitrate == 0 || blockSize == 0)
        return 0;
    const MutexLock lock(Lock);
    Restart(*this, blockSize, bitrate, PaceTick.GetTickValue());
    BlocksPerSecond = static_cast<double>(bitrate) / static_cast<double>(blockSize * 8u);
    TicksPerBlock = kRtpClock_Hz / BlocksPerSecond;
    return 1;
}

int CZAQStreamTimer::TxInitialize(unsigned int blockSize, unsigned int bitrate, unsigned int leadMs,
                                  unsigned int timestampBase) {
    if (TxInitialize(blockSize, bitrate) == 0)
        return 0;
    const MutexLock lock(Lock);
    StartTick -= leadMs;
    LastTick = StartTick;
    TimestampBase = timestampBase;
    return 1;
}

int CZAQStreamTimer::RxInitialize(unsigned int blockSize) {
    if (blockSize == 0)
        return 0;
    const MutexLock lock(Lock);
    Restart(*this, blockSize, 0, MeasureTick.GetTickValue());
    BlocksPerSecond = TicksPerBlock = 0.0;
    return 1;
}

uint32_t CZAQStreamTimer::GetTxBlocks() {
    const MutexLock lock(Lock);
    const uint64_t elapsed = PaceTick.GetTickValue() - StartTick;
    const double due = static_cast<double>(elapsed) * BlocksPerSecond / 1000.0;
    return LowBits(due) - static_cast<uint32_t>(BlocksTransfered.load(std::memory_order_relaxed));
}

uint32_t CZAQStreamTimer::CalculateBitrate() {
    const MutexLock lock(Lock);
    const uint64_t now = MeasureTick.GetTickValue();
    const uint64_t interval = now - LastTick;
    if (interval == 0)
        return MeasuredBitrate.load(std::memory_order_relaxed);
    const uint64_t blocks = BlocksTransfered.load(std::memory_order_relaxed);
    const uint64_t bitrate =
        (blocks - LastBlocks) * BlockSize.load(std::memory_order_relaxed) * 8000u / interval;
    MeasuredBitrate.store(static_cast<uint32_t>(bitrate), std::memory_order_relaxed);
    LastBlocks = blocks;
    LastTick = now;
    return static_cast<uint32_t>(bitrate);
}

uint64_t CZAQStreamTimer::GetDelayMicroSeconds() {
    const MutexLock lock(Lock);  // block size and rate of the same initialisation
    uint32_t rate = TargetBitrate.load(std::memory_order_relaxed);
    if (rate == 0)
        rate = MeasuredBitrate.load(std::memory_order_relaxed);
    if (rate == 0)
        rate = kDefaultBitrate_bps;
    return uint64_t{BlockSize.load(std::memory_order_relaxed)} * 8000000u / rate;
}

uint32_t CZAQStreamTimer::GetRTPTimeStamp() {
    const MutexLock lock(Lock);
    return TimeStamp(*this);
}

int CZAQStreamTimer::FillRTPHeader(unsigned char* header) {
    const MutexLock lock(Lock);
    const uint32_t timestamp = TimeStamp(*this);
    header[0] = kRtpVersion << 6;
    header[1] = kRtpPayloadTypeMp2t;
    header[2] = static_cast<unsigned char>(SequenceNumber >> 8);
    header[3] = static_cast<unsigned char>(SequenceNumber);
    for (int byte = 0; byte < 4; ++byte) {
        header[4 + byte] = static_cast<unsigned char>(timestamp >> (24 - 8 * byte));
        header[8 + byte] = static_cast<unsigned char>(kSsrc >> (24 - 8 * byte));
    }
    ++SequenceNumber;
    return kRtpHeaderSize;
}

uint32_t CZAQStreamTimer::ExtractRTPHeader(unsigned char* packet, unsigned int* version,
                                           unsigned int* padding, unsigned int* extension,
                                           unsigned int* csrcCount, unsigned int* marker,
                                           unsigned int* payloadType, unsigned int* sequence,
                                           unsigned int* timestamp) {
    Store(version, packet[0] >> 6);
    Store(padding, packet[0] >> 5 & 1u);
    Store(extension, packet[0] >> 4 & 1u);
    Store(csrcCount, packet[0] & 0x0Fu);
    Store(marker, packet[1] >> 7);
    Store(payloadType, packet[1] & 0x7Fu);
    Store(sequence, packet[2] * 256u + packet[3]);
    Store(timestamp, uint32_t{packet[4]} << 24 | uint32_t{packet[5]} << 16 |
                         uint32_t{packet[6]} << 8 | packet[7]);
    return kRtpHeaderSize + 4 * (packet[0] & 0x0Fu);
}

uint32_t CZAQStreamTimer::ExtractRTCPHeader(unsigned char* packet, unsigned int* version,
                                            unsigned int* padding, unsigned int* count,
                                            unsigned int* packetType, unsigned int* length) {
    const uint32_t words = packet[2] * 256u + packet[3];
    Store(version, packet[0] >> 6);
    Store(padding, packet[0] >> 5 & 1u);
    Store(count, packet[0] & 0x1Fu);
    Store(packetType, packet[1]);
    Store(length, words);
    return words * 4 + 4;
}
