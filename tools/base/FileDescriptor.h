#ifndef TOOLS_BASE_FILEDESCRIPTOR_H
#define TOOLS_BASE_FILEDESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <utility>

// A descriptor that is closed with its owner, unless it is one of the standard streams.
class FileDescriptor {
  public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { static_cast<void>(close()); }

    int get() const { return descriptor_; }

    // False, with errno, when what was written did not arrive: on file systems of other machines,
    // a full disk or a quota may show only now. A standard stream stays open.
    bool close() {
        const bool standard = descriptor_ <= STDERR_FILENO;
        const int descriptor = standard ? descriptor_ : std::exchange(descriptor_, -1);
        if (descriptor < 0)
            return true;
        // On Linux the descriptor is closed after EINTR, too.
        const int closed = standard ? dup(descriptor) : descriptor;
        return ::close(closed) == 0 || errno == EINTR;
    }

  private:
    int descriptor_;
};

#endif
