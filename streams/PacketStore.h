// Packets that wait, one behind the other in memory.
#ifndef STREAMS_PACKETSTORE_H
#define STREAMS_PACKETSTORE_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ts {

// First in, first out. put() may move what is there, so pointers last until then.
class PacketStore {
  public:
    void put(std::span<const uint8_t> bytes) {
        if (begin_ >= bytes_.size() / 2) {
            bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(begin_));
            begin_ = 0;
            // The first second, by which a rate is told, takes more room than what follows.
            if (bytes_.capacity() > kRoomKept && bytes_.capacity() / 8 > bytes_.size())
                bytes_.shrink_to_fit();
        }
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    }
    void drop(size_t bytes) { begin_ += bytes; }

    size_t size() const { return bytes_.size() - begin_; }
    uint8_t* data() { return bytes_.data() + begin_; }

  private:
    static constexpr size_t kRoomKept = size_t{512} * 1024;

    std::vector<uint8_t> bytes_;
    size_t begin_ = 0;
};

}  // namespace ts

#endif
