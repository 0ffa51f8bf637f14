// The CPU-list grammar and the descriptor owner, which stand alone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <iterator>
#include <memory>
#include <tuple>

#include "CPUTopology.h"
#include "FileDescriptor.h"

namespace {

using Engine::CPUTopology;

// Each text is parsed, and read from a file, where a refused list gives no CPUs at all.
TEST(CPUTopologyTest, GrammarAcceptsAndRefusesAndAFileGivesAllOrNothing) {
    char path[] = "/tmp/ftrace-cpus-XXXXXX";
    ::close(::mkstemp(path));
    // Text, accepted, what is written (also what a refused text leaves behind).
    const std::tuple<std::string, bool, std::vector<int>> cases[] = {
        {"0-3,8-11\n", true, {0, 1, 2, 3, 8, 9, 10, 11}},
        {"\t0 - 2 , 5\r\n", true, {0, 1, 2, 5}},
        {"3-1,4", true, {4}},  // a reversed range is well-formed and empty
        {"2147483646-2147483647", true, {INT_MAX - 1, INT_MAX}},  // stops at INT_MAX, no wrap
        {"", false, {}},
        {"0-3,", false, {0, 1, 2, 3}},
        {"2147483648", false, {}},
        {"1\xa0", false, {1}},  // bytes of 128 and more are never blanks
    };
    for (const auto& [text, accepted, written] : cases) {
        SCOPED_TRACE("text \"" + text + "\"");
        std::vector<int> out;
        EXPECT_EQ(accepted, CPUTopology::ParseCPUs(text.begin(), text.end(), std::back_inserter(out)));
        EXPECT_EQ(written, out);
        std::ofstream(path) << text;
        EXPECT_EQ(accepted ? written : std::vector<int>(), CPUTopology::GetCPUs(path));
    }
    ::unlink(path);
    for (const std::string& unreadable : {std::string(path), std::string("/tmp")})
        EXPECT_EQ(std::vector<int>(), CPUTopology::GetCPUs(unreadable));
    // A sysfs list reports size 0: it must be read to its end all the same.
    EXPECT_EQ(static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN)), CPUTopology::GetOnlineCPUs().size());
}

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }
int OpenTemporary() { return ::open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600); }

TEST(FileDescriptorTest, MoveHandsOverAndDestructionClosesOnce) {
    const int number = OpenTemporary();
    auto source = std::make_unique<FileDescriptor>(number);
    FileDescriptor(std::move(*source));  // the temporary closes it
    EXPECT_FALSE(IsOpen(number));
    // The freed number is taken by the next open; the moved-from handle must leave that file alone.
    ASSERT_EQ(number, OpenTemporary());
    source.reset();
    EXPECT_TRUE(IsOpen(number));
    ::close(number);
}

}  // namespace
