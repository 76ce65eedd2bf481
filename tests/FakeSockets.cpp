#include "FakeSockets.h"

#include <arpa/inet.h>

#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

namespace {

using fake::Call;
using fake::Kind;

struct Socket {
    Call Made{Kind::Create};
    std::mutex InCallback{};  // held while the callback runs; taken before the state's
};

struct State {
    std::mutex Mutex;  // guards all below
    std::condition_variable Changed;
    std::map<void*, std::shared_ptr<Socket>> Open;
    std::vector<Call> Calls;
    std::map<Kind, int> Failures;
    std::map<Kind, bool> Holds;
    size_t Waiting = 0, Misuses = 0;
    uintptr_t LastHandle = 0;  // never used again, so that a stale one is known as such
    std::function<uint64_t()> Stamp;
};

// Never destroyed: threads of the module may outlive the static objects.
State& g_State = *new State;

// Access under the lock, for as long as the object lives.
struct Locked : std::unique_lock<std::mutex> {
    Locked() : unique_lock(g_State.Mutex) {}
    State* operator->() const { return &g_State; }

    // Records the call, waits while its kind is held and tells whether it is to fail.
    bool Enter(Call call) {
        call.Thread = std::this_thread::get_id();
        call.Stamp = g_State.Stamp ? g_State.Stamp() : 0;
        g_State.Calls.push_back(call);
        ++g_State.Waiting;
        g_State.Changed.wait(*this, [&] { return !g_State.Holds[call.What]; });
        --g_State.Waiting;
        int& failures = g_State.Failures[call.What];
        return failures > 0 && failures-- > 0;
    }
};

std::shared_ptr<Socket> Find(void* handle) {
    const Locked state;
    const auto found = state->Open.find(handle);
    if (found != state->Open.end())
        return found->second;
    ++state->Misuses;
    return nullptr;
}

}  // namespace

void* ZAQUDPSocket_Create(const char* local, const char* remote, uint32_t localPort,
                          uint32_t remotePort, int32_t multicast, int32_t send, int32_t option,
                          int32_t ttl, ZAQReceiveCallback callback, void* context) {
    Call call{Kind::Create};
    call.Addresses = std::string(local) + " " + remote;
    call.Options = {localPort, remotePort, multicast, send, option, ttl};
    call.Callback = callback;
    call.Context = context;
    Locked state;
    const size_t index = state->Calls.size();
    if (state.Enter(call))
        return nullptr;
    call.Socket = reinterpret_cast<void*>(++state->LastHandle);
    state->Calls.at(index).Socket = call.Socket;
    auto& socket = state->Open[call.Socket] = std::make_shared<Socket>();
    socket->Made = call;
    return call.Socket;
}

void ZAQUDPSocket_Destroy(void* handle) {
    Locked().Enter({Kind::Destroy, handle});
    if (const auto socket = Find(handle)) {
        const std::lock_guard callback(socket->InCallback);
        Locked()->Open.erase(handle);
    }
}

void* ZAQUDPSocket_GetContext(void* handle) {
    const auto socket = Find(handle);
    return socket != nullptr ? socket->Made.Context : nullptr;
}

uint32_t ZAQUDPSocket_SendAll(void* handle, const unsigned char* data, uint32_t length) {
    Call call{Kind::Send, handle};
    call.Data.assign(data, data + length);
    return Find(handle) == nullptr || Locked().Enter(call) ? 0 : 1;
}

uint32_t ZAQSocketsExtractIPAddress(const char* address, unsigned char* /*bytes*/,
                                    uint32_t* /*byteCount*/, uint32_t* /*zone*/,
                                    int32_t* multicast) {
    unsigned char bytes[16];
    if (strlen(address) >= 256)
        ++Locked()->Misuses;  // read over the end of its field
    uint32_t family = inet_pton(AF_INET, address, bytes) == 1 ? AF_INET : 0;
    if (family == 0 && inet_pton(AF_INET6, address, bytes) == 1)
        family = AF_INET6;
    if (family != 0)
        *multicast = family == AF_INET ? bytes[0] >> 4 == 0xE : bytes[0] == 0xFF;
    return family;
}

void fake::Reset(std::function<uint64_t()> stamp) {
    Release();
    const Locked state;
    state->Calls.clear();
    state->Failures.clear();
    state->Misuses = 0;
    state->Stamp = std::move(stamp);
}

std::vector<Call> fake::Calls(Kind kind) {
    const Locked state;
    std::vector<Call> calls = state->Calls;
    std::erase_if(calls, [kind](const Call& call) { return call.What != kind; });
    return calls;
}

size_t fake::OpenSockets() {
    return Locked()->Open.size();
}

size_t fake::Misuses() {
    return Locked()->Misuses;
}

void fake::Fail(Kind kind, int count) {
    Locked()->Failures[kind] = count;
}

void fake::Hold(Kind kind) {
    Locked()->Holds[kind] = true;
}

void fake::Release() {
    const Locked state;
    state->Holds.clear();
    state->Changed.notify_all();
}

bool fake::IsHeld() {
    return Locked()->Waiting != 0;
}

bool fake::Deliver(const void* context, Bytes datagram) {
    std::shared_ptr<Socket> found;
    {
        const Locked state;
        for (const auto& [handle, socket] : state->Open) {
            if (socket->Made.Callback != nullptr && socket->Made.Context == context)
                found = socket;
        }
    }
    if (found == nullptr)
        return false;
    const std::lock_guard callback(found->InCallback);
    if (Locked()->Open.count(found->Made.Socket) == 0)
        return false;  // destroyed just now
    sockaddr source{};
    found->Made.Callback(found->Made.Socket, nullptr, &source, datagram.data(),
                         static_cast<unsigned int>(datagram.size()));
    return true;
}
