#include "servicehost/service_init.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <new>
#include <system_error>
#include <utility>

#include <curl/curl.h>

#include "platform/sessions/session_source.h"
#include "runtime/common/app_paths.h"
#include "runtime/common/elapsed_timer.h"
#include "runtime/common/logging.h"
#include "runtime/common/show_memory.h"
#include "runtime/common/soft_shelf.h"
#include "runtime/common/strings.h"
#include "runtime/common/win_error.h"
#include "runtime/http/http_client.h"
#include "runtime/http/url_loader.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/plugins/plugin_config.h"
#include "runtime/plugins/qlb_plugins_manager.h"
#include "runtime/process/process_utils.h"
#include "runtime/telemetry/event_data_report.h"
#include "servicehost/service_events.h"

IPCMessageServer* g_pObjIPCMsgSrv = nullptr;
QLBPluginsManager* g_pObjSvrPluginsManager = nullptr;

namespace {

template <typename Fn>
void StartDetachedThread(Fn fn) {
    try {
        std::thread(std::move(fn)).detach();
    } catch (const std::system_error& e) {
        QLOG_ERROR("fail to start thread: " << e.what());
    }
}

// The pending update list is put into effect by InstallUpdate, which comes with the update list
// application; until it does, no list is ever applied and the cache is left as it is.
void ApplyPendingUpdateList() {}

// Workers of the pieces that come later: the boot CPU watch, the crash dump sweep, and the start of
// the message centre for a user who is already logged on. Each moves to its own piece with it.
void CpuWatchThread() {}
void StartDumpReport() {}
void StartRelatedProcess() {}

void InitUrlLoader() {
    auto& loader = UrlLoader::GetInstance();
    loader.Start();
    if (!loader.IsRunning()) {
        QLOG_WARN("UrlLoader Init() failed.");
    }
}

bool ServerConfigWanted() {
    return QLBSoftShelf::GetInstance()->IsSupportProperty("ZVLoginGuide", "china");
}

void SendElapsedEvent(const char* code, const ElapsedTimer& timer) {
    auto& report = EventDataReport::Instance();
    LogInfo info = report.GetMsg(code, "");
    info.fields[0] = "total";
    info.fields[1] = timer.ToString();
    report.SendMsg(info);
}

}  // namespace

std::string GetPluginCfgPath() {
    std::string path;
    (void)ZVPROCESS::HELPER::GetSelfFullFilePath(path, "config\\plugincfg.xml");
    return path;
}

bool InitService() {
    const std::wstring sid = ZVPROCESS::GetCurrentUserSidstr();
    if (sid.empty()) {
        QLOG_WARN("InitService current user not logged in");
    }

    ApplyPendingUpdateList();

    // A second initialisation after the process entry's: libcurl counts them.
    (void)curl_global_init(CURL_GLOBAL_ALL);
    (void)OpensllLock::GetInstance()->Init();

    std::wstring cacheDir;
    if (DE::GetAppDataPath(cacheDir) == 0) {
        cacheDir += L"cache/";
        std::error_code ec;
        if (!std::filesystem::exists(qlb::W2U(cacheDir), ec)) {
            std::filesystem::create_directories(qlb::W2U(cacheDir), ec);
        }
    }

    StartServerConfigService();

    bool result = false;
    if (StartIPCServer()) {
        StartDetachedThread(InitUrlLoader);
        StartDetachedThread(CpuWatchThread);
        // The IPC server is up and plugin loading begins.
        ReportPlainEvent(ServiceEvents::kInitServiceDone, "");
        result = LoadAllPluginsOfService();
    }

    ShowMemory(L"Leave InitService() Loop");
    if (!result) {
        // Both objects stay for the stop sequence, which destroys them.
        UnloadAllPluginsOfService(false);
        if (g_pObjIPCMsgSrv != nullptr) {
            g_pObjIPCMsgSrv->Stop();
        }
        return false;
    }

    if (QLBSoftShelf::GetInstance()->IsSupportPlugin("DumpReport")) {
        ShowMemory(L"Enter StartDumpReport()");
        StartDetachedThread(StartDumpReport);
    }
    if (!sid.empty()) {
        ShowMemory(L"Enter StartRelatedProcess");
        StartDetachedThread(StartRelatedProcess);
    }
    return true;
}

bool StartIPCServer() {
    ShowMemory(L"Enter new IPCMessageServer()");
    g_pObjIPCMsgSrv = new (std::nothrow) IPCMessageServer();
    if (g_pObjIPCMsgSrv == nullptr) {
        QLOG_WARN("Init Service: fail to new IPC Message Server.");
        return false;
    }
    ShowMemory(L"Enter g_pObjIPCMsgSrv->Start()");
    if (!g_pObjIPCMsgSrv->Start()) {
        QLOG_WARN("Init Service: fail to start ipc server.");
        return false;
    }
    return true;
}

bool LoadAllPluginsOfService() {
    ShowMemory(L"Enter new QLBPluginsManager()");
    std::string pluginDir;
    (void)ZVPROCESS::HELPER::GetSelfFullFilePath(pluginDir, "plugins");
    g_pObjSvrPluginsManager = new (std::nothrow) QLBPluginsManager(pluginDir);
    if (g_pObjSvrPluginsManager == nullptr) {
        return false;
    }

    std::string programDir;
    if (!ZVPROCESS::HELPER::GetSelfFullFilePath(programDir, "")) {
        QLOG_ERROR("fail to get cur module path. error=" << win::ERROR_FILE_NOT_FOUND);
        return false;
    }
    // Plugins find what lies beside the executable: relative paths through the working directory,
    // their libraries through the run path they are built with ("$ORIGIN"), as the loader has no
    // search list to add to at run time.
    (void)::chdir(programDir.c_str());

    ShowMemory(L"Enter g_pObjSvrPluginsManager->LoadAllPlugins()");
    const ElapsedTimer timer;
    if (!g_pObjSvrPluginsManager->LoadCfg(GetPluginCfgPath().c_str(), qlb::plugins::kProcessMainService)) {
        QLOG_ERROR("fail to load plugin cfg.");
        return false;
    }
    const bool result = g_pObjSvrPluginsManager->LoadAllPlugins(nullptr);
    // Sent also when some plugin failed: the event times the attempt.
    SendElapsedEvent(ServiceInitEvents::kPluginsLoaded, timer);
    return result;
}

void UnloadAllPluginsOfService(bool destroy) {
    if (g_pObjSvrPluginsManager == nullptr) {
        return;
    }
    ShowMemory(L"Enter g_pObjSvrPluginsManager->UnloadAllPlugins()");
    const ElapsedTimer timer;
    g_pObjSvrPluginsManager->UnloadAllPlugins();
    SendElapsedEvent(ServiceInitEvents::kPluginsUnloaded, timer);
    if (destroy) {
        delete g_pObjSvrPluginsManager;
        g_pObjSvrPluginsManager = nullptr;
    }
}

void StartServerConfigService() {
    if (ServerConfigWanted()) {
        QLOG_WARN("will start to access config server.");
        auto* download = ServerConfigDownload::GetInstance();
        (void)download->Init();
        (void)download->Start();
    }
}

void StopServerConfigService() {
    if (ServerConfigWanted()) {
        QLOG_WARN("ServiceMain enter ServerConfigDownload uninit.");
        auto* download = ServerConfigDownload::GetInstance();
        download->UnInit();
        download->Stop();
    }
}

// --- OpensllLock -----------------------------------------------------------------------------------

OpensllLock* OpensllLock::GetInstance() {
    static OpensllLock instance;
    return &instance;
}

bool OpensllLock::Init() {
    std::lock_guard lock(mutex_);
    initialized_ = true;
    return true;
}

bool OpensllLock::UnInit() {
    std::lock_guard lock(mutex_);
    initialized_ = false;
    return true;
}

bool OpensllLock::IsInitialized() const {
    std::lock_guard lock(mutex_);
    return initialized_;
}

// --- ServerConfigDownload --------------------------------------------------------------------------

ServerConfigDownload* ServerConfigDownload::GetInstance() {
    static ServerConfigDownload instance;
    return &instance;
}

ServerConfigDownload::~ServerConfigDownload() {
    Stop();
}

bool ServerConfigDownload::Init() {
    std::string base;
    if (!UrlLoader::GetInstance().GetServiceUrl(kServiceName, base, "ROOT")) {
        QLOG_WARN("ServerConfigDownload no endpoint for " << kServiceName);
        return false;
    }
    std::lock_guard lock(mutex_);
    url_ = base + kConfigPath;
    return true;
}

bool ServerConfigDownload::Start() {
    std::lock_guard lock(mutex_);
    if (url_.empty()) {
        return false;
    }
    if (thread_.joinable()) {
        return true;
    }
    stopRequested_ = false;
    try {
        thread_ = std::thread(&ServerConfigDownload::Run, this, url_);
    } catch (const std::system_error& e) {
        QLOG_ERROR("ServerConfigDownload thread failed: " << e.what());
        return false;
    }
    return true;
}

void ServerConfigDownload::Stop() {
    std::thread worker;
    {
        std::lock_guard lock(mutex_);
        stopRequested_ = true;
        worker = std::move(thread_);
    }
    wake_.notify_all();
    if (worker.joinable()) {
        worker.join();
    }
}

void ServerConfigDownload::UnInit() {
    std::lock_guard lock(mutex_);
    url_.clear();
}

std::string ServerConfigDownload::CachedConfigPath() {
    std::string appData;
    if (DE::GetAppDataPath(appData) != 0) {
        return {};
    }
    return appData + "cache/serverconfig.json";
}

bool ServerConfigDownload::Fetched() const {
    std::lock_guard lock(mutex_);
    return fetched_;
}

void ServerConfigDownload::Run(std::string url) {
    static constexpr std::array<std::chrono::milliseconds, 4> kDelays{
        std::chrono::milliseconds(0), std::chrono::seconds(1), std::chrono::seconds(5),
        std::chrono::seconds(30)};
    for (const auto delay : kDelays) {
        {
            std::unique_lock lock(mutex_);
            if (wake_.wait_for(lock, delay, [this] { return stopRequested_; })) {
                return;
            }
        }
        if (FetchOnce(url)) {
            return;
        }
    }
}

bool ServerConfigDownload::FetchOnce(const std::string& url) {
    qlb::http::Request request;
    request.url = url;
    request.method = "GET";
    request.headers["Accept"] = "application/json";
    const auto response = qlb::http::Perform(request);
    if (!response.ok()) {
        QLOG_ERROR("ServerConfigDownload fetch failed. curl="
                   << response.curlCode << ", http=" << response.httpStatus << ", " << response.error);
        return false;
    }
    // The copy is replaced whole: readers see the old or the new document, never a part.
    const std::filesystem::path target = CachedConfigPath();
    if (target.empty()) {
        return false;
    }
    std::error_code ec;
    std::filesystem::create_directories(target.parent_path(), ec);
    auto temp = target;
    temp += ".tmp";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out << response.body;
        if (!out.flush()) {
            QLOG_ERROR("ServerConfigDownload can't write " << temp.string());
            return false;
        }
    }
    std::filesystem::rename(temp, target, ec);
    if (ec) {
        QLOG_ERROR("ServerConfigDownload can't write " << target.string() << ", " << ec.message());
        return false;
    }
    std::lock_guard lock(mutex_);
    fetched_ = true;
    return true;
}
