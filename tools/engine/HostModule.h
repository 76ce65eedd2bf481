// The streaming module, loaded when a command needs it, and its channels.
#ifndef TOOLS_ENGINE_HOSTMODULE_H
#define TOOLS_ENGINE_HOSTMODULE_H

#include <cstdint>
#include <optional>
#include <span>

#include "QXV_RTP.h"
#include "base/Errors.h"
#include "engine/ChannelNumbers.h"
#include "media/StreamUrl.h"

// The tool does not link with the module: loading it replaces the shared table of this machine's
// other users, which neither a help text nor a usage error may do. While the object lives, the
// module is loaded and the process holds a handle.
//
// Thread safety: as the module's own functions.
class HostModule {
  public:
    HostModule();  // throws Failure
    HostModule(const HostModule&) = delete;
    HostModule& operator=(const HostModule&) = delete;
    ~HostModule();

    void* handle() const { return handle_; }

    struct Functions {
        decltype(&QXV_RTP_Create) Create;
        decltype(&QXV_RTP_Destroy) Destroy;
        decltype(&QXV_RTP_GetConfig) GetConfig;
        decltype(&QXV_RTP_SetConfig) SetConfig;
        decltype(&QXV_RTP_GetStatistics) GetStatistics;
        decltype(&QXV_RTP_GetBitrate) GetBitrate;
        decltype(&QXV_RTP_SendStart) SendStart;
        decltype(&QXV_RTP_Send) Send;
        decltype(&QXV_RTP_SetBitrate) SetBitrate;
        decltype(&QXV_RTP_SendCancel) SendCancel;
        decltype(&QXV_RTP_SendEnd) SendEnd;
        decltype(&QXV_RTP_ReceiveStart) ReceiveStart;
        decltype(&QXV_RTP_Receive) Receive;
        decltype(&QXV_RTP_ReceiveEnd) ReceiveEnd;
    };
    const Functions& call() const { return functions_; }

  private:
    class Library {
      public:
        Library();
        Library(const Library&) = delete;
        Library& operator=(const Library&) = delete;
        ~Library();
        void* symbol(const char* name) const;

      private:
        void* library_;
    };

    Library library_;
    Functions functions_;
    void* handle_;
};

// The module, loaded when it is asked for first: a command whose input turns out to be no stream
// does not replace the shared table of this machine's other users. Its channels are given out here.
//
// Thread safety: one thread asks for it first; then any does.
class ModuleOnDemand {
  public:
    HostModule& get() { return module_ ? *module_ : module_.emplace(); }

    ChannelNumber sendNumber() { return sending_.take(); }
    ChannelNumber receiveNumber() { return receiving_.take(); }

  private:
    ChannelNumbers sending_;
    ChannelNumbers receiving_;
    std::optional<HostModule> module_;
};

// What send and receive channels have in common: a configuration, and how they stand.
class HostChannel {
  public:
    HostChannel(const HostChannel&) = delete;
    HostChannel& operator=(const HostChannel&) = delete;

    uint32_t number() const { return channel_; }
    bool isRtp() const;  // as configured (send) or detected (receive)
    QXV_RTP_Statistics statistics() const;
    bool socketIsOpen() const { return statistics().SocketOpen != 0; }
    uint32_t bufferedBytes() const { return statistics().BufferedBytes; }
    uint32_t freeBytes() const { return statistics().FreeBytes; }
    // Sent successfully, or received and stored, since the start.
    uint64_t datagrams() const { return statistics().Datagrams; }

  protected:
    // Stores the configuration; throws Failure when the module refuses it.
    HostChannel(HostModule& module, uint32_t direction, uint32_t channel, RtpChannelConfig config);
    ~HostChannel() = default;

    HostModule& module_;
    const uint32_t direction_;
    const uint32_t channel_;
};

// A started send channel; its destruction drops what has not been sent.
class SendChannel : public HostChannel {
  public:
    // `ringBytes` is the least size of the buffer.
    SendChannel(HostModule& module, uint32_t channel, const RtpChannelConfig& config,
                uint32_t bitrate_bps, uint32_t ringBytes = 0);
    ~SendChannel();

    // Bytes that the ring buffer holds for the given rate: a quarter of a second. Longer only adds
    // delay; much shorter, and a busy machine lets it run dry.
    static uint32_t ringUnits(uint32_t bitrate_bps, uint32_t leastBytes = 0);

    bool send(std::span<const uint8_t> data);  // blocks while the data does not fit

    // The schedule begins anew at this moment, for what the buffer holds, too. So do, under RTP,
    // the sequence numbers and timestamps, at 0: receivers that put datagrams in order may drop
    // what follows as late.
    void setBitrate(uint32_t bitrate_bps);

    // Stops sending. While no socket can be opened, a channel takes up to a second to end from then
    // on: who ends several of them cancels all of them first.
    void cancel();
};

// A started receive channel.
class ReceiveChannel : public HostChannel {
  public:
    ReceiveChannel(HostModule& module, uint32_t channel, const RtpChannelConfig& config);
    ~ReceiveChannel();

    uint32_t measuredBitrate() const;  // bits per second, refreshed once a second

    // Takes what is there, as far as it fits, without waiting; returns the number of bytes.
    size_t receive(std::span<uint8_t> space);
};

#endif
