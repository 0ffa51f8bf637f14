#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <system_error>

#include "FileDescriptor.h"

namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }
int OpenTemporary() { return ::open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600); }

TEST(FileDescriptorTest, MoveHandsOverAndDestructionClosesOnce) {
    const int number = OpenTemporary();
    auto source = std::make_unique<FileDescriptor>(number);
    {
        FileDescriptor target(std::move(*source));
        EXPECT_TRUE(IsOpen(number));
    }
    EXPECT_FALSE(IsOpen(number));
    // The freed number is taken by the next open; the moved-from handle must leave that file alone.
    ASSERT_EQ(number, OpenTemporary());
    source.reset();
    EXPECT_TRUE(IsOpen(number));

    FileDescriptor holder(number), other(OpenTemporary());
    const int kept = other.get();
    holder = std::move(other);  // closes what the target held
    EXPECT_FALSE(IsOpen(number));
    EXPECT_EQ(kept, holder.get());
    EXPECT_TRUE(IsOpen(kept));
}

TEST(FileDescriptorTest, DescribesAnOpenFileAndThrowsForNone) {
    FileDescriptor fd(OpenTemporary());
    ASSERT_EQ(123, ::write(fd.get(), std::string(123, 'x').data(), 123));
    EXPECT_TRUE(S_ISREG(mode(fd)));
    EXPECT_EQ(123, size(fd));
    try {
        (void)size(FileDescriptor());
        ADD_FAILURE() << "no exception";
    } catch (const std::system_error& e) {
        EXPECT_EQ(std::error_code(EBADF, std::system_category()), e.code());
        EXPECT_NE(std::string::npos, std::string(e.what()).find("fstat")) << e.what();
    }
    EXPECT_EQ("", filename(FileDescriptor()));
}

}  // namespace
