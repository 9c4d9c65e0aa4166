// A module for the IPC tests, run as a process of its own.
//   ipc_test_peer SOCKET MODULE echo   answers every message to its sender: the same id and
//                                      syncMessageId, with the received frame as data
//   ipc_test_peer SOCKET MODULE join   tries once to join; exits 0 when joined, else the refusal
//                                      status (99 when the hub never answered)

#include <sys/prctl.h>

#include <condition_variable>
#include <csignal>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ipc_test_support.h"
#include "runtime/ipc/frame_codec.h"

using namespace qlb::ipc;
using namespace qlb::ipc::test;

namespace {

std::mutex g_mutex;
std::condition_variable g_cv;
bool g_released = false;

// Answers with the whole frame as it was received: every header field and data byte.
void Echo(IPCMessageClient& client, const TagIPCMessageItem& item) {
    auto frame = EncodeFrame(item);
    TagIPCMessageItem answer = MakeItem(item.fromModuleId, client.ModuleId(), item.messageId, frame.data(),
                                        static_cast<int>(frame.size()));
    answer.syncMessageId = item.syncMessageId;
    client.PostIPCMessage(answer);
}

}  // namespace

int main(int argc, char** argv) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (argc != 4) {
        return 2;
    }
    const std::filesystem::path socket = argv[1];
    const int moduleId = std::stoi(argv[2]);
    const std::string mode = argv[3];
    if (mode == "join") {
        ClientOptions options;
        options.reconnect = false;
        IPCMessageClient client(moduleId, socket, options);
        if (client.WaitJoined(kWait)) {
            return 0;
        }
        return client.LastRefusal() != 0 ? client.LastRefusal() : 99;
    }
    ClientOptions options;
    options.connectOnStart = false;  // joins once it can answer
    IPCMessageClient client(moduleId, socket, options);
    client.SetDefaultCallback([&client](TagIPCMessageItem& item) {
        if (item.messageId == kMsgBlock) {
            std::unique_lock<std::mutex> lock(g_mutex);
            g_cv.wait_for(lock, std::chrono::minutes(2), [] { return g_released; });
        } else if (item.messageId == kMsgRelease) {
            std::lock_guard<std::mutex> lock(g_mutex);
            g_released = true;
            g_cv.notify_all();
        } else if (item.messageId == kMsgThrow) {
            Echo(client, item);
            throw std::runtime_error("handler failure");
        }
        Echo(client, item);
    });
    client.Connect();
    for (;;) {
        ::pause();
    }
}
