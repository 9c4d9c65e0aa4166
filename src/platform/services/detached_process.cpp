#include "platform/services/detached_process.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/services/service_state_store.h"

#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif

namespace qlb::platform {
namespace {

bool ReadFull(int fd, void* out, std::size_t size) {
    auto* p = static_cast<char*>(out);
    std::size_t got = 0;
    while (got < size) {
        const ssize_t n = ::read(fd, p + got, size - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        got += static_cast<std::size_t>(n);
    }
    return true;
}

void CloseAll(std::initializer_list<int> fds) {
    for (const int fd : fds) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

}  // namespace

SysResult<DetachedProcess> StartDetachedProcess(
    const std::filesystem::path& binary, const std::function<void(const DetachedProcess&)>& beforeExec) {
    using R = SysResult<DetachedProcess>;
    if (::access(binary.c_str(), F_OK) != 0) {
        return R::Fail(win::ERROR_FILE_NOT_FOUND);
    }
    if (::access(binary.c_str(), X_OK) != 0) {
        return R::Fail(win::ERROR_ACCESS_DENIED);
    }
    // Everything the children touch is made before fork: the starter may have threads.
    const std::string path = binary.string();
    char* const argv[] = {const_cast<char*>(path.c_str()), nullptr};
    const int devNull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    int pidPipe[2] = {-1, -1};   // grandchild -> starter: its pid
    int goPipe[2] = {-1, -1};    // starter -> grandchild: state published, exec now
    int execPipe[2] = {-1, -1};  // grandchild -> starter: errno of a failed exec; closed by a good one
    if (devNull < 0 || ::pipe2(pidPipe, O_CLOEXEC) != 0 || ::pipe2(goPipe, O_CLOEXEC) != 0 ||
        ::pipe2(execPipe, O_CLOEXEC) != 0) {
        const int err = errno;
        CloseAll({devNull, pidPipe[0], pidPipe[1], goPipe[0], goPipe[1], execPipe[0], execPipe[1]});
        return R::Fail(win::FromErrno(err));
    }

    const pid_t child = ::fork();
    if (child < 0) {
        const int err = errno;
        CloseAll({devNull, pidPipe[0], pidPipe[1], goPipe[0], goPipe[1], execPipe[0], execPipe[1]});
        return R::Fail(win::FromErrno(err));
    }
    if (child == 0) {
        // The intermediate child: a new session, then the grandchild, then gone, so the service is
        // nobody's child and no zombie waits for the starter.
        ::close(pidPipe[0]);
        ::close(goPipe[1]);
        ::close(execPipe[0]);
        ::setsid();
        const pid_t grandchild = ::fork();
        if (grandchild != 0) {
            ::_exit(grandchild < 0 ? 1 : 0);
        }
        const pid_t self = ::getpid();
        if (::write(pidPipe[1], &self, sizeof(self)) != static_cast<ssize_t>(sizeof(self))) {
            ::_exit(127);
        }
        char go = 0;
        if (::read(goPipe[0], &go, 1) != 1) {
            ::_exit(127);
        }
        ::dup2(devNull, 0);
        ::dup2(devNull, 1);
        ::dup2(devNull, 2);
        ::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
        if (::chdir("/") != 0) {
            // The service does not depend on its working directory.
        }
        ::execv(argv[0], argv);
        const int err = errno;
        [[maybe_unused]] const ssize_t n = ::write(execPipe[1], &err, sizeof(err));
        ::_exit(127);
    }

    CloseAll({devNull, pidPipe[1], goPipe[0], execPipe[1]});
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    pid_t grandchild = 0;
    const bool gotPid = ReadFull(pidPipe[0], &grandchild, sizeof(grandchild));
    ::close(pidPipe[0]);
    if (!gotPid) {
        CloseAll({goPipe[1], execPipe[0]});
        return R::Fail(win::ERROR_INVALID_FUNCTION);
    }
    DetachedProcess started{grandchild, ProcessStartTime(grandchild).value_or(0)};
    if (beforeExec) {
        beforeExec(started);
    }
    const char go = 1;
    const bool released = ::write(goPipe[1], &go, 1) == 1;
    ::close(goPipe[1]);
    int execErr = 0;
    const bool failed = ReadFull(execPipe[0], &execErr, sizeof(execErr));
    ::close(execPipe[0]);
    if (!released) {
        return R::Fail(win::ERROR_INVALID_FUNCTION);
    }
    if (failed) {
        return R::Fail(win::FromErrno(execErr));
    }
    return R::Ok(started);
}

}  // namespace qlb::platform
