#pragma once
// The systemd backend: the same operations over systemd units, sd_notify and logind. Its body is the
// next step of the service layer; until then every call fails with 50 (not supported), and "auto"
// never chooses it.

#include "platform/services/service_control.h"

namespace qlb::platform {

inline constexpr bool kSystemdBackendAvailable = false;

class SystemdServiceManager final : public ServiceControlManager {
  public:
    SysStatus Connect(DWORD) override { return Unsupported(); }
    SysStatus OpenService(const std::wstring&, DWORD) override { return Unsupported(); }
    SysStatus CreateService(const ServiceConfig&) override { return Unsupported(); }
    SysStatus DeleteService(const std::wstring&) override { return Unsupported(); }
    SysStatus StartService(const std::wstring&) override { return Unsupported(); }
    SysResult<SERVICE_STATUS> ControlService(const std::wstring&, DWORD, DWORD, DWORD) override {
        return SysResult<SERVICE_STATUS>::Fail(win::ERROR_NOT_SUPPORTED);
    }
    SysResult<SERVICE_STATUS> QueryServiceStatus(const std::wstring&) override {
        return SysResult<SERVICE_STATUS>::Fail(win::ERROR_NOT_SUPPORTED);
    }
    SysResult<ServiceConfig> QueryServiceConfig(const std::wstring&) override {
        return SysResult<ServiceConfig>::Fail(win::ERROR_NOT_SUPPORTED);
    }
    SysStatus ChangeStartType(const std::wstring&, DWORD) override { return Unsupported(); }

  private:
    static SysStatus Unsupported() { return SysStatus::Fail(win::ERROR_NOT_SUPPORTED); }
};

class SystemdServiceProcessHost final : public ServiceProcessHost {
  public:
    SysStatus Attach(const std::wstring&) override {
        return SysStatus::Fail(win::ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    }
    SysStatus SetStatus(const SERVICE_STATUS&) override { return SysStatus::Fail(win::ERROR_NOT_SUPPORTED); }
    void ServeControls(const Deliver&) override {}
    void StopServing() override {}
};

}  // namespace qlb::platform
