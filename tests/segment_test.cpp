// The file-backed segment.
#include "ZAQShareMemory.h"

#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <array>

#include "ProcessSupport.h"

namespace {

constexpr uint32_t kSize = 17680;

void Put(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

TEST(Segment, OwnerMakesAFreshFileAndRemovesItAtClose) {
    std::string path = "/tmp/segment";
    CZAQShareMemory first, second;
    Put(path, "left over");
    const mode_t old = umask(027);
    ASSERT_EQ(first.Create(path.data(), kSize, 0), 1);
    umask(old);
    struct stat status {};
    stat(path.c_str(), &status);
    EXPECT_EQ(status.st_mode & 0777u, 0750u);
    EXPECT_EQ(Contents(path), std::string(kSize, '\0'));
    first.GetPointer()[kSize - 1] = 'x';
    // An open object refuses, and removes nothing.
    EXPECT_EQ(first.Create(path.data(), 1, 1) + first.Open(path.data(), 1), 0);
    EXPECT_EQ(Contents(path).back(), 'x');
    // Another one takes the name away; the first keeps its bytes.
    ASSERT_EQ(second.Create(path.data(), kSize, 1), 1);
    EXPECT_EQ(second.GetPointer()[kSize - 1] + first.GetPointer()[kSize - 1], 'x');
    for (const char* const left : {"", "another's"}) {  // open, and then closed
        const bool open = *left == '\0';
        EXPECT_EQ(second.GetPointer() != nullptr && second.File != 0 && second.Name == path, open);
        EXPECT_EQ(second.GetOwner() + second.GetSize(), open ? 1 + kSize : 0);
        EXPECT_EQ(second.Flush() + second.Invalidate(), open ? 2 : 0);
        second.Close();
        EXPECT_EQ(Contents(path), left);
        Put(path, "another's");
    }
}

// As a user that may neither remove the file nor make others beside it.
TEST(Segment, AFileThatCannotBeRemovedIsJoinedOrRefused) {
    enum : uint32_t { kCreate, kJoin, kOpen, kRefused, kMapped, kStuck };
    static const std::array<uint32_t, 4> kCases[] =  // how, mode of the file, size, outcome
        {{kJoin, 0666, kSize, kMapped},  {kOpen, 0666, kSize, kMapped},
         {kJoin, 0600, kSize, kStuck},   {kOpen, 0600, kSize, kStuck},
         {kCreate, 0666, kSize, kStuck}, {kJoin, 0666, 0, kRefused},
         {kOpen, 0666, 0, kRefused}};  // a mapping of no bytes fails
    mkdir("/tmp/fixed", 0755);
    std::string path = "/tmp/fixed/segment", other = "/tmp/other";
    for (const auto& [how, mode, size, result] : kCases) {
        SCOPED_TRACE(testing::Message() << how << ' ' << mode << ' ' << size);
        Put(path, "what was there");
        chmod(path.c_str(), mode);
        CZAQShareMemory segment;
        EXPECT_EQ(segment.Create(other.data(), 0, 1), 0);  // and leaves Owner set
        setfsuid(65534);                                   // of this thread only
        const int mapped =
            how == kOpen ? segment.Open(path.data(), size) : segment.Create(path.data(), size, how);
        setfsuid(0);
        EXPECT_EQ(mapped, result == kMapped);
        EXPECT_EQ(segment.GetSize(), result == kMapped ? size : 0);
        EXPECT_TRUE(result != kMapped || segment.GetOwner() + segment.GetPointer()[0] == 'w');
        segment.Close();
        EXPECT_EQ(Contents(path), "what was there");
        // A stuck object stays so; any other one can be used again.
        EXPECT_EQ(segment.Create(other.data(), 10, 1), result != kStuck);
        EXPECT_EQ(segment.File < 0, result == kStuck);
    }
}

TEST(Segment, FailuresLeaveNothingBehind) {
    std::string path = "/tmp/segment", longest = "/tmp" + std::string(1012, '/') + "segment";
    CZAQShareMemory segment, other;
    const rlimit shorter{kSize - 1, RLIM_INFINITY}, none{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &shorter);
    for (const uint32_t size : {kSize, 0u}) {
        EXPECT_EQ(segment.Create(path.data(), size, 1) + segment.Create(nullptr, size, 1), 0);
        EXPECT_NE(access(path.c_str(), F_OK), 0);
    }
    setrlimit(RLIMIT_FSIZE, &none);
    EXPECT_TRUE(segment.Create(longest.data(), kSize, 0) && segment.Name == longest);  // 1023 bytes
    longest.insert(0, 1, '/');
    EXPECT_EQ(other.Create(longest.data(), kSize, 1) + other.Open(longest.data(), kSize), 0);
    EXPECT_EQ(Contents(path).size(), kSize);
    EXPECT_EQ(other.Open(path.data(), kSize), 0);  // removes before it looks
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

}  // namespace
