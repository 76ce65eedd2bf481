#ifndef TOOLS_FILEDESCRIPTOR_H
#define TOOLS_FILEDESCRIPTOR_H

#include <unistd.h>

// A descriptor that is closed with its owner, unless it is one of the standard streams.
class FileDescriptor {
  public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (descriptor_ > STDERR_FILENO)
            close(descriptor_);
    }

    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

#endif
