// A socket library of the tests' own, with the functions of ZAQSockets.h: nothing reaches a
// network. It records what it is asked for, fails and waits on request, and hands datagrams to
// receive sockets. Any thread may call anything.
#ifndef TESTS_FAKESOCKETS_H
#define TESTS_FAKESOCKETS_H

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ZAQSockets.h"

using Bytes = std::vector<unsigned char>;
enum class Kind { Create, Destroy, Send };

struct Call {
    Kind What;
    void* Socket;             // of a Create: the new handle, also when it fails
    std::string Arguments{};  // of a Create: both addresses, both ports, all options, TTL
    ZAQReceiveCallback Callback = nullptr;
    void* Context = nullptr;
    Bytes Data{};  // of a Send, also when it fails
    std::thread::id Thread = std::this_thread::get_id();
    uint64_t Stamp = 0;
};

struct FakeState {
    std::map<void*, Call> Open{};  // the Creates of the sockets that are open, by handle
    std::map<Kind, std::vector<Call>> Calls{};  // in order
    std::function<uint64_t()> Stamp{};          // evaluated at the start of each call
    std::map<Kind, int> Failures{};             // so many of the next Creates or Sends fail
    bool HoldCreates = false;                   // they wait as long as this is set
    size_t Waiting = 0;                         // Creates that wait now
    size_t Misuses = 0;                         // uses of handles that are not open
    uintptr_t LastHandle = 0;  // never used again, so that a stale one is known as such
};

// The state, under its lock for as long as the object lives.
class Fake {
  public:
    Fake();
    FakeState* operator->() const;

    // Forgets calls and requests, not open sockets.
    static void Reset(std::function<uint64_t()> stamp = nullptr);
    // Runs the callback of the open socket that has this context, on this thread; false when there
    // is none. Unlike in the real library no Destroy waits for it.
    static bool Deliver(const void* context, Bytes datagram);

    // What the library's functions do: false for a call that is to fail, and for a misuse.
    bool Enter(Call call);
    bool IsOpen(void* handle);

  private:
    std::unique_lock<std::recursive_mutex> m_Lock;
};

#endif
