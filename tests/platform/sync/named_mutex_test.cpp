#include "platform/sync/named_mutex.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "runtime/common/win_error.h"
#include "support/temp_dir.h"

namespace qlb::platform {
namespace {

TEST(NamedMutex, ExistsExactlyWhileAHandleIsOpenAndNeedsAName) {
    const qlb::testing::TempDir dir;
    NamedMutexSpace space(dir.Path());
    EXPECT_EQ(space.Open(L"QLBMainServiceHandle").error, win::ERROR_FILE_NOT_FOUND);
    auto created = space.Create(L"QLBMainServiceHandle");
    ASSERT_TRUE(created.ok());
    EXPECT_EQ(created.value.lastError, 0u);
    EXPECT_TRUE(space.Exists(L"QLBMainServiceHandle"));

    auto opened = space.Open(L"QLBMainServiceHandle");
    ASSERT_TRUE(opened.ok());
    auto second = space.Create(L"QLBMainServiceHandle");
    ASSERT_TRUE(second.ok());
    EXPECT_EQ(second.value.lastError, win::ERROR_ALREADY_EXISTS);

    // An open handle keeps the mutex alive after its creator's handle is gone.
    created.value.handle.reset();
    second.value.handle.reset();
    EXPECT_TRUE(space.Exists(L"QLBMainServiceHandle"));
    opened.value.reset();
    EXPECT_FALSE(space.Exists(L"QLBMainServiceHandle"));
    EXPECT_EQ(space.Open(L"QLBMainServiceHandle").error, win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(space.Create(L"").error, win::ERROR_INVALID_NAME);
    EXPECT_EQ(space.Open(L"").error, win::ERROR_INVALID_NAME);
}

TEST(NamedMutex, AnotherProcessSeesItAndItDiesWithItsHolder) {
    const qlb::testing::TempDir dir;
    NamedMutexSpace space(dir.Path());
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        auto created = space.Create(L"Held");
        const char byte = created.ok() ? 1 : 0;
        [[maybe_unused]] auto n = ::write(ready[1], &byte, 1);
        ::pause();
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ASSERT_EQ(byte, 1);
    EXPECT_TRUE(space.Open(L"Held").ok());
    EXPECT_EQ(space.Create(L"Held").value.lastError, win::ERROR_ALREADY_EXISTS);
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_FALSE(space.Exists(L"Held"));
    EXPECT_EQ(space.Open(L"Held").error, win::ERROR_FILE_NOT_FOUND);
    ::close(ready[0]);
    ::close(ready[1]);
}

}  // namespace
}  // namespace qlb::platform
