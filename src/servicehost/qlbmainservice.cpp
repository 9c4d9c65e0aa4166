#include "servicehost/qlbmainservice.h"

#include <curl/curl.h>

#include <log4cplus/initializer.h>

#include "installation/plugin_update.h"
#include "platform/services/service_dispatcher.h"
#include "runtime/common/logging.h"
#include "runtime/common/program_dir.h"
#include "runtime/common/strings.h"
#include "runtime/telemetry/event_data_report.h"
#include "servicehost/crash_handler.h"
#include "servicehost/cservicemain.h"
#include "servicehost/service_events.h"
#include "servicehost/service_host_platform.h"

namespace {

constexpr wchar_t kSwitchInstall[] = L"/install";
constexpr wchar_t kSwitchUninstall[] = L"/uninstall";
constexpr wchar_t kSwitchStartup[] = L"/startup";
constexpr wchar_t kSwitchStatus[] = L"/status";
constexpr wchar_t kSwitchStop[] = L"/stop";

void ReportStartupResult(int result) {
    auto& report = EventDataReport::Instance();
    LogInfo info = report.GetMsg(ServiceEvents::kStartupResult, "");
    info.fields[0] = "main service";
    info.fields[1] = result != 0 ? "1" : "0";
    report.SendMsg(info);
}

}  // namespace

int StartupMainService(CServiceManager& manager) {
    const int started = manager.Startup(kMainServiceName);
    if (started == 0) {
        return 0;
    }
    const auto& platform = qlb::servicehost::Platform();
    // The service creates its mutex only once its initialisation has run.
    auto opened = platform.mutexes->Open(kServiceMutexName);
    int counter = static_cast<int>(kStartupWaitRounds);
    while (!opened.ok()) {
        if (counter-- < 0) {
            QLOG_ERROR("main service wait start up time out.");
            return 0;
        }
        // A round ends early once the mutex is there; the count of rounds stays the limit.
        platform.clock->SleepUnless(kStartupWaitStepMs,
                                    [&platform] { return platform.mutexes->Exists(kServiceMutexName); });
        opened = platform.mutexes->Open(kServiceMutexName);
    }
    return started;
}

int ProcServiceOperation(const wchar_t* operation) {
    if (!operation) {
        return 0;
    }
    CServiceManager manager;
    if (qlb::EqualsNoCase(operation, kSwitchInstall)) {
        const std::wstring self = qlb::SelfPath().wstring();
        return manager.Install(kMainServiceName, kMainServiceDisplayName, self.c_str());
    }
    if (qlb::EqualsNoCase(operation, kSwitchUninstall)) {
        return manager.Uninstall(kMainServiceName);
    }
    if (qlb::EqualsNoCase(operation, kSwitchStartup)) {
        const int result = StartupMainService(manager);
        ReportStartupResult(result);
        return result;
    }
    if (qlb::EqualsNoCase(operation, kSwitchStatus)) {
        return manager.GetServiceState(kMainServiceName) != 0 ? 1 : 0;
    }
    if (qlb::EqualsNoCase(operation, kSwitchStop)) {
        return manager.Stop(kMainServiceName);
    }
    return 0;
}

int wmain(int argc, wchar_t* argv[]) {
    SetupCrashHandler();

    int exitCode = 0;
    {
        log4cplus::Initializer initializer;
        InitProcessLogger(L"QuillbarService");
        QLOG_WARN("[main] InitLogger completed");

        QLOG_WARN("[main] InitObj start.");
        // COM and Winsock have nothing to set up here; libcurl does.
        curl_global_init(CURL_GLOBAL_ALL);
        QLOG_WARN("[main] InitObj end.");

        if (argv) {
            QLOG_WARN("[main] argc = " << argc << ", argv[0] = " << qlb::W2U(argv[0] ? argv[0] : L""));
        }

        if (argv && argc > 1 && argv[1]) {
            const int result = ProcServiceOperation(argv[1]);
            QLOG_WARN("[main] ProcServiceOperation Result : " << result);
            exitCode = 0;
        } else {
            QLOG_WARN("[main] PluginUpdate init.");
            {
                PluginUpdate update;
                QLOG_WARN("[main] installpatch start.");
                update.InstallPatch(0, PluginUpdate::kComponentId);
                QLOG_WARN("[main] installpatch end.");
                update.StartDelayReport();
            }

            InitServiceStatus();
            const SERVICE_TABLE_ENTRYW table[] = {{kMainServiceName, ServiceMain}, {nullptr, nullptr}};
            const auto dispatched = StartServiceCtrlDispatcherW(table);
            exitCode = dispatched.ok() ? 1 : 0;
        }

        curl_global_cleanup();
    }
    return exitCode;
}
