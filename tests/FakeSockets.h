// A socket library of the tests' own, with the functions of ZAQSockets.h: nothing reaches a
// network. It records what it is asked for, fails and blocks on request, and hands datagrams to
// receive sockets. Any thread may call anything.
#ifndef TESTS_FAKESOCKETS_H
#define TESTS_FAKESOCKETS_H

#include <array>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ZAQSockets.h"

namespace fake {

using Bytes = std::vector<unsigned char>;
using Numbers = std::array<int64_t, 6>;

enum class Kind { Create, Destroy, Send };

struct Call {
    Kind What;
    void* Socket = nullptr;  // null: a Create that failed or has not returned yet
    std::thread::id Thread{};
    uint64_t Stamp = 0;  // see Reset
    // Create
    std::string Addresses{};  // "local remote"
    Numbers Options{};        // local port, remote port, multicast, send, option, TTL
    ZAQReceiveCallback Callback = nullptr;
    void* Context = nullptr;
    // Send, whether it was made to fail or not
    Bytes Data{};
};

// Forgets calls and requests, not open sockets. The stamp is evaluated at the start of each call.
void Reset(std::function<uint64_t()> stamp = nullptr);
std::vector<Call> Calls(Kind kind);  // in order
size_t OpenSockets();
size_t Misuses();                 // uses of handles that are not open
void Fail(Kind kind, int count);  // the next Creates or Sends
void Hold(Kind kind);             // blocks Creates or Destroys until the release
void Release();
bool IsHeld();  // one of them is waiting now
// Runs the callback of the open socket that has this context, on this thread; false when there is
// none. A Destroy waits for it.
bool Deliver(const void* context, Bytes datagram);

}  // namespace fake

#endif
