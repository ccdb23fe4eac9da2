#include "platform/standard_streams.h"

#include "tests/support/child_process.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>

namespace {

// Whether reading from `stream` 0, or writing to another one, fails because it is not open for that.
bool is_unusable(int stream) {
    char byte = 0;
    errno = 0;
    const ssize_t count = stream == 0 ? read(stream, &byte, 1) : write(stream, &byte, 1);
    return count < 0 && errno == EBADF;
}

TEST(StandardStreams, ThatAreClosedAreReservedAndStayUnusable) {
    for (unsigned closed = 0; closed < 8; ++closed) {
        const int wrong = in_child([closed] {
            for (int stream = 0; stream < 3; ++stream)
                if ((closed >> static_cast<unsigned>(stream) & 1U) != 0)
                    close(stream);
            reserve_standard_fds();
            for (int stream = 0; stream < 3; ++stream) {
                const bool was_closed = (closed >> static_cast<unsigned>(stream) & 1U) != 0;
                if (fcntl(stream, F_GETFD) < 0 || (was_closed && !is_unusable(stream)))
                    return stream + 1;
            }
            return open("/dev/null", O_RDONLY) > 2 ? 0 : 4;
        });
        EXPECT_EQ(wrong, 0) << "closed: " << closed;
    }
}

TEST(StandardStreams, ThatAreOpenStayAsTheyAre) {
    const int result = in_child([] {
        int ends[2];
        if (pipe(ends) != 0 || dup2(ends[1], 1) != 1)
            return 1;
        reserve_standard_fds();
        char byte = 0;
        return write(1, "x", 1) == 1 && read(ends[0], &byte, 1) == 1 && byte == 'x' ? 0 : 2;
    });
    EXPECT_EQ(result, 0);
}

} // namespace
