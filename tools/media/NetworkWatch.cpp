#include "media/NetworkWatch.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr auto kSettle = 200ms;  // changes come in groups, like a link and its addresses
constexpr auto kPause = 1s;
constexpr int kLooks = 5;

}  // namespace

NetworkWatch::NetworkWatch()
    : messages_(zaqsockets::OpenNetlink(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR)) {}

uint64_t NetworkWatch::look(Clock::time_point now) {
    if (std::exchange(now_, now) == now)
        return looks_;
    if (takeMessages()) {
        if (left_ != kLooks)
            next_ = now + kSettle;
        left_ = kLooks;
    }
    if (left_ > 0 && now >= next_) {
        --left_;
        next_ = now + kPause;
        interfaces_ = zaqsockets::InterfaceList();
        looks_ += interfaces_ ? 1 : 0;
    }
    return looks_;
}

// What they say does not matter, nor how many the kernel has dropped (ENOBUFS).
bool NetworkWatch::takeMessages() {
    constexpr int kMost = 100;  // the rest waits for the next time
    char message[256];
    bool some = false;
    for (int i = 0; messages_ && i < kMost; ++i) {
        if (recv(messages_.Number(), message, sizeof message, 0) < 0 && errno != ENOBUFS)
            break;
        some = true;
    }
    return some;
}
