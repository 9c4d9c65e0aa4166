#pragma once
// Results of our own layers: the value together with the Windows error number of the failure, so that
// no thread reads an error another thread left behind.

#include <cstdint>
#include <string>
#include <utility>

#include "runtime/common/win_error.h"

template <typename T>
struct [[nodiscard]] SysResult {
    T value{};
    std::uint32_t error = win::ERROR_SUCCESS;

    bool ok() const noexcept { return error == win::ERROR_SUCCESS; }
    explicit operator bool() const noexcept { return ok(); }

    static SysResult Ok(T v) { return SysResult{std::move(v), win::ERROR_SUCCESS}; }
    static SysResult Fail(std::uint32_t err) { return SysResult{T{}, err}; }
};

struct [[nodiscard]] SysStatus {
    std::uint32_t error = win::ERROR_SUCCESS;

    bool ok() const noexcept { return error == win::ERROR_SUCCESS; }
    explicit operator bool() const noexcept { return ok(); }

    static SysStatus Ok() { return SysStatus{}; }
    static SysStatus Fail(std::uint32_t err) { return SysStatus{err}; }
};
