#pragma once
// A child process for the multi-process tests: started with its stdout on a pipe, read line by line
// with a deadline, waited for with a deadline, killed on demand. Nothing here sleeps blindly.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace qlb::testing {

class ChildProcess {
  public:
    explicit ChildProcess(const std::vector<std::string>& argv) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], STDOUT_FILENO);
            std::vector<char*> args;
            for (const auto& a : argv) {
                args.push_back(const_cast<char*>(a.c_str()));
            }
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        close(fds[1]);
        out_ = fds[0];
    }
    ~ChildProcess() {
        if (pid_ > 0 && !status_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) {
            close(out_);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Started() const { return pid_ > 0; }

    // The next line of the child's stdout, or nothing at end of file or when the time is up.
    std::optional<std::string> ReadLine(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (true) {
            if (const auto nl = buffer_.find('\n'); nl != std::string::npos) {
                std::string line = buffer_.substr(0, nl);
                buffer_.erase(0, nl + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return std::nullopt;
            }
            pollfd fd{out_, POLLIN, 0};
            if (poll(&fd, 1, static_cast<int>(left.count())) <= 0) {
                continue;
            }
            char chunk[4096];
            const ssize_t n = read(out_, chunk, sizeof(chunk));
            if (n <= 0) {
                return std::nullopt;
            }
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

    // The exit code, or -1 if the child did not end in time (or ended by a signal).
    int Wait(std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!status_) {
            int status = 0;
            const pid_t done = waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                status_ = status;
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return -1;
            }
            // Drain the pipe while waiting, so that a chatty child never blocks on a full pipe.
            pollfd fd{out_, POLLIN, 0};
            if (poll(&fd, 1, 20) > 0) {
                char chunk[4096];
                const ssize_t n = read(out_, chunk, sizeof(chunk));
                if (n > 0) {
                    buffer_.append(chunk, static_cast<std::size_t>(n));
                }
            }
        }
        return WIFEXITED(*status_) ? WEXITSTATUS(*status_) : -1;
    }

    // Asks the child to end, as the service manager or a terminal would.
    void Terminate() { kill(pid_, SIGTERM); }

    void Kill() {
        kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
        status_ = status;
    }

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buffer_;
    std::optional<int> status_;
};

}  // namespace qlb::testing
