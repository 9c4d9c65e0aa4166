#pragma once
// qlbctl: a command-line module of the IPC channel for module developers.
//
//   qlbctl [--socket PATH] [--module ID] send MESSAGE [--to ID] [--text TEXT | --hex HEX | --file PATH]
//          [--sync N] [--wait SECONDS]
//   qlbctl [--socket PATH] [--module ID] watch [--wait SECONDS]
//
// Numbers are decimal or 0x-hex. `send` joins as --module (default 0x500000), posts one message to
// --to (default the main service, 0x30000) and prints every frame addressed to it for --wait seconds.
// Text payloads get their terminating NUL, as the service's handlers expect. `watch` prints the frames
// addressed to --module until --wait runs out (0: until interrupted).
// Exit status: 0 done, 1 the hub could not be joined or the message not posted, 2 usage error.

#include <atomic>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "runtime/ipc/ipc_message_item.h"

namespace qlb::ctl {

struct CtlOptions {
    std::filesystem::path socket;  // empty: the machine profile's
    int moduleId = 0x500000;
    std::string verb;
    int messageId = 0;
    int toModuleId = 0x30000;
    int syncMessageId = 0;
    std::vector<std::uint8_t> payload;
    double waitSeconds = 0;
};

// Parses the arguments (without the program name); nothing and a message in `error` on bad usage.
std::optional<CtlOptions> ParseCtlArguments(const std::vector<std::string>& args, std::string& error);

// "0x30073 from 0x30000 to 0x500000 sync 0 reserved 0/-1 flag 0 len 2" and the payload as text when it
// is printable and NUL-terminated, else as hex.
std::string DescribeFrame(const TagIPCMessageItem& item);

// Runs a parsed command; `stop` ends a watch early.
int RunCtl(const CtlOptions& options, std::ostream& out, std::ostream& err, const std::atomic<bool>& stop);

}  // namespace qlb::ctl
