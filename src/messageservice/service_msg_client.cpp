#include "messageservice/service_msg_client.h"

#include <new>

#include "messageservice/ipc_server_proc.h"
#include "runtime/common/show_memory.h"
#include "runtime/ipc/ipc_message_client.h"
#include "runtime/ipc/ipc_message_ids.h"
#include "runtime/ipc/ipc_module_ids.h"
#include "runtime/telemetry/log_receive.h"

ServiceMsgClient g_MsgClient;

ServiceMsgClient::~ServiceMsgClient() {
    // The table goes first: it takes its typed handlers back from the client it points at.
    IPCServerProcTable* table = procTable;
    procTable = nullptr;
    delete table;
    delete client;
    client = nullptr;
    delete procTable;
    procTable = nullptr;
}

bool ServiceMsgClient::Initialize() {
    ShowMemory(L"Enter new CIPCMessageClient(MODULE_MAINSERVICE_ID, true)");
    IPCMessageClient* previousClient = client;
    client = new (std::nothrow) IPCMessageClient(MODULE_MAINSERVICE_ID, true, false);
    IPCServerProcTable* table = new (std::nothrow) IPCServerProcTable(client, false);
    IPCServerProcTable* previousTable = procTable;
    procTable = table;
    // A second call replaces the first channel: its table unbinds from the old client before that
    // client goes.
    delete previousTable;
    if (previousClient != client) {
        delete previousClient;
    }
    if (client == nullptr || procTable == nullptr) {
        return false;
    }

    client->RegisterMessageCallback(MSG_REG_EDIT, &ServiceMsgClient::OnRegEdit, this);
    client->RegisterMessageCallback(MSG_START_MSG_CENTER, &ServiceMsgClient::OnStartMsgCenter, this);
    client->RegisterMessageCallback(MSG_GET_DISK_INFO, &ServiceMsgClient::OnGetDiskInfo, this);
    client->RegisterMessageCallback(MSG_STARTUP_WINDOWS_UPDATE, &ServiceMsgClient::OnStartupWindowsUpdate,
                                    this);
    client->RegisterMessageCallback(MSG_SETUP_DRIVER, &ServiceMsgClient::OnSetupDriver, this);
    client->RegisterMessageCallback(MSG_START_UPDATE_INSTALL, &ServiceMsgClient::OnStartUpdateInstall, this);

    auto* proc = new (std::nothrow) IPCServerProc<ServiceMsgClient, void, LogInfo&>(
        MSG_PCMONITOR_LOG, this, &ServiceMsgClient::OnRecvPCMonitorLog);
    if (procTable->RegisterProc(proc) < 0) {
        delete proc;  // the record message is lost, nothing else
    }

    client->RegisterMessageCallback(MSG_CAPTURE_LOG_PERF, &ServiceMsgClient::OnReceiveCaptureLogMsgPerf,
                                    this);
    client->RegisterMessageCallback(MSG_CAPTURE_LOG_WIFI, &ServiceMsgClient::OnReceiveCaptureLogMsgWIFI,
                                    this);
    client->RegisterMessageCallback(MSG_CAPTURE_LOG_BT, &ServiceMsgClient::OnReceiveCaptureLogMsgBT, this);
    client->RegisterMessageCallback(MSG_CAPTURE_LOG_STABILITY,
                                    &ServiceMsgClient::OnReceiveCaptureLogMsgStability, this);
    client->RegisterMessageCallback(MSG_CAPTURE_LOG_GOODIX, &ServiceMsgClient::OnReceiveCaptureLogMsgGoodix,
                                    this);
    client->RegisterMessageCallback(MSG_CAPTURE_LOG_AUDIO, &ServiceMsgClient::OnReceiveCaptureLogMsgAudio,
                                    this);
    client->RegisterMessageCallback(MSG_CAPTURE_LOG_GFX, &ServiceMsgClient::OnReceiveCaptureLogMsgGfx, this);
    client->RegisterMessageCallback(MSG_CAPTURE_LOG_GLIDEPAD,
                                    &ServiceMsgClient::OnReceiveCaptureLogMsgGlidePad, this);
    client->RegisterMessageCallback(MSG_LOG_SWITCH, &ServiceMsgClient::OnRecvLogSwitch, this);
    client->RegisterMessageCallback(MSG_CAPTURE_SWITCH, &ServiceMsgClient::OnRecvCaptureSwitch, this);
    client->RegisterMessageCallback(MSG_INIT_FIREWALL, &ServiceMsgClient::OnRecvInitFirewall, this);
    client->RegisterMessageCallback(MSG_SET_LOGO, &ServiceMsgClient::OnRecvSetLogo, this);
    client->RegisterMessageCallback(MSG_LOGO_STATUS_GET, &ServiceMsgClient::OnRecvLogoStatusGet, this);
    client->RegisterMessageCallback(MSG_LOGO_SUPPORT_QUERY, &ServiceMsgClient::OnRecLogoSupportQuery, this);
    client->RegisterMessageCallback(MSG_RESTART_PC, &ServiceMsgClient::OnRestartPC, this);
    client->RegisterMessageCallback(MSG_FORCE_KILL, &ServiceMsgClient::OnForceKill, this);
    client->RegisterMessageCallback(MSG_UPDATE, &ServiceMsgClient::OnUpdate, this);
    client->RegisterMessageCallback(MSG_START_INSTALL_NIMBRA, &ServiceMsgClient::OnStartInstallNimbra, this);
    client->RegisterMessageCallback(MSG_START_INSTALL_VRASSISTANT,
                                    &ServiceMsgClient::OnStartInstallVrAssistant, this);
    client->RegisterMessageCallback(MSG_START_INSTALL_APP, &ServiceMsgClient::OnStartInstallApp, this);
    client->RegisterMessageCallback(MSG_BOOT_RECORD_QUERY, &ServiceMsgClient::OnRecvBootRecordQuery, this);
    return true;
}

void ServiceMsgClient::OnRecvPCMonitorLog(LogInfo& record) {
    LogReceive::Instance().PCMonitorRcvLog(record);
}
