#include "runtime/registry/registry_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace qlb::registry {
namespace {

// Another process's commit reaches the write-ahead log with write(2), which inotify reports; this
// interval only bounds the wait where inotify is not available or its queue overflowed.
constexpr std::chrono::milliseconds kFallbackInterval{250};

}  // namespace

RegistryWatch::RegistryWatch(std::shared_ptr<RegistryStore> store, HKEY root, std::wstring key, bool subtree)
    : store_(std::move(store)), root_(root), key_(std::move(key)), subtree_(subtree) {}

RegistryWatch::~RegistryWatch() {
    if (inotifyFd_ >= 0) {
        close(inotifyFd_);
    }
    if (cancelFd_ >= 0) {
        close(cancelFd_);
    }
}

SysResult<std::unique_ptr<RegistryWatch>> RegistryWatch::Create(std::shared_ptr<RegistryStore> store,
                                                                HKEY root, std::wstring key,
                                                                bool watchSubtree) {
    using Result = SysResult<std::unique_ptr<RegistryWatch>>;
    if (!store) {
        return Result::Fail(win::ERROR_INVALID_HANDLE);
    }
    std::unique_ptr<RegistryWatch> watch(
        new RegistryWatch(std::move(store), root, std::move(key), watchSubtree));
    // The file watch comes first, so that no change between arming and waiting goes unseen.
    if (auto opened = watch->OpenWakeups(); !opened) {
        return Result::Fail(opened.error);
    }
    if (auto armed = watch->Arm(); !armed) {
        return Result::Fail(armed.error);
    }
    return Result::Ok(std::move(watch));
}

SysResult<std::unique_ptr<RegistryWatch>> RegistryWatch::Create(HKEY root, std::wstring key,
                                                                bool watchSubtree) {
    auto store = RegistryStore::Default();
    if (!store) {
        return SysResult<std::unique_ptr<RegistryWatch>>::Fail(store.error);
    }
    return Create(std::move(store.value), root, std::move(key), watchSubtree);
}

SysStatus RegistryWatch::OpenWakeups() {
    cancelFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (cancelFd_ < 0) {
        return SysStatus::Fail(win::FromErrno(errno));
    }
    inotifyFd_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (inotifyFd_ >= 0) {
        const auto dir =
            store_->File().has_parent_path() ? store_->File().parent_path() : std::filesystem::path(".");
        if (inotify_add_watch(inotifyFd_, dir.c_str(), IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO) <
            0) {
            close(inotifyFd_);
            inotifyFd_ = -1;
        }
    }
    // Without inotify the watch still works, by polling.
    return SysStatus::Ok();
}

SysStatus RegistryWatch::Arm() {
    auto stamp = store_->ReadChangeStamp(root_, key_, subtree_);
    if (!stamp) {
        lastError_ = stamp.error;
        return SysStatus::Fail(stamp.error);
    }
    armed_ = stamp.value;
    changed_ = false;
    return SysStatus::Ok();
}

SysResult<bool> RegistryWatch::HasChanged() {
    auto stamp = store_->ReadChangeStamp(root_, key_, subtree_);
    if (!stamp) {
        // A key that went away has changed; the store failing is another matter.
        if (stamp.error == win::ERROR_FILE_NOT_FOUND || stamp.error == win::ERROR_KEY_DELETED) {
            return SysResult<bool>::Ok(true);
        }
        return SysResult<bool>::Fail(stamp.error);
    }
    return SysResult<bool>::Ok(!(stamp.value == armed_));
}

void RegistryWatch::DrainWakeups() {
    if (inotifyFd_ < 0) {
        return;
    }
    alignas(inotify_event) std::array<char, 4096> buffer{};
    while (read(inotifyFd_, buffer.data(), buffer.size()) > 0) {
    }
}

RegistryWatch::WaitResult RegistryWatch::WaitForChange(DWORD timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const bool forever = timeoutMs == INFINITE;
    const auto deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeoutMs);
    while (true) {
        if (cancelled_.load()) {
            return WaitResult::Cancelled;
        }
        if (changed_) {
            return WaitResult::Changed;
        }
        // Wake-ups that came before this check are covered by it.
        DrainWakeups();
        auto changed = HasChanged();
        if (!changed && changed.error != win::ERROR_BUSY) {
            lastError_ = changed.error;
            return WaitResult::Failed;
        }
        if (changed && changed.value) {
            changed_ = true;
            return WaitResult::Changed;
        }
        auto slice = kFallbackInterval;
        if (!forever) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                return WaitResult::Timeout;
            }
            slice = std::min(slice, left);
        }
        std::array<pollfd, 2> fds{{{cancelFd_, POLLIN, 0}, {inotifyFd_, POLLIN, 0}}};
        const int rc = poll(fds.data(), inotifyFd_ >= 0 ? 2 : 1, static_cast<int>(slice.count()));
        if (rc < 0 && errno != EINTR) {
            lastError_ = win::FromErrno(errno);
            return WaitResult::Failed;
        }
    }
}

void RegistryWatch::Cancel() noexcept {
    cancelled_.store(true);
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(cancelFd_, &one, sizeof(one));
}

}  // namespace qlb::registry
