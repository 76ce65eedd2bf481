#include "page/Snapshot.h"

#include <utility>

void Board::publish(std::shared_ptr<const Snapshot> snapshot) {
    {
        const std::lock_guard lock(mutex_);
        std::swap(snapshot_, snapshot);
    }
    changed_.notify_all();
    // The old one is freed here, without the lock, if nobody uses it.
}

std::shared_ptr<const Snapshot> Board::latest() const {
    const std::lock_guard lock(mutex_);
    return snapshot_;
}

std::shared_ptr<const Snapshot> Board::await(uint64_t seen) const {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return closed_ || (snapshot_ && snapshot_->number > seen); });
    return closed_ ? nullptr : snapshot_;
}

void Board::close() {
    {
        const std::lock_guard lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}
