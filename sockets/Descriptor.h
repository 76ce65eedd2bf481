// Owner of a file descriptor.
#ifndef SOCKETS_DESCRIPTOR_H
#define SOCKETS_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace zaqsockets {

class Descriptor {
  public:
    explicit Descriptor(int number = -1) noexcept : m_Number(number) {}
    Descriptor(Descriptor&& other) noexcept : m_Number(std::exchange(other.m_Number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_Number, other.m_Number);
        return *this;
    }
    ~Descriptor() { Close(); }

    void Close() noexcept {
        if (m_Number >= 0)
            close(m_Number);
        m_Number = -1;
    }
    int Number() const noexcept { return m_Number; }
    explicit operator bool() const noexcept { return m_Number >= 0; }

  private:
    int m_Number;
};

}  // namespace zaqsockets

#endif
