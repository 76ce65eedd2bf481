// relay FROM PORT TO PORT BITRATE: takes a stream of 188-byte packets, raw or under RTP, from one
// multicast group and sends it on under RTP to another address, paced to BITRATE bits per second.
// As relay.c, but handle and channels are objects, which end in any case.
//
// c++ -std=c++17 relay.cpp $(pkg-config --cflags --libs qxv_rtp) -o relay
#include <QXV_RTP.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

// The module's handle. A signal handler cancels through it, so there is one for the whole process.
class Module {
  public:
    Module() : m_Handle(QXV_RTP_Create(0)) {
        if (m_Handle == nullptr)
            throw std::runtime_error("the module could not set up its table");
    }
    ~Module() { QXV_RTP_Destroy(m_Handle); }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    void* Handle() const { return m_Handle; }

  private:
    void* m_Handle;
};

RtpChannelConfig Address(const std::string& address, const std::string& port, bool multicast) {
    RtpChannelConfig config{};
    const bool six = address.find(':') != std::string::npos;
    std::snprintf(config.LocalAddress, sizeof(config.LocalAddress), "%s", six ? "::" : "0.0.0.0");
    std::snprintf(config.RemoteAddress, sizeof(config.RemoteAddress), "%s", address.c_str());
    config.Multicast = multicast ? 1 : 0;
    config.Rtp = 1;
    config.Ttl = 16;
    config.Port = static_cast<uint16_t>(std::strtoul(port.c_str(), nullptr, 10));
    return config;
}

// A receive channel of a group: started while the object lives.
class Receiver {
  public:
    Receiver(const Module& module, const std::string& group, const std::string& port)
        : m_Module(module) {
        RtpChannelConfig config = Address(group, port, true);
        if (QXV_RTP_SetConfig(module.Handle(), QXV_RTP_RECEIVE, kChannel, &config) == 0)
            throw std::runtime_error("not a multicast group: " + group);
        QXV_RTP_ReceiveStart(module.Handle(), kChannel);
    }
    ~Receiver() { QXV_RTP_ReceiveEnd(m_Module.Handle(), kChannel); }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    // Fills `bytes`; false when cancelled.
    template <size_t kSize>
    bool Receive(std::array<uint8_t, kSize>& bytes) {
        return QXV_RTP_Receive(m_Module.Handle(), kChannel, bytes.data(), kSize) != 0;
    }

  private:
    static constexpr uint32_t kChannel = 0;
    const Module& m_Module;
};

// A send channel to a group or another address: started while the object lives.
class Sender {
  public:
    Sender(const Module& module, const std::string& address, const std::string& port,
           uint32_t bitrate)
        : m_Module(module) {
        // Whether it is a group the module knows.
        RtpChannelConfig group = Address(address, port, true);
        RtpChannelConfig single = Address(address, port, false);
        if (QXV_RTP_SetConfig(module.Handle(), QXV_RTP_SEND, kChannel, &group) == 0 &&
            QXV_RTP_SetConfig(module.Handle(), QXV_RTP_SEND, kChannel, &single) == 0)
            throw std::runtime_error("not an address: " + address);
        if (QXV_RTP_SendStart(module.Handle(), kChannel, bitrate, kBufferUnits) == 0)
            throw std::runtime_error("the bitrate must not be 0");
    }
    ~Sender() { QXV_RTP_SendEnd(m_Module.Handle(), kChannel); }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    // Waits while the channel's buffer is full; false when cancelled, or the sync byte is lost.
    template <size_t kSize>
    bool Send(const std::array<uint8_t, kSize>& bytes) {
        return QXV_RTP_Send(m_Module.Handle(), kChannel, bytes.data(), kSize) != 0;
    }

  private:
    static constexpr uint32_t kChannel = 0;
    static constexpr uint32_t kBufferUnits = 4096;  // 1 MiB
    const Module& m_Module;
};

void* g_Handle;

// Makes the waiting Receive, or Send, return 0.
extern "C" void OnSignal(int) {
    QXV_RTP_Cancel(g_Handle);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: relay FROM PORT TO PORT BITRATE\n");
        return 2;
    }
    try {
        const Module module;
        g_Handle = module.Handle();
        Sender sender(module, argv[3], argv[4],
                      static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 10)));
        Receiver receiver(module, argv[1], argv[2]);
        std::signal(SIGINT, OnSignal);
        std::signal(SIGTERM, OnSignal);
        std::array<uint8_t, size_t{7} * 188> packets;
        while (receiver.Receive(packets) && sender.Send(packets)) {
        }
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "relay: %s\n", error.what());
        return 1;
    }
    return 0;
}
