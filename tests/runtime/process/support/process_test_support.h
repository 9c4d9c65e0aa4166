#pragma once
// Shared by the tests of the process utilities, the process monitor module, the plugin host, the
// process controls and the start-up stage: temporary program directories, minisign keys made with
// the real tool, helper processes under the product's names, log lines, and bounded waits.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"

namespace qlb::testing {

namespace fs = std::filesystem;

class TempDir {
  public:
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "qlbproc-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            ADD_FAILURE() << "mkdtemp failed";
        }
        path_ = pattern;
        // Programs started as another user must reach the helpers inside.
        fs::permissions(path_, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                   fs::perms::others_read | fs::perms::others_exec);
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return path_; }
    fs::path operator/(const std::string& name) const { return path_ / name; }

  private:
    fs::path path_;
};

// Polls `condition` until it holds or `limit` has passed.
inline bool WaitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

inline std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

inline void WriteFile(const fs::path& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

inline int Run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str());
}

// A minisign key pair without password, made by the real tool.
class MinisignKey {
  public:
    explicit MinisignKey(const fs::path& dir, const std::string& name = "key")
        : pub_(dir / (name + ".pub")), sec_(dir / (name + ".sec")) {
        const int rc = Run("minisign -G -W -f -p '" + pub_.string() + "' -s '" + sec_.string() + "'");
        EXPECT_EQ(rc, 0) << "minisign -G failed";
    }
    // Writes file + ".minisig".
    void Sign(const fs::path& file, bool legacy = false) const {
        const int rc = Run(std::string("minisign -S ") + (legacy ? "-l " : "") + "-s '" + sec_.string() +
                           "' -m '" + file.string() + "'");
        EXPECT_EQ(rc, 0) << "minisign -S failed for " << file;
    }
    const fs::path& publicKey() const { return pub_; }

  private:
    fs::path pub_;
    fs::path sec_;
};

// Copies the helper program under `name` into `dir`.
inline fs::path InstallHelper(const fs::path& dir, const std::string& name) {
    const fs::path target = dir / name;
    fs::copy_file(QLB_TEST_SLEEPER, target, fs::copy_options::overwrite_existing);
    fs::permissions(target, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                fs::perms::others_read | fs::perms::others_exec);
    return target;
}

// A helper process started by the test itself, ended (by its own id) and reaped when the object goes.
class ChildProcess {
  public:
    explicit ChildProcess(const fs::path& image, std::vector<std::string> args = {}) {
        pid_ = ::fork();
        if (pid_ == 0) {
            std::vector<char*> argv;
            std::string path = image.string();
            argv.push_back(path.data());
            for (auto& a : args) {
                argv.push_back(a.data());
            }
            argv.push_back(nullptr);
            ::execv(path.c_str(), argv.data());
            ::_exit(127);
        }
        // The image is the helper's once exec has happened.
        WaitUntil([&] {
            std::error_code ec;
            return fs::read_symlink("/proc/" + std::to_string(pid_) + "/exe", ec) == image;
        });
    }
    ~ChildProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    pid_t pid() const { return pid_; }
    // True once it has ended (it stays a zombie until reaped here).
    bool Ended() const {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/stat");
        std::string line;
        std::getline(status, line);
        const auto close = line.rfind(')');
        return line.empty() ||
               (close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'Z');
    }

  private:
    pid_t pid_ = -1;
};

// Whether a process that is not our child runs (exists and is no zombie).
inline bool Running(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(status, line);
    const auto close = line.rfind(')');
    return !line.empty() && close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
}

// The process log of the tests, in a directory of its own; lines are read from a mark on.
class LogCapture {
  public:
    LogCapture() {
        static TempDir dirHolder;  // one log for the whole test program
        static TempDir* dir = &dirHolder;
        static bool opened = false;
        file_ = dir->path() / "ProcessTests.log";
        if (!opened) {
            qlb::logging::InitLogger("ProcessTests", QLB_PROGRAM_DIR "/config/log4cplus.properties",
                                     dir->path().string() + "/");
            opened = true;
        }
        std::error_code ec;
        mark_ = fs::exists(file_, ec) ? fs::file_size(file_, ec) : 0;
    }
    // The lines written since this object was made.
    std::vector<std::string> Lines() const {
        std::string text = ReadFile(file_);
        text = text.size() > mark_ ? text.substr(mark_) : std::string();
        std::vector<std::string> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }
    // Whether a line holds `level` and `message` (the message with its "(Function)").
    bool Has(const std::string& level, const std::string& message) const {
        for (const auto& line : Lines()) {
            if (line.find(" " + level + " ") != std::string::npos &&
                line.find(message) != std::string::npos) {
                return true;
            }
        }
        return false;
    }
    bool HasText(const std::string& message) const {
        for (const auto& line : Lines()) {
            if (line.find(message) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

  private:
    fs::path file_;
    std::uintmax_t mark_ = 0;
};

// Puts a profile whose state lies in `dir` in place for the test's lifetime.
class ProfileScope {
  public:
    explicit ProfileScope(const fs::path& dir, std::vector<fs::path> trustedKeys = {}) {
        MachineProfile profile;
        profile.registry = dir / "registry.db";
        profile.appData = dir / "appdata/";
        profile.logDir = dir / "log/";
        profile.runDir = dir / "run/";
        profile.trustedKeys = std::move(trustedKeys);
        profile_ = profile;
        MachineProfile::SetCurrent(profile);
    }
    ~ProfileScope() { MachineProfile::SetCurrent(MachineProfile{}); }
    MachineProfile& profile() { return profile_; }
    void Apply() { MachineProfile::SetCurrent(profile_); }

  private:
    MachineProfile profile_;
};

}  // namespace qlb::testing
