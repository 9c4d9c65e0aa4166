#pragma once
// Shared by the tests of the process utilities, the process monitor module, the plugin host, the
// process controls and the start-up stage: program directories, minisign keys made with the real
// tool, helper processes under the product's names, log lines, and the machine profile.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "support/eventually.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace qlb::testing {

namespace fs = std::filesystem;

// Programs started as the session's user must reach the helpers in a program directory.
inline constexpr fs::perms kOpenToAll = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                        fs::perms::others_read | fs::perms::others_exec;

// A temporary program directory. Unlike the plain temporary directory it is open to every user, as
// programs started as the session's user must reach the helpers inside.
class OpenTempDir : public TempDir {
  public:
    OpenTempDir() { fs::permissions(Path(), kOpenToAll); }
    const fs::path& path() const { return Path(); }
};

inline void WriteFile(const fs::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// A minisign key pair without password, made by the real tool.
class MinisignKey {
  public:
    explicit MinisignKey(const fs::path& dir, const std::string& name = "key")
        : pub_(dir / (name + ".pub")), sec_(dir / (name + ".sec")) {
        EXPECT_EQ(Run("minisign -G -W -f -p '" + pub_.string() + "' -s '" + sec_.string() + "'"), 0);
    }
    // Writes file + ".minisig".
    void Sign(const fs::path& file, bool legacy = false) const {
        EXPECT_EQ(Run(std::string("minisign -S ") + (legacy ? "-l " : "") + "-s '" + sec_.string() +
                      "' -m '" + file.string() + "'"),
                  0)
            << "minisign -S failed for " << file;
    }
    const fs::path& publicKey() const { return pub_; }

  private:
    static int Run(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()); }
    fs::path pub_;
    fs::path sec_;
};

// Copies the helper program under `name` into `dir`.
inline fs::path InstallHelper(const fs::path& dir, const std::string& name) {
    const fs::path target = dir / name;
    fs::copy_file(QLB_TEST_SLEEPER, target, fs::copy_options::overwrite_existing);
    fs::permissions(target, kOpenToAll);
    return target;
}

// Whether the module is mapped into this process.
inline bool Mapped(const fs::path& module) {
    void* h = ::dlopen(module.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (h != nullptr) {
        ::dlclose(h);
    }
    return h != nullptr;
}

// Whether a process runs (exists and is no zombie).
inline bool Running(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(status, line);
    const auto close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
}

// A helper process under a product name, started by the test itself, ended (by its own id) and
// reaped when the object goes.
class HelperProcess {
  public:
    explicit HelperProcess(const fs::path& image, std::vector<std::string> args = {}) {
        std::string path = image.string();
        pid_ = ::fork();
        if (pid_ == 0) {
            std::vector<char*> argv{path.data()};
            for (auto& a : args) {
                argv.push_back(a.data());
            }
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        // The image is the helper's once exec has happened.
        Eventually([&] {
            std::error_code ec;
            return fs::read_symlink("/proc/" + std::to_string(pid_) + "/exe", ec) == image;
        });
    }
    ~HelperProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    HelperProcess(const HelperProcess&) = delete;
    HelperProcess& operator=(const HelperProcess&) = delete;
    pid_t pid() const { return pid_; }
    bool Ended() const { return !Running(pid_); }  // it stays a zombie until reaped here

  private:
    pid_t pid_ = -1;
};

// The process log of the tests, in a directory of its own; lines are read from a mark on.
class LogCapture {
  public:
    LogCapture() {
        static OpenTempDir dir;  // one log for the whole test program
        static const bool opened = [] {
            qlb::logging::InitLogger("ProcessTests", QLB_PROGRAM_DIR "/config/log4cplus.properties",
                                     dir.path().string() + "/");
            return true;
        }();
        (void)opened;
        tail_ = std::make_unique<FileTail>(dir / "ProcessTests.log");
    }
    // How many lines written since this object was made hold `message` (and the level, when given).
    int Count(const std::string& message, const std::string& level = "") const {
        std::istringstream in(tail_->Text());
        int count = 0;
        for (std::string line; std::getline(in, line);) {
            count += line.find(message) != std::string::npos &&
                     (level.empty() || line.find(" " + level + " ") != std::string::npos);
        }
        return count;
    }
    // Whether a line holds `level` and `message` (the message with its "(Function)").
    bool Has(const std::string& level, const std::string& message) const { return Count(message, level) > 0; }
    bool HasText(const std::string& message) const { return tail_->Has(message); }

  private:
    std::unique_ptr<FileTail> tail_;
};

// Puts a profile whose state lies in `dir` in place for the test's lifetime.
class ProfileScope {
  public:
    explicit ProfileScope(const fs::path& dir, std::vector<fs::path> trustedKeys = {}) {
        profile_.registry = dir / "registry.db";
        profile_.appData = dir / "appdata/";
        profile_.logDir = dir / "log/";
        profile_.runDir = dir / "run/";
        profile_.trustedKeys = std::move(trustedKeys);
        MachineProfile::SetCurrent(profile_);
    }
    ~ProfileScope() { MachineProfile::SetCurrent(MachineProfile{}); }
    MachineProfile& profile() { return profile_; }
    void Apply() { MachineProfile::SetCurrent(profile_); }

  private:
    MachineProfile profile_;
};

}  // namespace qlb::testing
