// What a received stream consists of, and where its packets begin.
#ifndef STREAMS_STREAMMETER_H
#define STREAMS_STREAMMETER_H

#include <cstdint>
#include <span>

#include "TransportStream.h"

class StreamMeter {
  public:
    void add(std::span<const uint8_t> data) {
        splitter_.feed(data, [this](const uint8_t* packet) {
            continuity_.add(packet);
            packetSize_ = splitter_.packetSize();
        });
    }

    // Whether what is to be added now, with this first byte, begins a packet.
    bool isPacket(uint8_t first) const {
        return splitter_.packetSize() != 0 && splitter_.pendingBytes() == 0 && first == 0x47;
    }

    // How much to add until a packet may begin; a datagram's worth while none are found.
    size_t bytesToPacket() const {
        const size_t size = splitter_.packetSize();
        return size == 0 ? kPacketsPerDatagram * kPacketBytes : size - splitter_.pendingBytes();
    }

    uint64_t packets() const { return splitter_.packets(); }
    size_t packetSize() const { return packetSize_; }  // of the last ones; 0 = there were none
    uint64_t syncLosses() const { return splitter_.syncLosses(); }
    uint64_t continuityErrors() const { return continuity_.errors(); }

  private:
    PacketSplitter splitter_;
    ContinuityCounter continuity_;
    size_t packetSize_ = 0;
};

#endif
