#include "ZAQShareMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>

namespace {

constexpr mode_t kFileMode = 0777;  // less the process's umask

// What is added to the flags changes nothing about a file that this class has made. In a directory
// that everybody writes to, it keeps others from leading the process elsewhere or holding it up:
//   O_NOFOLLOW  a symbolic link would have some other file changed, or made
//   O_NONBLOCK  a file lease holds up open() for 45 seconds, a serial line until it is connected
//   O_NOCTTY    a terminal would become the process's own
//   O_CLOEXEC   the programs that the host starts have no use for the table
int OpenFile(const char* name, int flags) {
    const int file =
        open(name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags, kFileMode);
    if (file < 0 || file > STDERR_FILENO)
        return file;
    // The host has closed a standard stream. As its input the file would count as none here, and as
    // one of the others it would be written to by whoever prints something.
    const int other = fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(file);
    return other;
}

// Can the object take this file, being closed?
bool CanTake(const CZAQShareMemory& segment, const char* name) {
    return segment.Address == nullptr && segment.File == 0 && name != nullptr &&
           strnlen(name, sizeof(segment.Name)) < sizeof(segment.Name);
}

// Grows the file to `size` by writing single zero bytes: unlike ftruncate() this leaves no holes,
// so a full disk shows here as a failed write and not later as SIGBUS in the mapping.
bool FillWithZeros(int file, uint32_t size) {
    const unsigned char zero = 0;
    const off_t end = lseek(file, 0, SEEK_END);
    // A write beyond the process's limit does more than fail: its SIGXFSZ ends the host.
    rlimit limit{};
    if (end < 0 || getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur < size)
        return false;
    for (auto length = static_cast<uint32_t>(end); length < size; ++length) {
        if (write(file, &zero, 1) != 1)
            return false;
    }
    return true;
}

// Maps the object's file, a new one filled. On failure the file is closed, and a new one removed.
int Map(CZAQShareMemory& segment, const char* name, uint32_t size, bool isNew) {
    void* address = MAP_FAILED;
    if (!isNew || FillWithZeros(segment.File, size))
        address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, segment.File, 0);
    if (address == MAP_FAILED) {
        close(segment.File);
        segment.File = 0;
        if (isNew)
            unlink(name);
        return 0;
    }
    segment.Address = static_cast<unsigned char*>(address);
    segment.Size = size;
    memcpy(segment.Name, name, strlen(name) + 1);  // it fits: CanTake
    return 1;
}

int Synchronize(const CZAQShareMemory& segment, int flags) {
    if (segment.Address == nullptr || segment.File == 0)
        return 0;
    return msync(segment.Address, segment.Size, flags) == 0 ? 1 : 0;
}

}  // namespace

CZAQShareMemory::~CZAQShareMemory() {
    CZAQShareMemory::Close();
}

unsigned char* CZAQShareMemory::GetPointer() {
    return Address;
}

uint32_t CZAQShareMemory::GetOwner() {
    return Owner;
}

uint32_t CZAQShareMemory::GetSize() {
    return Size;
}

int CZAQShareMemory::Create(char* name, unsigned int size, int openExisting) {
    if (!CanTake(*this, name))
        return 0;
    // An earlier process of this user keeps its mapping of the file, which loses its name here.
    unlink(name);
    File = OpenFile(name, O_CREAT | O_EXCL);
    const bool isNew = File >= 0;
    if (!isNew && openExisting != 0)
        File = OpenFile(name, O_CREAT);
    if (File < 0)
        return 0;
    Owner = isNew ? 1 : 0;
    return Map(*this, name, size, isNew);
}

int CZAQShareMemory::Open(char* name, unsigned int size) {
    if (!CanTake(*this, name))
        return 0;
    unlink(name);
    File = OpenFile(name, 0);
    if (File < 0 || Map(*this, name, size, false) == 0)
        return 0;
    Owner = 0;
    return 1;
}

void CZAQShareMemory::Close() {
    if (Address == nullptr || File == 0)
        return;
    msync(Address, Size, MS_SYNC);
    munmap(Address, Size);
    Address = nullptr;
    close(File);
    File = 0;
    if (Owner != 0)
        unlink(Name);
    Owner = 0;
    Size = 0;
    memset(Name, 0, sizeof(Name));
}

int CZAQShareMemory::Flush() {
    return Synchronize(*this, MS_ASYNC);
}

int CZAQShareMemory::Invalidate() {
    return Synchronize(*this, MS_INVALIDATE);
}
