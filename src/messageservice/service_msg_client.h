#pragma once
// ServiceMsgClient: the service's side of the IPC channel. Its one object, g_MsgClient, owns the
// IPC client and the table of typed handlers; every handler is a member that takes the incoming item
// and answers, where the message has an answer, by posting a new item of its own.
//
// Handlers run on the IPC client's callback threads. Several block for minutes (installers, the
// driver setup, the update worker's waits), which the client allows: a blocked handler delays no
// other message.

#include <atomic>
#include <cstdint>
#include <string>

#include "runtime/ipc/ipc_message_item.h"

class IPCMessageClient;
class IPCServerProcTable;
struct LogInfo;

class ServiceMsgClient {
  public:
    ServiceMsgClient() = default;
    // Takes the table out first and destroys it, then the client, then whatever the table slot holds
    // again (nothing unless a call came between).
    ~ServiceMsgClient();
    ServiceMsgClient(const ServiceMsgClient&) = delete;
    ServiceMsgClient& operator=(const ServiceMsgClient&) = delete;

    // Joins the channel as MODULE_MAINSERVICE_ID and binds the 28 messages of the table in order.
    // False only when the client or the table could not be allocated.
    bool Initialize();

    // Tells the process monitor module that the main service is up; 1 if the module loaded, else 0.
    static int BootMainServiceAlive();

    // Registry and setting requests (registry_requests.cpp).
    void OnRegEdit(TagIPCMessageItem& item);            // 0x30002
    void OnRecvLogSwitch(TagIPCMessageItem& item);      // 0x30073
    void OnRecvCaptureSwitch(TagIPCMessageItem& item);  // 0x30074

    // Process control requests (process_control.cpp).
    void OnStartMsgCenter(TagIPCMessageItem& item);  // 0x30003
    void OnForceKill(TagIPCMessageItem& item);       // 0x30078

    // Disk information and the system update (disk_info.cpp).
    void OnGetDiskInfo(TagIPCMessageItem& item);           // 0x30004
    void OnStartupWindowsUpdate(TagIPCMessageItem& item);  // 0x200007

    // Installer requests (installer_requests.cpp).
    void OnSetupDriver(TagIPCMessageItem& item);              // 0x30008
    void OnStartInstallNimbra(TagIPCMessageItem& item);       // 0x30085
    void OnStartInstallVrAssistant(TagIPCMessageItem& item);  // 0x30087
    void OnStartInstallApp(TagIPCMessageItem& item);          // 0x30088

    // Self-update (self_update.cpp).
    void OnStartUpdateInstall(TagIPCMessageItem& item);  // 0x30006
    void OnUpdate(TagIPCMessageItem& item);              // 0x3007B

    // The typed telemetry record 0x3000E, bound through IPCServerProc: hands the record on to
    // LogReceive.
    void OnRecvPCMonitorLog(LogInfo& record);

    // Log capture requests (capture_log.cpp): eight ids, one routine.
    void OnReceiveCaptureLogMsgPerf(TagIPCMessageItem& item);       // 0x3000F
    void OnReceiveCaptureLogMsgWIFI(TagIPCMessageItem& item);       // 0x30010
    void OnReceiveCaptureLogMsgBT(TagIPCMessageItem& item);         // 0x30011
    void OnReceiveCaptureLogMsgStability(TagIPCMessageItem& item);  // 0x30012
    void OnReceiveCaptureLogMsgGoodix(TagIPCMessageItem& item);     // 0x30013
    void OnReceiveCaptureLogMsgAudio(TagIPCMessageItem& item);      // 0x30015
    void OnReceiveCaptureLogMsgGfx(TagIPCMessageItem& item);        // 0x30017
    void OnReceiveCaptureLogMsgGlidePad(TagIPCMessageItem& item);   // 0x3001E
    void OnReceiveCaptureLogBase(TagIPCMessageItem& item, std::string label);

    // Firewall rule (firewall_requests.cpp).
    void OnRecvInitFirewall(TagIPCMessageItem& item);  // 0x30077

    // Boot logo requests (boot_logo.cpp).
    void OnRecvSetLogo(TagIPCMessageItem& item);          // 0x30075
    void OnRecvLogoStatusGet(TagIPCMessageItem& item);    // 0x30076
    void OnRecLogoSupportQuery(TagIPCMessageItem& item);  // 0x3F0003

    // Restart and shutdown (restart_requests.cpp).
    void OnRestartPC(TagIPCMessageItem& item);  // 0xF0006

    // The boot record query (boot_record.cpp).
    void OnRecvBootRecordQuery(TagIPCMessageItem& item);  // 0xB0030

    // Process operations shared with the update worker and the session tracking; defined with the
    // process controls in process_control.cpp.
    static void StartMsgCenterProcess();
    static void WaitProcessExit(const std::wstring& name);
    static void KillProcess(const std::wstring& name);
    static void KillProcessByDriver(unsigned long processId);

    // Fields, in this order. The object owns both pointers; the table points at the client without
    // owning it.
    std::atomic<std::uint32_t> updateFlags{0};
    IPCMessageClient* client = nullptr;
    IPCServerProcTable* procTable = nullptr;
};

// The one object, with static lifetime: built before the service main sequence, filled by
// Initialize, torn down at process exit.
extern ServiceMsgClient g_MsgClient;
