#include "platform/services/service_database.h"
#include "runtime/registry/de_registry.h"

namespace qlb::platform {
namespace {

class RegistryServiceDatabase final : public ServiceDatabase {
  public:
    SysResult<ServiceConfig> Read(const std::wstring& name) override {
        const std::wstring key = KeyOf(name);
        ServiceConfig config;
        // ImagePath is what makes a registration: a bare key is no service, as for the Windows manager.
        if (name.empty() ||
            !DE::Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"ImagePath", config.binaryPath)) {
            return SysResult<ServiceConfig>::Fail(win::ERROR_SERVICE_DOES_NOT_EXIST);
        }
        config.name = name;
        DE::Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"DisplayName", config.displayName);
        DE::Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"ObjectName", config.objectName);
        DE::Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"Type", config.serviceType);
        DE::Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"Start", config.startType);
        DE::Registry::GetValue(HKEY_LOCAL_MACHINE, key, L"ErrorControl", config.errorControl);
        return SysResult<ServiceConfig>::Ok(std::move(config));
    }

    SysStatus Write(const ServiceConfig& config) override {
        const std::wstring key = KeyOf(config.name);
        const bool ok =
            DE::Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"Type", config.serviceType) &&
            DE::Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"Start", config.startType) &&
            DE::Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"ErrorControl", config.errorControl) &&
            DE::Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"DisplayName", config.displayName) &&
            DE::Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"ObjectName", config.objectName) &&
            // Last, so that a registration never shows without its settings.
            DE::Registry::SetValue(HKEY_LOCAL_MACHINE, key, L"ImagePath", config.binaryPath);
        return ok ? SysStatus::Ok() : SysStatus::Fail(win::ERROR_CANTWRITE);
    }

    SysStatus Remove(const std::wstring& name) override {
        DE::Registry registry;
        if (!registry.RegDeleteAll(HKEY_LOCAL_MACHINE, KeyOf(name))) {
            return SysStatus::Fail(registry.LastError() ? registry.LastError() : win::ERROR_CANTWRITE);
        }
        return SysStatus::Ok();
    }

  private:
    static std::wstring KeyOf(const std::wstring& name) { return std::wstring(kServicesKey) + L"\\" + name; }
};

}  // namespace

std::unique_ptr<ServiceDatabase> MakeRegistryServiceDatabase() {
    return std::make_unique<RegistryServiceDatabase>();
}

}  // namespace qlb::platform
