// qlbctl: its argument rules, how it prints frames, and the real binary against a hub in the test.

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <mutex>

#include "ctl_command.h"
#include "runtime/ipc/ipc_message_client.h"
#include "runtime/ipc/ipc_message_server.h"
#include "support/child_process.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

using namespace qlb::ctl;
using qlb::testing::ChildProcess;
using qlb::testing::Eventually;

namespace {

TEST(QlbctlArgumentsTest, TextGetsItsNulAndNumbersTakeHexOrDecimal) {
    std::string error;
    auto options =
        ParseCtlArguments({"--module", "0x500000", "send", "0x30073", "--text", "1", "--sync", "12"}, error);
    ASSERT_TRUE(options);
    EXPECT_EQ(options->moduleId, 0x500000);
    EXPECT_EQ(options->messageId, 0x30073);
    EXPECT_EQ(options->toModuleId, 0x30000);
    EXPECT_EQ(options->syncMessageId, 12);
    EXPECT_EQ(options->payload, (std::vector<std::uint8_t>{'1', 0}));
    options = ParseCtlArguments({"send", "1", "--hex", "01 ff:7A", "--to", "0x3F0000"}, error);
    ASSERT_TRUE(options);
    EXPECT_EQ(options->payload, (std::vector<std::uint8_t>{0x01, 0xFF, 0x7A}));
    EXPECT_EQ(options->toModuleId, 0x3F0000);
}

TEST(QlbctlArgumentsTest, BadUsageIsRefusedWithAReason) {
    const std::vector<std::vector<std::string>> cases = {{},
                                                         {"send"},
                                                         {"send", "1", "--hex", "abc"},
                                                         {"send", "1", "--text", "a", "--hex", "00"},
                                                         {"--module", "0", "watch"},
                                                         {"watch", "--wait", "-1"},
                                                         {"send", "1", "--file", "/nonexistent/qlb"},
                                                         {"frobnicate"}};
    for (const auto& args : cases) {
        SCOPED_TRACE(args.empty() ? "" : args.back());
        std::string error;
        EXPECT_FALSE(ParseCtlArguments(args, error));
        EXPECT_NE(error, "");
    }
}

TEST(QlbctlDescribeTest, PrintableTextIsShownAsTextAndEverythingElseAsHex) {
    char ok[] = "ok";
    TagIPCMessageItem item;
    item.messageId = 0x30077;
    item.fromModuleId = 0x30000;
    item.toModuleId = 0x500000;
    item.syncMessageId = 5;
    item.data = reinterpret_cast<unsigned char*>(ok);
    item.dataLength = 3;
    EXPECT_EQ(DescribeFrame(item),
              "0x30077 from 0x30000 to 0x500000 sync 5 reserved 0/0 flag 0 len 3\n  text: ok");
    unsigned char bytes[] = {0x00, 0x10, 0xAB};
    item.data = bytes;
    EXPECT_NE(DescribeFrame(item).find("hex: 00 10 ab"), std::string::npos);
}

// The real binary against a hub, with a module standing in for the main service: it records what it is
// sent and answers "ok" with the same id and sync id.
class QlbctlBinaryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(hub_.Start());
        service_.SetDefaultCallback([this](TagIPCMessageItem& item) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                received_ = item;
                payload_.assign(item.data, item.data + item.dataLength);
                ++count_;
            }
            char ok[] = "ok";
            TagIPCMessageItem answer;
            answer.toModuleId = item.fromModuleId;
            answer.fromModuleId = 0x30000;
            answer.messageId = item.messageId;
            answer.syncMessageId = item.syncMessageId;
            answer.data = reinterpret_cast<unsigned char*>(ok);
            answer.dataLength = 3;
            service_.PostIPCMessage(answer);
        });
        ASSERT_TRUE(service_.WaitJoined(std::chrono::seconds(20)));
    }
    ChildProcess Qlbctl(std::vector<std::string> args) {
        args.insert(args.begin(), {QLB_PROGRAM_DIR "/qlbctl", "--socket", (dir_ / "ipc.sock").string()});
        return ChildProcess(args);
    }
    // Reads the binary's output up to a line holding `text`; false at its end or when the time is up.
    static bool ReadUntil(ChildProcess& ctl, const std::string& text, std::string& out) {
        while (auto line = ctl.ReadLine()) {
            out += *line + "\n";
            if (line->find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    qlb::testing::TempDir dir_;
    IPCMessageServer hub_{dir_ / "ipc.sock", qlb::ipc::PeerPolicy({::getuid()}, {})};
    IPCMessageClient service_{0x30000, dir_ / "ipc.sock"};
    std::mutex mutex_;
    TagIPCMessageItem received_;
    std::vector<std::uint8_t> payload_;
    int count_ = 0;
};

TEST_F(QlbctlBinaryTest, SendDeliversTheTextAndPrintsTheAnswer) {
    ChildProcess ctl = Qlbctl(
        {"--module", "0x500000", "send", "0x30077", "--text", "hello", "--sync", "77", "--wait", "60"});
    std::string out;
    ASSERT_TRUE(ReadUntil(ctl, "text: ok", out)) << out;
    EXPECT_NE(out.find("0x30077 from 0x30000 to 0x500000 sync 77"), std::string::npos) << out;
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(received_.fromModuleId, 0x500000);
    EXPECT_EQ(received_.syncMessageId, 77);
    EXPECT_EQ(payload_, (std::vector<std::uint8_t>{'h', 'e', 'l', 'l', 'o', 0}));
}

TEST_F(QlbctlBinaryTest, SendOfAFileWithoutWaitingExitsZeroOnceItIsOut) {
    std::ofstream(dir_ / "record.bin", std::ios::binary) << std::string("\x01\x00\x02", 3);
    ChildProcess ctl = Qlbctl({"send", "0x30002", "--file", (dir_ / "record.bin").string()});
    EXPECT_EQ(ctl.Wait(), 0);
    ASSERT_TRUE(Eventually([&] {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_ == 1;
    }));
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(payload_, (std::vector<std::uint8_t>{1, 0, 2}));
}

TEST_F(QlbctlBinaryTest, WatchPrintsFramesAddressedToItsModule) {
    const auto joined = hub_.Counters().joined;
    ChildProcess ctl = Qlbctl({"--module", "0x510000", "watch"});
    ASSERT_TRUE(Eventually([&] { return hub_.Counters().joined > joined; }));
    unsigned char bytes[] = {0xDE, 0xAD};
    TagIPCMessageItem item;
    item.toModuleId = 0x510000;
    item.fromModuleId = 0x30000;
    item.messageId = 0x3F0004;
    item.data = bytes;
    item.dataLength = 2;
    ASSERT_TRUE(service_.PostIPCMessage(item));
    std::string out;
    EXPECT_TRUE(ReadUntil(ctl, "hex: de ad", out)) << out;
}

TEST(QlbctlExitStatusTest, NoHubGivesOneAndBadUsageGivesTwo) {
    qlb::testing::TempDir dir;
    ChildProcess noHub({QLB_PROGRAM_DIR "/qlbctl", "--socket", (dir / "none.sock").string(), "send", "1"});
    EXPECT_EQ(noHub.Wait(), 1);
    ChildProcess usage({QLB_PROGRAM_DIR "/qlbctl", "send"});
    EXPECT_EQ(usage.Wait(), 2);
}

}  // namespace
