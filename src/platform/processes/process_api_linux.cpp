#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>

#include "platform/processes/process_api.h"
#include "runtime/common/strings.h"

extern char** environ;

namespace qlb::platform {
namespace {

int PidfdOpen(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

int PidfdSendSignal(int fd, int sig) {
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, fd, sig, nullptr, 0));
}

class LinuxProcess final : public Process {
  public:
    LinuxProcess(std::uint32_t pid, int fd) : pid_(pid), fd_(fd) {}
    ~LinuxProcess() override { ::close(fd_); }
    LinuxProcess(const LinuxProcess&) = delete;
    LinuxProcess& operator=(const LinuxProcess&) = delete;

    std::uint32_t Pid() const override { return pid_; }

    DWORD Wait(DWORD timeoutMs) override {
        pollfd p{fd_, POLLIN, 0};
        const int timeout =
            timeoutMs == INFINITE ? -1 : static_cast<int>(std::min<DWORD>(timeoutMs, INT_MAX));
        for (;;) {
            const int n = ::poll(&p, 1, timeout);
            if (n > 0) {
                return WAIT_OBJECT_0;
            }
            if (n == 0) {
                return WAIT_TIMEOUT;
            }
            if (errno != EINTR) {
                return WAIT_FAILED;
            }
            // An interrupted wait starts over; the limits here are coarse (seconds), so the small
            // extension is harmless.
        }
    }

    SysStatus Terminate(DWORD /*exitCode*/) override {
        if (PidfdSendSignal(fd_, SIGKILL) == 0) {
            return SysStatus::Ok();
        }
        // A process that has already ended counts as ended.
        if (errno == ESRCH) {
            return SysStatus::Ok();
        }
        return SysStatus::Fail(win::FromErrno(errno));
    }

  private:
    std::uint32_t pid_;
    int fd_;
};

bool ParsePid(const char* text, std::uint32_t& pid) {
    const char* end = text + std::strlen(text);
    auto [ptr, ec] = std::from_chars(text, end, pid);
    return ec == std::errc{} && ptr == end && pid != 0;
}

// What the child needs to drop to another user, resolved before fork: after fork only
// async-signal-safe calls are allowed, and the user database is not one of them.
struct Credentials {
    bool change = false;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
    std::string home;
    std::string name;
};

SysResult<Credentials> ResolveUser(const std::string& user) {
    Credentials creds;
    if (user.empty()) {
        return SysResult<Credentials>::Ok(std::move(creds));
    }
    std::vector<char> buffer(16384);
    passwd pw{};
    passwd* found = nullptr;
    const int rc = ::getpwnam_r(user.c_str(), &pw, buffer.data(), buffer.size(), &found);
    if (rc != 0 || found == nullptr) {
        return SysResult<Credentials>::Fail(win::ERROR_NONE_MAPPED);
    }
    creds.change = true;
    creds.uid = pw.pw_uid;
    creds.gid = pw.pw_gid;
    creds.home = pw.pw_dir != nullptr ? pw.pw_dir : "/";
    creds.name = user;
    int count = 64;
    creds.groups.resize(static_cast<size_t>(count));
    if (::getgrouplist(user.c_str(), pw.pw_gid, creds.groups.data(), &count) < 0) {
        creds.groups.resize(static_cast<size_t>(count));
        if (::getgrouplist(user.c_str(), pw.pw_gid, creds.groups.data(), &count) < 0) {
            count = 1;
            creds.groups.assign(1, pw.pw_gid);
        }
    }
    creds.groups.resize(static_cast<size_t>(count));
    return SysResult<Credentials>::Ok(std::move(creds));
}

// Moves exactly `size` bytes through `io` (read or write), again after EINTR; false on an error or end
// of file first.
template <typename Byte, typename Io>
bool TransferAll(Io io, int fd, Byte* p, size_t size) {
    while (size > 0) {
        const ssize_t n = io(fd, p, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteAll(int fd, const void* data, size_t size) {
    return TransferAll(::write, fd, static_cast<const char*>(data), size);
}

// Reads exactly `size` bytes; false on end of file first.
bool ReadAll(int fd, void* data, size_t size) {
    return TransferAll(::read, fd, static_cast<char*>(data), size);
}

void CloseAll(std::initializer_list<int> fds) {
    for (const int fd : fds) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

// Runs in the grandchild between fork and exec: async-signal-safe calls only. Never returns.
[[noreturn]] void ExecDetached(int reportFd, int nullFd, const Credentials& creds, const char* image,
                               char* const* argv, char* const* envp, const char* workingDir) {
    sigset_t all;
    ::sigemptyset(&all);
    ::sigprocmask(SIG_SETMASK, &all, nullptr);
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) {
        ::sigaction(sig, &dfl, nullptr);
    }
    ::dup2(nullFd, STDIN_FILENO);
    ::dup2(nullFd, STDOUT_FILENO);
    ::dup2(nullFd, STDERR_FILENO);
    // Nothing of the service (sockets, the registry store, log files) leaks into the program.
    ::syscall(SYS_close_range, 3U, ~0U, 4U /* CLOSE_RANGE_CLOEXEC */);
    int err = 0;
    if (creds.change) {
        if (::setgroups(creds.groups.size(), creds.groups.data()) != 0 || ::setgid(creds.gid) != 0 ||
            ::setuid(creds.uid) != 0) {
            err = errno;
        }
    }
    if (err == 0 && ::chdir(workingDir) != 0) {
        err = errno;
    }
    if (err == 0) {
        ::execve(image, argv, envp);
        err = errno;
    }
    WriteAll(reportFd, &err, sizeof err);
    ::_exit(127);
}

class LinuxProcessApi final : public ProcessApi {
  public:
    SysResult<std::vector<ProcessEntry>> Snapshot() override {
        DIR* dir = ::opendir("/proc");
        if (dir == nullptr) {
            return SysResult<std::vector<ProcessEntry>>::Fail(win::FromErrno(errno));
        }
        std::vector<ProcessEntry> entries;
        char link[64];
        char target[PATH_MAX + 1];
        while (const dirent* d = ::readdir(dir)) {
            std::uint32_t pid = 0;
            if (!ParsePid(d->d_name, pid)) {
                continue;
            }
            std::snprintf(link, sizeof link, "/proc/%u/exe", pid);
            const ssize_t n = ::readlink(link, target, PATH_MAX);
            if (n <= 0) {
                continue;  // a kernel thread, a zombie, or a process that ended meanwhile
            }
            target[n] = '\0';
            ProcessEntry entry;
            entry.pid = pid;
            entry.imagePath = target;
            entry.imageName = ImageNameOf(entry.imagePath);
            entries.push_back(std::move(entry));
        }
        ::closedir(dir);
        return SysResult<std::vector<ProcessEntry>>::Ok(std::move(entries));
    }

    SysResult<std::unique_ptr<Process>> Open(std::uint32_t pid) override {
        if (pid == 0 || pid > static_cast<std::uint32_t>(INT_MAX)) {
            return SysResult<std::unique_ptr<Process>>::Fail(win::ERROR_INVALID_PARAMETER);
        }
        const int fd = PidfdOpen(static_cast<pid_t>(pid));
        if (fd < 0) {
            const int err = errno;
            return SysResult<std::unique_ptr<Process>>::Fail(
                err == ESRCH || err == EINVAL ? win::ERROR_INVALID_PARAMETER : win::FromErrno(err));
        }
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        return SysResult<std::unique_ptr<Process>>::Ok(std::make_unique<LinuxProcess>(pid, fd));
    }

    SysResult<std::uint32_t> Start(const StartOptions& options) override {
        using R = SysResult<std::uint32_t>;
        if (options.image.empty() || !options.image.is_absolute()) {
            return R::Fail(win::ERROR_INVALID_PARAMETER);
        }
        auto creds = ResolveUser(options.user);
        if (!creds) {
            return R::Fail(creds.error);
        }

        // Everything the child touches is built here, before fork.
        const std::string image = options.image.string();
        const std::string workingDir =
            options.workingDir.empty() ? options.image.parent_path().string() : options.workingDir.string();
        std::vector<std::string> args;
        args.push_back(image);
        args.insert(args.end(), options.arguments.begin(), options.arguments.end());
        std::vector<char*> argv;
        for (auto& a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        std::vector<std::string> env;
        for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
            const std::string_view entry(*e);
            const bool replaced = creds.value.change &&
                                  (entry.starts_with("HOME=") || entry.starts_with("USER=") ||
                                   entry.starts_with("LOGNAME=") || entry.starts_with("XDG_RUNTIME_DIR="));
            if (!replaced) {
                env.emplace_back(entry);
            }
        }
        if (creds.value.change) {
            env.push_back("HOME=" + creds.value.home);
            env.push_back("USER=" + creds.value.name);
            env.push_back("LOGNAME=" + creds.value.name);
            // The session's runtime directory, where the user's desktop services are reached.
            const std::string runtimeDir = "/run/user/" + std::to_string(creds.value.uid);
            std::error_code ec;
            if (std::filesystem::is_directory(runtimeDir, ec)) {
                env.push_back("XDG_RUNTIME_DIR=" + runtimeDir);
            }
        }
        std::vector<char*> envp;
        for (auto& e : env) {
            envp.push_back(e.data());
        }
        envp.push_back(nullptr);

        const int nullFd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        if (nullFd < 0) {
            return R::Fail(win::FromErrno(errno));
        }
        // fds: the report (the program's id, then the error number of a failed start). go: the caller
        // releases the program once beforeExec has run; a socket, so that a release to a program that
        // is already gone is an error and not a SIGPIPE.
        int fds[2] = {-1, -1};
        int go[2] = {-1, -1};
        if (::pipe2(fds, O_CLOEXEC) != 0 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, go) != 0) {
            const int err = errno;
            CloseAll({fds[0], fds[1], go[0], go[1], nullFd});
            return R::Fail(win::FromErrno(err));
        }
        const pid_t child = ::fork();
        if (child < 0) {
            const int err = errno;
            CloseAll({fds[0], fds[1], go[0], go[1], nullFd});
            return R::Fail(win::FromErrno(err));
        }
        if (child == 0) {
            // The intermediate child: a new session, then the program in a grandchild, so that the
            // program is nobody's child here and leaves no zombie behind in the service.
            ::close(fds[0]);
            ::close(go[1]);
            ::setsid();
            const pid_t grandchild = ::fork();
            if (grandchild == 0) {
                char released = 0;
                ssize_t n;
                while ((n = ::read(go[0], &released, 1)) < 0 && errno == EINTR) {
                }
                if (n != 1) {
                    const int err = ECANCELED;
                    WriteAll(fds[1], &err, sizeof err);
                    ::_exit(127);
                }
                ExecDetached(fds[1], nullFd, creds.value, image.c_str(), argv.data(), envp.data(),
                             workingDir.c_str());
            }
            const std::int32_t report = grandchild;
            WriteAll(fds[1], &report, sizeof report);
            if (grandchild < 0) {
                const int err = errno;
                WriteAll(fds[1], &err, sizeof err);
            }
            ::_exit(0);
        }
        CloseAll({fds[1], go[0], nullFd});
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        std::int32_t started = -1;
        int err = 0;
        const bool gotPid = ReadAll(fds[0], &started, sizeof started);
        if (gotPid && started > 0 && options.beforeExec) {
            options.beforeExec(static_cast<std::uint32_t>(started));
        }
        const char release = 1;
        const bool released = gotPid && started > 0 && ::send(go[1], &release, 1, MSG_NOSIGNAL) == 1;
        ::close(go[1]);
        // The report end closes on a successful exec (close-on-exec); an error number arrives otherwise.
        const bool failed = ReadAll(fds[0], &err, sizeof err);
        ::close(fds[0]);
        if (!gotPid || started <= 0) {
            return R::Fail(failed ? win::FromErrno(err) : win::ERROR_NOT_ENOUGH_MEMORY);
        }
        if (failed) {
            return R::Fail(win::FromErrno(err));
        }
        if (!released) {
            return R::Fail(win::ERROR_INVALID_FUNCTION);
        }
        return R::Ok(static_cast<std::uint32_t>(started));
    }
};

std::atomic<ProcessApi*> g_override{nullptr};

}  // namespace

std::wstring ImageNameOf(const std::filesystem::path& resolvedExe) {
    std::string name = resolvedExe.filename().string();
    static constexpr std::string_view kDeleted = " (deleted)";
    if (name.size() > kDeleted.size() && name.ends_with(kDeleted)) {
        name.resize(name.size() - kDeleted.size());
    }
    return DE::ANSIToUnicode(name);
}

std::unique_ptr<ProcessApi> MakeLinuxProcessApi() {
    return std::make_unique<LinuxProcessApi>();
}

ProcessApi& Processes() {
    if (ProcessApi* api = g_override.load(std::memory_order_acquire)) {
        return *api;
    }
    static LinuxProcessApi real;
    return real;
}

void SetProcessesForTesting(ProcessApi* api) {
    g_override.store(api, std::memory_order_release);
}

}  // namespace qlb::platform
