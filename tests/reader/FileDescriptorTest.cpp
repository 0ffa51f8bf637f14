#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <system_error>

#include "FileDescriptor.h"

namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

class FileDescriptorTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ftrace-fd-XXXXXX";
        const int fd = ::mkstemp(pattern);
        ASSERT_GE(fd, 0);
        ::close(fd);
        path = pattern;
    }
    void TearDown() override { ::unlink(path.c_str()); }
    int Open() const { return ::open(path.c_str(), O_RDWR | O_CLOEXEC); }
    std::string path;
};

TEST_F(FileDescriptorTest, MoveHandsOverAndDestructionClosesOnce) {
    const int number = Open();
    auto source = std::make_unique<FileDescriptor>(number);
    {
        FileDescriptor target(std::move(*source));
        EXPECT_EQ(-1, source->get());
        EXPECT_TRUE(IsOpen(number));
    }
    EXPECT_FALSE(IsOpen(number));
    // The freed number is taken by the next open; the moved-from handle must leave that file alone.
    ASSERT_EQ(number, Open());
    source.reset();
    EXPECT_TRUE(IsOpen(number));

    FileDescriptor holder(number), other(Open());
    const int kept = other.get();
    holder = std::move(other);
    EXPECT_FALSE(IsOpen(number));
    EXPECT_TRUE(IsOpen(kept));
    EXPECT_EQ(kept, holder.get());
}

TEST_F(FileDescriptorTest, DescribesAnOpenFile) {
    FileDescriptor fd(Open());
    ASSERT_EQ(123, ::write(fd.get(), std::string(123, 'x').data(), 123));
    EXPECT_TRUE(S_ISREG(mode(fd)));
    EXPECT_EQ(0600u, mode(fd) & 0777u);  // mkstemp's permissions
    EXPECT_EQ(123, size(fd));
    EXPECT_EQ(path, filename(fd));
    ASSERT_EQ(0, ::unlink(path.c_str()));
    EXPECT_EQ(path + " (deleted)", filename(fd));
    std::ostringstream text;
    text << FileDescriptor() << ',' << fd;
    EXPECT_EQ("-1," + std::to_string(fd.get()), text.str());
}

TEST_F(FileDescriptorTest, EmptyHandleThrowsOrYieldsNothing) {
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
}

}  // namespace
