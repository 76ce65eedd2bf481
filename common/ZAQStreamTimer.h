// Paces and measures a stream of fixed-size blocks, and writes and reads their RTP headers.
#ifndef COMMON_ZAQSTREAMTIMER_H
#define COMMON_ZAQSTREAMTIMER_H

#include <atomic>
#include <cstdint>

#include "Export.h"
#include "ThreadSafety.h"
#include "ZAQTickValue.h"

// One block is the payload of one datagram. Bitrates are in bits per second and count payload only,
// times in milliseconds, block sizes in bytes, RTP timestamps in units of 1/90000 s (RFC 2250, 2).
//
// Thread safety: all operations may be called from any thread. The thread that moves the stream
// counts blocks without a lock; a host thread may re-initialise the pacing and the housekeeping
// thread measure at the same time. Initialisers and multi-field calculations lock the object.
class ZAQ_EXPORT CZAQStreamTimer {
  public:
    CZAQStreamTimer() noexcept;
    CZAQStreamTimer(const CZAQStreamTimer&) = delete;
    CZAQStreamTimer& operator=(const CZAQStreamTimer&) = delete;

    // The order of the virtual functions is part of the binary interface.
    virtual ~CZAQStreamTimer();
    virtual uint32_t GetBlockSize();
    virtual uint32_t GetBitrate();        // requested; 0 on a receive timer
    virtual uint32_t GetBitrateActual();  // as last measured
    virtual uint64_t GetBlocks();         // counted since initialisation
    virtual void IncreaseBlocksTransfered();
    virtual void IncreaseBlocksTransfered(unsigned int count);

    // Starts pacing now, and all counts at zero. 0, with nothing changed, if an argument is 0.
    virtual int TxInitialize(unsigned int blockSize, unsigned int bitrate);
    // The same with `leadMs` milliseconds' worth of blocks due at once.
    virtual int TxInitialize(unsigned int blockSize, unsigned int bitrate, unsigned int leadMs,
                             unsigned int timestampBase);
    // Starts measuring now, and all counts at zero. 0, with nothing changed, if blockSize is 0.
    virtual int RxInitialize(unsigned int blockSize);

    // Blocks due since TxInitialize and not yet counted. The schedule is absolute and uncapped: a
    // sender that fell behind gets all that it missed as due.
    virtual uint32_t GetTxBlocks();
    // Bitrate since the previous call; the previous result if no millisecond has passed.
    virtual uint32_t CalculateBitrate();
    virtual uint64_t GetDelayMicroSeconds();  // duration of one block at the current rate
    virtual uint32_t GetRTPTimeStamp();

    // Writes a 12-byte header (RFC 3550, 5.1; payload type 33, RFC 3551, 6) with the next sequence
    // number and returns 12. It counts no block.
    virtual int FillRTPHeader(unsigned char* header);
    // Reads the fixed header; every output may be null. At least 12 bytes must be there. Returns
    // the length of header and CSRC list, 12 to 72 bytes, whatever the packet's real length; a
    // header extension is not counted.
    virtual uint32_t ExtractRTPHeader(unsigned char* packet, unsigned int* version,
                                      unsigned int* padding, unsigned int* extension,
                                      unsigned int* csrcCount, unsigned int* marker,
                                      unsigned int* payloadType, unsigned int* sequence,
                                      unsigned int* timestamp);
    // Reads the first four bytes of an RTCP packet (RFC 3550, 6.4.1); every output may be null.
    // Returns the packet's length in bytes.
    virtual uint32_t ExtractRTCPHeader(unsigned char* packet, unsigned int* version,
                                       unsigned int* padding, unsigned int* count,
                                       unsigned int* packetType, unsigned int* length);

    // The fields stand in the order of the binary interface. The atomic ones are read without the
    // lock; of these only BlocksTransfered is also changed without it.
    CZAQTickValue PaceTick ZAQ_GUARDED_BY(Lock);
    CZAQTickValue MeasureTick ZAQ_GUARDED_BY(Lock);
    std::atomic<uint32_t> BlockSize{0};
    std::atomic<uint32_t> TargetBitrate{0};
    std::atomic<uint32_t> MeasuredBitrate{0};
    uint64_t StartTick ZAQ_GUARDED_BY(Lock) = 0;
    uint64_t LastTick ZAQ_GUARDED_BY(Lock) = 0;
    std::atomic<uint64_t> BlocksTransfered{0};
    uint64_t LastBlocks ZAQ_GUARDED_BY(Lock) = 0;
    double BlocksPerSecond ZAQ_GUARDED_BY(Lock) = 0.0;
    uint16_t SequenceNumber ZAQ_GUARDED_BY(Lock) = 0;
    double TicksPerBlock ZAQ_GUARDED_BY(Lock) = 0.0;
    uint32_t TimestampBase ZAQ_GUARDED_BY(Lock) = 0;

    // Last in order: nothing else is locked while it is held, and no virtual function of the
    // timer's is called.
    zaq::Mutex Lock;
};

#endif
