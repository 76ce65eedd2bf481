// A named file mapped into the process, shared and writable.
#ifndef COMMON_ZAQSHAREMEMORY_H
#define COMMON_ZAQSHAREMEMORY_H

#include <cstdint>

#include "Export.h"

// States: closed (File 0, Address null), open (both set), and stuck: an open() that failed leaves
// its negative result in File, and the object then refuses every further Create and Open.
//
// Thread safety: none; one thread at a time. Threads and processes that share the mapped bytes must
// agree on that among themselves. Paths are NUL-terminated and shorter than 1024 bytes;
// longer ones are refused. Sizes are in bytes. Results: 1 done, 0 failed.
class ZAQ_EXPORT CZAQShareMemory {
  public:
    // A constant initialiser: an object in static storage is closed and usable before any
    // constructor of the library has run.
    constexpr CZAQShareMemory() noexcept : File(0), Address(nullptr), Owner(0), Size(0), Name{} {}
    CZAQShareMemory(const CZAQShareMemory&) = delete;
    CZAQShareMemory& operator=(const CZAQShareMemory&) = delete;

    // The order of the virtual functions is part of the binary interface.
    virtual ~CZAQShareMemory();  // closes
    virtual unsigned char* GetPointer();
    virtual uint32_t GetOwner();  // 1 = this object created the file
    virtual uint32_t GetSize();
    // Removes the path, then creates the file, zero-filled, and maps it: the caller owns a fresh
    // one. Where the path could not be removed and openExisting is not 0, the file that is there is
    // mapped as it is, at whatever length it has.
    virtual int Create(char* name, unsigned int size, int openExisting);
    // Maps a file that this process cannot remove: removal comes first here, too.
    virtual int Open(char* name, unsigned int size);
    virtual void Close();  // the owner's close also removes the path
    virtual int Flush();
    virtual int Invalidate();

    int32_t File;  // descriptor; 0 = none
    unsigned char* Address;
    uint32_t Owner;
    uint32_t Size;
    char Name[1024];
};

#endif
