#pragma once
// The embedded manager's service database: one registration per service name, kept where Windows keeps
// it, under HKLM\SYSTEM\CurrentControlSet\Services\<name> with the values Type, Start, ErrorControl,
// ImagePath, DisplayName and ObjectName.

#include <memory>
#include <string>

#include "platform/services/service_types.h"
#include "runtime/common/result.h"

namespace qlb::platform {

class ServiceDatabase {
  public:
    virtual ~ServiceDatabase() = default;
    // 1060 when no such service is registered.
    virtual SysResult<ServiceConfig> Read(const std::wstring& name) = 0;
    virtual SysStatus Write(const ServiceConfig& config) = 0;
    virtual SysStatus Remove(const std::wstring& name) = 0;
};

inline constexpr wchar_t kServicesKey[] = L"SYSTEM\\CurrentControlSet\\Services";

// The database in the machine's registry store.
std::unique_ptr<ServiceDatabase> MakeRegistryServiceDatabase();

}  // namespace qlb::platform
