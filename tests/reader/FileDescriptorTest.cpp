#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>
#include <sstream>
#include <string>
#include <system_error>

#include "FileDescriptor.h"

namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

class FileDescriptorTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ftrace-fd-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(pattern));
        dir = pattern;
    }
    void TearDown() override {
        ::unlink(path("file").c_str());
        ::rmdir(dir.c_str());
    }
    std::string path(const char* name) const { return dir + "/" + name; }
    int OpenFile(const char* name, const std::string& content = "") {
        const int fd = ::open(path(name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(static_cast<ssize_t>(content.size()), ::write(fd, content.data(), content.size()));
        return fd;
    }
    std::string dir;
};

TEST_F(FileDescriptorTest, MoveHandsOverAndDestructionClosesOnce) {
    const int number = OpenFile("file");
    auto source = std::make_unique<FileDescriptor>(number);
    {
        FileDescriptor target(std::move(*source));
        EXPECT_EQ(-1, source->get());
        EXPECT_FALSE(source->valid());
        EXPECT_TRUE(IsOpen(number));
    }
    EXPECT_FALSE(IsOpen(number));
    // The number is free again: the next open takes it, and the moved-from
    // handle must not close that new file when it goes.
    const int reused = OpenFile("file");
    ASSERT_EQ(number, reused);
    source.reset();
    EXPECT_TRUE(IsOpen(reused));

    FileDescriptor holder(reused);
    FileDescriptor other(OpenFile("file"));
    const int other_number = other.get();
    holder = std::move(other);  // the previously held file is closed, the new one kept
    EXPECT_FALSE(IsOpen(reused));
    EXPECT_TRUE(IsOpen(other_number));
    EXPECT_EQ(other_number, holder.get());
    EXPECT_EQ(-1, other.get());
}

TEST_F(FileDescriptorTest, ModeAndSizeOfARegularFile) {
    FileDescriptor fd(OpenFile("file", std::string(123, 'x')));
    EXPECT_TRUE(S_ISREG(mode(fd)));
    EXPECT_EQ(0600u, mode(fd) & 0777u);
    EXPECT_EQ(123, size(fd));
}

TEST_F(FileDescriptorTest, BadDescriptorThrowsOrYieldsNothing) {
    const FileDescriptor empty;
    for (auto call : {+[](const FileDescriptor& f) { (void)mode(f); }, +[](const FileDescriptor& f) { (void)size(f); }}) {
        try {
            call(empty);
            ADD_FAILURE() << "no exception";
        } catch (const std::system_error& e) {
            EXPECT_EQ(std::error_code(EBADF, std::system_category()), e.code());
            EXPECT_NE(std::string::npos, std::string(e.what()).find("fstat")) << e.what();
        }
    }
    EXPECT_EQ("", filename(empty));
    const FileDescriptor held(::dup(0));
    std::ostringstream text;
    text << empty << ',' << held;
    EXPECT_EQ("-1," + std::to_string(held.get()), text.str());
}

TEST_F(FileDescriptorTest, FilenameFollowsTheKernelLink) {
    FileDescriptor fd(OpenFile("file"));
    EXPECT_EQ(path("file"), filename(fd));
    ASSERT_EQ(0, ::unlink(path("file").c_str()));
    EXPECT_EQ(path("file") + " (deleted)", filename(fd));
}

// The kernel's link text can reach 4095 characters: it must come back whole.
TEST_F(FileDescriptorTest, FilenameOfTheLongestPathTheKernelReports) {
    const size_t target_length = 4095;
    std::string full = dir;
    // Beyond PATH_MAX only relative walks work: keep every directory open.
    std::vector<std::pair<FileDescriptor, std::string>> entries;  // parent, name
    entries.emplace_back(FileDescriptor(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), "");
    ASSERT_TRUE(entries.back().first.valid());
    FileDescriptor leaf;
    while (!leaf.valid()) {
        const int parent = entries.back().first.get();
        const size_t left = target_length - full.size() - 1;  // room after the next "/"
        if (left <= 255) {
            const std::string name(left, 'f');
            leaf.reset(::openat(parent, name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
            ASSERT_TRUE(leaf.valid()) << std::strerror(errno);
            entries.emplace_back(FileDescriptor(), name);
            full += "/" + name;
        } else {
            const std::string name(250, 'd');
            ASSERT_EQ(0, ::mkdirat(parent, name.c_str(), 0700));
            entries.emplace_back(FileDescriptor(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), name);
            ASSERT_TRUE(entries.back().first.valid());
            full += "/" + name;
        }
    }
    ASSERT_EQ(target_length, full.size());
    EXPECT_EQ(full, filename(leaf));
    for (size_t i = entries.size() - 1; i > 0; --i)
        EXPECT_EQ(0, ::unlinkat(entries[i - 1].first.get(), entries[i].second.c_str(), i + 1 == entries.size() ? 0 : AT_REMOVEDIR));
}

}  // namespace
