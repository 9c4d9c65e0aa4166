#pragma once
// Named mutexes that every process of the machine sees, as Windows' named kernel mutexes: a mutex
// exists while some process holds a handle to it. A handle is a shared flock on
// runDir/mutex/<name>; the existence test is whether an exclusive lock would be refused. Creation and
// opening take runDir/mutex/<name>.guard first, so that "create or join" is one step across processes.
// A process that dies drops its handles with it.

#include <filesystem>
#include <memory>
#include <string>

#include "runtime/common/result.h"

namespace qlb::platform {

class NamedMutexHandle {
  public:
    explicit NamedMutexHandle(int fd) : fd_(fd) {}
    NamedMutexHandle(const NamedMutexHandle&) = delete;
    NamedMutexHandle& operator=(const NamedMutexHandle&) = delete;
    ~NamedMutexHandle();

  private:
    int fd_;
};

struct CreatedMutex {
    std::unique_ptr<NamedMutexHandle> handle;
    // ERROR_ALREADY_EXISTS (183) when the mutex existed before; the handle is valid either way.
    std::uint32_t lastError = 0;
};

class NamedMutexSpace {
  public:
    explicit NamedMutexSpace(std::filesystem::path runDir);

    // OpenMutexW: a handle if the mutex exists, else 2 (not found).
    SysResult<std::unique_ptr<NamedMutexHandle>> Open(const std::wstring& name) const;
    // CreateMutexW: creates it, or joins the existing one (lastError 183).
    SysResult<CreatedMutex> Create(const std::wstring& name) const;
    // Whether the mutex exists now.
    bool Exists(const std::wstring& name) const;

    std::filesystem::path FileOf(const std::wstring& name) const;

  private:
    std::filesystem::path dir_;
};

// The space of the current machine profile's runDir.
const NamedMutexSpace& MachineMutexes();

}  // namespace qlb::platform
