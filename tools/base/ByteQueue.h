// Bytes that wait to be taken, up to a limit.
#ifndef TOOLS_BASE_BYTEQUEUE_H
#define TOOLS_BASE_BYTEQUEUE_H

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>

// It begins at the front of its memory whenever all has been taken, so that a queue which never
// fills up needs little of it.
class ByteQueue {
  public:
    explicit ByteQueue(size_t most) : most_(most), bytes_(new uint8_t[most]) {}

    size_t size() const { return size_; }
    size_t room() const { return most_ - size_; }

    // False: there is no room for all of it, and none of it is stored.
    bool put(std::span<const uint8_t> data) {
        if (data.size() > room())
            return false;
        const size_t end = (begin_ + size_) % most_;
        const auto front = data.first(std::min(data.size(), most_ - end));
        std::copy(front.begin(), front.end(), bytes_.get() + end);
        const auto rest = data.subspan(front.size());
        std::copy(rest.begin(), rest.end(), bytes_.get());
        size_ += data.size();
        return true;
    }

    // Takes what fits; returns the number of bytes.
    size_t take(std::span<uint8_t> space) {
        const size_t taken = std::min(space.size(), size_);
        const size_t front = std::min(taken, most_ - begin_);
        std::copy_n(bytes_.get() + begin_, front, space.begin());
        std::copy_n(bytes_.get(), taken - front, space.subspan(front).begin());
        size_ -= taken;
        begin_ = size_ == 0 ? 0 : (begin_ + taken) % most_;
        return taken;
    }

  private:
    const size_t most_;
    const std::unique_ptr<uint8_t[]> bytes_;
    size_t begin_ = 0;
    size_t size_ = 0;
};

#endif
