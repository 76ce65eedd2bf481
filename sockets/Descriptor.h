// Owner of a file descriptor.
#ifndef SOCKETS_DESCRIPTOR_H
#define SOCKETS_DESCRIPTOR_H

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace zaqsockets {

class Descriptor {
  public:
    // Takes what a system call has returned, with errno unchanged when that was an error.
    explicit Descriptor(int number = -1) noexcept : m_Number(AboveStandardStreams(number)) {}
    Descriptor(Descriptor&& other) noexcept : m_Number(std::exchange(other.m_Number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_Number, other.m_Number);
        return *this;
    }
    ~Descriptor() {
        if (m_Number >= 0)
            close(m_Number);
    }

    // Another descriptor of the same file.
    Descriptor Duplicate() const noexcept {
        return Descriptor(fcntl(m_Number, F_DUPFD_CLOEXEC, kFirst));
    }
    int Number() const noexcept { return m_Number; }
    explicit operator bool() const noexcept { return m_Number >= 0; }

  private:
    static constexpr int kFirst = 3;

    // Where a host has closed its standard streams, a new descriptor takes their number, and what
    // the host prints would leave as a datagram.
    static int AboveStandardStreams(int number) noexcept {
        if (number < 0 || number >= kFirst)
            return number;
        const int moved = fcntl(number, F_DUPFD_CLOEXEC, kFirst);
        close(number);
        return moved;
    }

    int m_Number;
};

}  // namespace zaqsockets

#endif
