// The transmit thread of one send channel: frames, paces and sends datagrams.
#include <unistd.h>

#include "Channel.h"
#include "StreamFormat.h"
#include "Tick.h"
#include "ZAQSockets.h"

namespace {

constexpr uint32_t kPacketSize = 188;
constexpr uint32_t kLongPacketSize = 204;  // with 16 bytes of Reed-Solomon parity
// Seven packets are the most that fit an Ethernet frame, with an RTP, a UDP and an IP header.
constexpr uint32_t kPacketsPerDatagram = 7;
// As a payload size it stands for "not known yet": that many bytes decide on the packet size.
constexpr uint32_t kDetectionSize = 2048;
constexpr useconds_t kSocketRetry_us = 1000000;

class Transmitter {
  public:
    explicit Transmitter(const Channel& channel) : m_Channel(channel) {}

    void Run() {
        while (!MustEnd())
            Pass();
        CloseSocket(m_Channel);
        m_Channel.Record->Reopen.store(1, std::memory_order_release);
    }

  private:
    // Acquire pairs with the releases in a cancel, and in a start that takes this thread's place.
    bool MustEnd() const {
        return m_Channel.Row->Cancel.load(std::memory_order_acquire) != 0 ||
               m_Channel.Internals->StopThread.load(std::memory_order_acquire);
    }

    // Sends one datagram, or waits for what it lacks.
    void Pass() {
        if (!RenewSocket(m_Channel)) {
            usleep(kSocketRetry_us);
            return;
        }
        if (Buffer().GetDataSize() < m_PayloadSize)
            return SleepToTick();
        if (m_PayloadSize == kDetectionSize && !Detect())
            return CancelOwnChannel();
        if (Timer().GetBlockSize() == 0)
            StartPacing();
        uint32_t header = 0;
        if (IsDue(header))
            SendDatagram(header);
        else
            SleepToTick();
    }

    // Finds the packet size from the first bytes. A stream that fits both sizes is taken as 188.
    bool Detect() {
        Buffer().Sample(m_Datagram, kDetectionSize);
        for (const uint32_t packetSize : {kPacketSize, kLongPacketSize}) {
            if (m_Datagram[0] == kSyncByte && m_Datagram[packetSize] == kSyncByte &&
                m_Datagram[size_t{2} * packetSize] == kSyncByte) {
                m_PayloadSize = kPacketsPerDatagram * packetSize;
                return true;
            }
        }
        return false;
    }

    // The timer refuses a bitrate of 0, which SetBitrate may have left in the record; its block
    // size then stays 0, nothing is due, and the next pass tries again. Under the lock a SetBitrate
    // comes before the record is read here, or finds the block size and sets the timer itself.
    void StartPacing() {
        const zaq::MutexLock lock(m_Channel.Internals->State);
        Timer().TxInitialize(m_PayloadSize,
                             m_Channel.Record->Bitrate.load(std::memory_order_relaxed));
    }

    // Is a datagram due? Then its RTP header is written, and `header` becomes its length.
    bool IsDue(uint32_t& header) {
        const zaq::MutexLock lock(m_Channel.Internals->State);
        if (Timer().GetTxBlocks() == 0)
            return false;
        m_Schedule = m_Channel.Internals->Schedule;
        if (IsRtp())
            header = static_cast<uint32_t>(Timer().FillRTPHeader(m_Datagram));
        return true;
    }

    // A datagram counts in the schedule in which it was due. In one that has begun since, it would
    // be one too many: that number wraps to nearly 2^32, and this thread would never wait again.
    void CountDatagram() {
        const zaq::MutexLock lock(m_Channel.Internals->State);
        if (m_Channel.Internals->Schedule == m_Schedule)
            Timer().IncreaseBlocksTransfered();
    }

    void SendDatagram(uint32_t header) {
        Buffer().Read(m_Datagram + header, m_PayloadSize);
        ChannelCounters& counters = m_Channel.Internals->Counters;
        Add(counters.NetworkBytes, m_PayloadSize);
        // Only RTP needs whole packets behind its header (RFC 2250, 2); a raw stream that has lost
        // its alignment is sent on as it is.
        if (IsRtp() && m_Datagram[header] != kSyncByte) {
            CancelOwnChannel();
            return;
        }
        void* const socket = m_Channel.Row->Socket.load(std::memory_order_relaxed);  // own thread's
        if (ZAQUDPSocket_SendAll(socket, m_Datagram, header + m_PayloadSize) != 0) {
            CountDatagram();
            Add(counters.Datagrams, 1);
            Add(counters.Bytes, m_PayloadSize);
        } else {
            Add(counters.SendFailures, 1);
            m_Channel.Record->Reopen.store(1, std::memory_order_release);
        }
    }

    // Running stays: the host sees a channel that was started and takes no more.
    void CancelOwnChannel() { m_Channel.Row->Cancel.store(1, std::memory_order_release); }

    // Relaxed: a byte of its own, looked at for every datagram.
    bool IsRtp() const {
        return std::atomic_ref(m_Channel.Record->Config.Rtp).load(std::memory_order_relaxed) == 1;
    }
    // Both exist as long as the thread does.
    CZAQSimpleBuffer& Buffer() { return *m_Channel.Row->Buffer.load(std::memory_order_acquire); }
    CZAQStreamTimer& Timer() { return *m_Channel.Row->Timer.load(std::memory_order_acquire); }

    const Channel m_Channel;
    uint32_t m_PayloadSize = kDetectionSize;
    uint32_t m_Schedule = 0;                        // in which the present datagram was due
    unsigned char m_Datagram[kDetectionSize] = {};  // the sample, then each datagram
};

}  // namespace

void ThreadTx(void* argument) {
    Transmitter(FindChannel(static_cast<RtpChannelContext*>(argument))).Run();
}
