// The file-backed segment.
#include "ZAQShareMemory.h"

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <string>

namespace {

constexpr uint32_t kSize = 17680;

void Put(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

// The file's bytes; none when it is not there.
std::string Text(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
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
    EXPECT_EQ(Text(path), std::string(kSize, '\0'));
    EXPECT_EQ(first.GetOwner() + first.GetSize(), 1 + kSize);
    first.GetPointer()[kSize - 1] = 'x';
    // An open object refuses, and removes nothing.
    EXPECT_EQ(first.Create(path.data(), 1, 1) + first.Open(path.data(), 1), 0);
    EXPECT_EQ(Text(path).back(), 'x');
    // Another one takes the name away; the first keeps its bytes.
    ASSERT_EQ(second.Create(path.data(), kSize, 1), 1);
    EXPECT_EQ(second.GetPointer()[kSize - 1] + first.GetPointer()[kSize - 1], 'x');
    for (const bool open : {true, false}) {
        EXPECT_EQ(second.GetPointer() != nullptr && second.File != 0 && second.Name == path, open);
        EXPECT_EQ(second.GetOwner() + second.GetSize(), open ? 1 + kSize : 0);
        EXPECT_EQ(second.Flush() + second.Invalidate(), open ? 2 : 0);
        second.Close();
        EXPECT_EQ(Text(path), open ? "" : "another's");
        Put(path, "another's");
    }
}

// As a user that may neither remove the file nor make others beside it.
TEST(Segment, AFileThatCannotBeRemovedIsJoinedOrRefused) {
    enum Way { kJoin, kCreate, kOpen };
    static const struct {
        Way How;
        mode_t Mode;
        uint32_t Size;
        bool Mapped, Stuck;
    } kCases[] = {{kJoin, 0666, kSize, true, false},   {kOpen, 0666, kSize, true, false},
                  {kCreate, 0666, kSize, false, true}, {kJoin, 0600, kSize, false, true},
                  {kOpen, 0600, kSize, false, true},   {kJoin, 0666, 0, false, false},
                  {kOpen, 0666, 0, false, false}};  // a mapping of no bytes fails
    mkdir("/tmp/fixed", 0755);
    std::string path = "/tmp/fixed/segment", other = "/tmp/other";
    for (const auto& test : kCases) {
        SCOPED_TRACE(&test - kCases);
        Put(path, "what was there");
        chmod(path.c_str(), test.Mode);
        CZAQShareMemory segment;
        EXPECT_EQ(segment.Create(other.data(), 0, 1), 0);  // and leaves Owner set
        setfsuid(65534);                                   // of this thread only
        EXPECT_EQ(test.How == kOpen ? segment.Open(path.data(), test.Size)
                                    : segment.Create(path.data(), test.Size, test.How == kJoin),
                  test.Mapped);
        setfsuid(0);
        EXPECT_TRUE(segment.GetOwner() == 0 || !test.Mapped);
        EXPECT_EQ(segment.GetSize(), test.Mapped ? test.Size : 0);
        EXPECT_EQ(segment.GetPointer() != nullptr && segment.GetPointer()[0] == 'w', test.Mapped);
        segment.Close();
        EXPECT_EQ(Text(path), "what was there");
        // A stuck object stays so; any other one can be used again.
        EXPECT_EQ(segment.Create(other.data(), 10, 1), !test.Stuck);
        EXPECT_EQ(segment.File < 0, test.Stuck);
    }
}

TEST(Segment, FailuresLeaveNothingBehind) {
    std::string path = "/tmp/segment", longest = "/tmp" + std::string(1012, '/') + "segment";
    CZAQShareMemory segment, other;
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit shorter{kSize - 1, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &shorter);
    EXPECT_EQ(segment.Create(path.data(), kSize, 1), 0);
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(segment.Create(path.data(), 0, 1) + segment.Create(nullptr, kSize, 1), 0);
    EXPECT_NE(access(path.c_str(), F_OK), 0);

    EXPECT_EQ(segment.Create(longest.data(), kSize, 0), 1);  // 1023 bytes
    EXPECT_EQ(segment.Name, longest);
    longest.insert(0, 1, '/');
    EXPECT_EQ(other.Create(longest.data(), kSize, 1) + other.Open(longest.data(), kSize), 0);
    EXPECT_EQ(Text(path).size(), kSize);
    EXPECT_EQ(other.Open(path.data(), kSize), 0);  // removes before it looks
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

}  // namespace
