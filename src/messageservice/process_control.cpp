#include "messageservice/process_control.h"

#include <cstring>
#include <stdexcept>
#include <string>

#include "messageservice/service_msg_client.h"
#include "platform/processes/process_api.h"
#include "runtime/common/logging.h"
#include "runtime/common/strings.h"
#include "runtime/process/process_utils.h"

namespace qlb::process_control {

DWORD ParseProcessIdText(const unsigned char* data, std::int32_t length) {
    const auto* text = reinterpret_cast<const char*>(data);
    const std::string value(text, ::strnlen(text, static_cast<size_t>(length)));
    const unsigned long parsed = std::stoul(value, nullptr, 10);
    // A 32-bit stoul wraps a negative text and refuses anything wider than 32 bits.
    const auto first = value.find_first_not_of(" \t\n\v\f\r");
    const bool negative = first != std::string::npos && value[first] == '-';
    if (!negative && parsed > 0xFFFFFFFFUL) {
        throw std::out_of_range("stoul argument out of range");
    }
    if (negative && 0UL - parsed > 0xFFFFFFFFUL) {
        throw std::out_of_range("stoul argument out of range");
    }
    return static_cast<DWORD>(parsed);
}

}  // namespace qlb::process_control

using qlb::process_control::kGraceMs;
using qlb::process_control::kMsgCenterProcessName;

void ServiceMsgClient::OnStartMsgCenter(TagIPCMessageItem& /*item*/) {
    StartMsgCenterProcess();
}

void ServiceMsgClient::StartMsgCenterProcess() {
    DWORD pid = 0;
    (void)PsQueryProcessIdByName(kMsgCenterProcessName, pid);
    // A running message centre is not started twice.
    if (pid != 0) {
        QLOG_ERROR("QueryPidByProcessName vecPids.size is not 0 OR lResult:ERROR");
        return;
    }
    if (PsStartProcessWithCurrentPrivilege(kMsgCenterProcessName, &pid, 0) == 0) {
        QLOG_ERROR("StartUserProcessWithPrivilege failed");
    }
}

void ServiceMsgClient::WaitProcessExit(const std::wstring& name) {
    QLOG_ERROR("WaitProcessExit begin process=" << qlb::W2U(name));
    auto& processes = qlb::platform::Processes();
    auto snapshot = processes.Snapshot();
    if (!snapshot) {
        QLOG_ERROR("WaitProcessExit CreateToolhelp32Snapshot failed");
        return;
    }
    const qlb::platform::ProcessEntry* match = nullptr;
    for (const auto& entry : snapshot.value) {
        if (qlb::EqualsNoCase(entry.imageName, name)) {
            match = &entry;
            break;
        }
    }
    if (match == nullptr) {
        return;
    }
    // Only the first process of that name is waited for.
    if (auto process = processes.Open(match->pid)) {
        if (process.value->Wait(INFINITE) == WAIT_OBJECT_0) {
            QLOG_ERROR("Tessalink.exe exit");
        }
    }
    QLOG_ERROR("WaitProcessExit end process=" << qlb::W2U(name));
}

void ServiceMsgClient::KillProcess(const std::wstring& name) {
    std::vector<unsigned long> pids;
    (void)ZVPROCESS::HELPER::QueryPidByProcessName(name, pids, ZVPROCESS::HELPER::QUERY_PROCESS_ALL);
    auto& processes = qlb::platform::Processes();
    for (const unsigned long id : pids) {
        auto process = processes.Open(static_cast<std::uint32_t>(id));
        if (!process) {
            QLOG_ERROR("KillProcess no find:" << id);
            continue;
        }
        QLOG_ERROR("KillProcess open Handle");
        // The process has a moment to end by itself.
        if (process.value->Wait(kGraceMs) == WAIT_OBJECT_0) {
            continue;
        }
        QLOG_ERROR("KillProcess done: " << id);
        if (const auto status = process.value->Terminate(0); !status) {
            QLOG_ERROR("KillProcess error code:" << status.error);
        }
    }
}

void ServiceMsgClient::OnForceKill(TagIPCMessageItem& item) {
    QLOG_WARN("OnForceKill in");
    if (item.data == nullptr || item.dataLength <= 0) {
        QLOG_ERROR("OnForceKill msg ERROR");
        return;
    }
    // A text that is not a number leaves the handler by exception, as the conversion raises it; no
    // handle is open yet.
    const DWORD pid = qlb::process_control::ParseProcessIdText(item.data, item.dataLength);
    QLOG_ERROR("OnForceKill pid: " << pid);
    auto process = qlb::platform::Processes().Open(pid);
    if (!process) {
        QLOG_ERROR("OnForceKill no find: ");
        return;
    }
    QLOG_ERROR("OnForceKill open Handle");
    // Unlike KillProcess, this path never ends the process itself: what outlives the grace period is
    // left to the process monitor module.
    if (process.value->Wait(kGraceMs) != WAIT_OBJECT_0) {
        QLOG_ERROR("OnForceKill done: ");
        KillProcessByDriver(pid);
    }
}

void ServiceMsgClient::KillProcessByDriver(unsigned long processId) {
    void* module = nullptr;
    MonProcess* instance = nullptr;
    if (LoadMonProcess(module, instance)) {
        const long result = instance->KillProcess(static_cast<DWORD>(processId));
        if (result != 0) {
            QLOG_ERROR("kill process id:" << processId << ", result:" << result);
        }
    }
    ReleaseMonProcess(module, instance);
}
