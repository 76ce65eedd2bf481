// Bytes that wait to be taken, up to a limit.
#ifndef TOOLS_BASE_BYTEQUEUE_H
#define TOOLS_BASE_BYTEQUEUE_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

// The beginning of its memory is used again whenever all has been taken, so that a queue which
// never fills up needs little of it.
class ByteQueue {
  public:
    explicit ByteQueue(size_t most) : most_(most), bytes_(new uint8_t[most]) {}

    size_t size() const { return end_ - begin_; }
    size_t room() const { return most_ - size(); }

    // False: there is no room for all of it, and none of it is stored.
    bool put(std::span<const uint8_t> data) {
        if (data.size() > room())
            return false;
        if (data.size() > most_ - end_) {
            std::memmove(bytes_.get(), bytes_.get() + begin_, size());
            end_ = size();
            begin_ = 0;
        }
        std::copy(data.begin(), data.end(), bytes_.get() + end_);
        end_ += data.size();
        return true;
    }

    // Takes what fits; returns the number of bytes.
    size_t take(std::span<uint8_t> space) {
        const size_t taken = std::min(space.size(), size());
        std::copy_n(bytes_.get() + begin_, taken, space.begin());
        begin_ += taken;
        if (begin_ == end_)
            begin_ = end_ = 0;
        return taken;
    }

  private:
    const size_t most_;
    const std::unique_ptr<uint8_t[]> bytes_;
    size_t begin_ = 0;
    size_t end_ = 0;
};

#endif
