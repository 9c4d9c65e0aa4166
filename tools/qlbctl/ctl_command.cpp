#include "ctl_command.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <mutex>
#include <sstream>
#include <thread>

#include "runtime/ipc/frame_codec.h"
#include "runtime/ipc/ipc_message_client.h"
#include "runtime/ipc/ipc_message_server.h"

namespace qlb::ctl {

namespace {

constexpr auto kJoinWait = std::chrono::seconds(5);

bool ParseNumber(const std::string& text, int& value) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || parsed < INT32_MIN || parsed > UINT32_MAX) {
        return false;
    }
    value = static_cast<int>(static_cast<std::int64_t>(parsed));
    return true;
}

bool ParseHex(const std::string& text, std::vector<std::uint8_t>& bytes) {
    std::string digits;
    for (char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c))) {
            digits.push_back(c);
        } else if (c != ' ' && c != ':') {
            return false;
        }
    }
    if (digits.size() % 2 != 0) {
        return false;
    }
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return true;
}

}  // namespace

std::optional<CtlOptions> ParseCtlArguments(const std::vector<std::string>& args, std::string& error) {
    CtlOptions options;
    bool payloadGiven = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= args.size()) {
                error = arg + " needs a value";
                return false;
            }
            out = args[++i];
            return true;
        };
        auto number = [&](int& out) {
            std::string text;
            if (!value(text)) {
                return false;
            }
            if (!ParseNumber(text, out)) {
                error = "not a number: " + text;
                return false;
            }
            return true;
        };
        auto payload = [&]() {
            if (payloadGiven) {
                error = "only one of --text, --hex and --file";
                return false;
            }
            payloadGiven = true;
            return true;
        };
        std::string text;
        if (arg == "--socket") {
            if (!value(text)) {
                return std::nullopt;
            }
            options.socket = text;
        } else if (arg == "--module") {
            if (!number(options.moduleId)) {
                return std::nullopt;
            }
        } else if (arg == "--to") {
            if (!number(options.toModuleId)) {
                return std::nullopt;
            }
        } else if (arg == "--sync") {
            if (!number(options.syncMessageId)) {
                return std::nullopt;
            }
        } else if (arg == "--wait") {
            if (!value(text)) {
                return std::nullopt;
            }
            char* end = nullptr;
            options.waitSeconds = std::strtod(text.c_str(), &end);
            if (*end != '\0' || options.waitSeconds < 0) {
                error = "not a number of seconds: " + text;
                return std::nullopt;
            }
        } else if (arg == "--text") {
            if (!payload() || !value(text)) {
                return std::nullopt;
            }
            options.payload.assign(text.begin(), text.end());
            options.payload.push_back(0);
        } else if (arg == "--hex") {
            if (!payload() || !value(text)) {
                return std::nullopt;
            }
            if (!ParseHex(text, options.payload)) {
                error = "not hex bytes: " + text;
                return std::nullopt;
            }
        } else if (arg == "--file") {
            if (!payload() || !value(text)) {
                return std::nullopt;
            }
            std::ifstream in(text, std::ios::binary);
            if (!in) {
                error = "cannot read " + text;
                return std::nullopt;
            }
            std::ostringstream content;
            content << in.rdbuf();
            const std::string bytes = content.str();
            options.payload.assign(bytes.begin(), bytes.end());
        } else if (options.verb.empty() && (arg == "send" || arg == "watch")) {
            options.verb = arg;
            if (arg == "send") {
                if (i + 1 >= args.size() || !ParseNumber(args[i + 1], options.messageId)) {
                    error = "send needs a message id";
                    return std::nullopt;
                }
                ++i;
            }
        } else {
            error = "unknown argument: " + arg;
            return std::nullopt;
        }
    }
    if (options.verb.empty()) {
        error = "give a verb: send or watch";
        return std::nullopt;
    }
    if (options.moduleId == 0) {
        error = "module 0 is the broadcast address";
        return std::nullopt;
    }
    if (options.payload.size() > static_cast<std::size_t>(ipc::kMaxDataLength)) {
        error = "payload above 16 MiB";
        return std::nullopt;
    }
    return options;
}

std::string DescribeFrame(const TagIPCMessageItem& item) {
    std::ostringstream text;
    text << "0x" << std::hex << item.messageId << " from 0x" << item.fromModuleId << " to 0x"
         << item.toModuleId << std::dec << " sync " << item.syncMessageId << " reserved " << item.reservedA
         << "/" << item.reservedB << " flag " << static_cast<int>(item.reservedFlag) << " len "
         << item.dataLength;
    if (item.dataLength > 0 && item.data != nullptr) {
        const auto* begin = item.data;
        const auto* end = item.data + item.dataLength;
        const bool printable = end[-1] == 0 && std::all_of(begin, end - 1, [](unsigned char c) {
                                   return c >= 0x20 || c == '\n' || c == '\t' || c == '\r';
                               });
        if (printable) {
            text << "\n  text: " << std::string(reinterpret_cast<const char*>(begin));
        } else {
            text << "\n  hex:";
            for (const auto* at = begin; at != end; ++at) {
                text << ' ' << std::hex << std::setw(2) << std::setfill('0') << static_cast<int>(*at);
            }
        }
    }
    return text.str();
}

int RunCtl(const CtlOptions& options, std::ostream& out, std::ostream& err, const std::atomic<bool>& stop) {
    const std::filesystem::path socket = options.socket.empty() ? ipc::DefaultSocketPath() : options.socket;
    ipc::ClientOptions clientOptions;
    clientOptions.reconnect = false;
    clientOptions.connectOnStart = false;  // nothing addressed to us may arrive before the printer is set
    IPCMessageClient client(options.moduleId, socket, clientOptions);
    std::mutex outMutex;
    client.SetDefaultCallback([&](TagIPCMessageItem& item) {
        std::lock_guard<std::mutex> lock(outMutex);
        out << DescribeFrame(item) << std::endl;
    });
    client.Connect();
    if (!client.WaitJoined(kJoinWait)) {
        err << "qlbctl: cannot join the channel at " << socket.string();
        if (client.LastRefusal() != 0) {
            err << ": refused with status " << client.LastRefusal();
        }
        err << "\n";
        return 1;
    }
    if (options.verb == "send") {
        TagIPCMessageItem item;
        item.toModuleId = options.toModuleId;
        item.fromModuleId = options.moduleId;
        item.messageId = options.messageId;
        item.syncMessageId = options.syncMessageId;
        item.dataLength = static_cast<std::int32_t>(options.payload.size());
        item.data = options.payload.empty() ? nullptr : const_cast<std::uint8_t*>(options.payload.data());
        if (!client.PostIPCMessage(item) || !client.WaitIdle(kJoinWait)) {
            err << "qlbctl: message not posted\n";
            return 1;
        }
    }
    const bool forever = options.verb == "watch" && options.waitSeconds == 0;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                               std::chrono::duration<double>(options.waitSeconds));
    while (!stop && (forever || std::chrono::steady_clock::now() < deadline)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return 0;
}

}  // namespace qlb::ctl
