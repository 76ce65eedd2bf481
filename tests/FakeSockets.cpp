#include "FakeSockets.h"

#include <arpa/inet.h>

#include <cstring>
#include <sstream>

namespace {

// Never destroyed: threads of the module may outlive the static objects.
std::recursive_mutex& g_Mutex = *new std::recursive_mutex;
FakeState& g_State = *new FakeState;

}  // namespace

Fake::Fake() : m_Lock(g_Mutex) {}

FakeState* Fake::operator->() const {
    return &g_State;
}

void Fake::Reset(std::function<uint64_t()> stamp) {
    const Fake fake;
    FakeState fresh{.Open = fake->Open, .Stamp = std::move(stamp), .LastHandle = fake->LastHandle};
    std::swap(g_State, fresh);
}

bool Fake::Deliver(const void* context, Bytes datagram) {
    Call found{Kind::Create, nullptr};
    for (const auto& [handle, call] : std::map(Fake()->Open)) {
        if (call.Callback != nullptr && call.Context == context)
            found = call;
    }
    if (found.Socket == nullptr)
        return false;
    sockaddr source{};
    found.Callback(found.Socket, nullptr, &source, datagram.data(),
                   static_cast<unsigned int>(datagram.size()));
    return true;
}

bool Fake::Enter(Call call) {
    call.Stamp = g_State.Stamp ? g_State.Stamp() : 0;
    g_State.Calls[call.What].push_back(call);
    ++g_State.Waiting;
    while (call.What == Kind::Create && g_State.HoldCreates) {
        m_Lock.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        m_Lock.lock();
    }
    --g_State.Waiting;
    int& failures = g_State.Failures[call.What];
    return failures == 0 || failures-- == 0;
}

bool Fake::IsOpen(void* handle) {
    const bool open = g_State.Open.count(handle) != 0;
    g_State.Misuses += !open;
    return open;
}

void* ZAQUDPSocket_Create(const char* local, const char* remote, uint32_t localPort,
                          uint32_t remotePort, int32_t multicast, int32_t send, int32_t option,
                          int32_t ttl, ZAQReceiveCallback callback, void* context) {
    std::ostringstream text;
    text << local << ' ' << remote << ' ' << localPort << ' ' << remotePort << ' ' << multicast
         << ' ' << send << ' ' << option << ' ' << ttl;
    Fake fake;
    void* const handle = reinterpret_cast<void*>(++fake->LastHandle);
    const Call call{Kind::Create, handle, text.str(), callback, context};
    if (!fake.Enter(call))
        return nullptr;
    fake->Open.emplace(handle, call);
    return handle;
}

void ZAQUDPSocket_Destroy(void* handle) {
    Fake fake;
    fake.Enter({Kind::Destroy, handle});
    if (fake.IsOpen(handle))
        fake->Open.erase(handle);
}

void* ZAQUDPSocket_GetContext(void* handle) {
    Fake fake;
    return fake.IsOpen(handle) ? fake->Open.at(handle).Context : nullptr;
}

uint32_t ZAQUDPSocket_SendAll(void* handle, const unsigned char* data, uint32_t length) {
    Fake fake;
    return fake.IsOpen(handle) &&
           fake.Enter({Kind::Send, handle, "", nullptr, nullptr, {data, data + length}});
}

uint32_t ZAQSocketsExtractIPAddress(const char* address, unsigned char* /*bytes*/,
                                    uint32_t* /*byteCount*/, uint32_t* /*zone*/,
                                    int32_t* multicast) {
    Fake()->Misuses += strlen(address) >= 256;               // read over the end of its field
    const std::string host(address, strcspn(address, "?"));  // without a DSCP
    unsigned char bytes[16];
    for (const int family : {AF_INET, AF_INET6}) {
        if (inet_pton(family, host.c_str(), bytes) == 1) {
            *multicast = family == AF_INET ? bytes[0] >> 4 == 0xE : bytes[0] == 0xFF;
            return static_cast<uint32_t>(family);
        }
    }
    return 0;
}
