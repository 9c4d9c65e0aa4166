// qlbctl: its argument rules, how it prints frames, and the real binary against a hub in the test.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <sstream>
#include <thread>

#include "ctl_command.h"
#include "runtime/ipc/ipc_message_client.h"
#include "runtime/ipc/ipc_message_server.h"

extern char** environ;

using namespace qlb::ctl;

namespace {

constexpr auto kWait = std::chrono::seconds(20);

std::optional<CtlOptions> Parse(std::vector<std::string> args) {
    std::string error;
    return ParseCtlArguments(args, error);
}

TEST(QlbctlArgumentsTest, TextGetsItsNulAndNumbersTakeHexOrDecimal) {
    auto options = Parse({"--module", "0x500000", "send", "0x30073", "--text", "1", "--sync", "12"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->moduleId, 0x500000);
    EXPECT_EQ(options->messageId, 0x30073);
    EXPECT_EQ(options->toModuleId, 0x30000);
    EXPECT_EQ(options->syncMessageId, 12);
    EXPECT_EQ(options->payload, (std::vector<std::uint8_t>{'1', 0}));
}

TEST(QlbctlArgumentsTest, HexPayloadTakesSeparators) {
    auto options = Parse({"send", "1", "--hex", "01 ff:7A", "--to", "0x3F0000"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options->payload, (std::vector<std::uint8_t>{0x01, 0xFF, 0x7A}));
    EXPECT_EQ(options->toModuleId, 0x3F0000);
}

TEST(QlbctlArgumentsTest, BadUsageIsRefusedWithAReason) {
    std::string error;
    EXPECT_FALSE(ParseCtlArguments({}, error));
    EXPECT_FALSE(ParseCtlArguments({"send"}, error));
    EXPECT_FALSE(ParseCtlArguments({"send", "1", "--hex", "abc"}, error));
    EXPECT_FALSE(ParseCtlArguments({"send", "1", "--text", "a", "--hex", "00"}, error));
    EXPECT_FALSE(ParseCtlArguments({"--module", "0", "watch"}, error));
    EXPECT_FALSE(ParseCtlArguments({"watch", "--wait", "-1"}, error));
    EXPECT_FALSE(ParseCtlArguments({"send", "1", "--file", "/nonexistent/qlb"}, error));
    EXPECT_FALSE(ParseCtlArguments({"frobnicate"}, error));
    EXPECT_NE(error, "");
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

// The qlbctl binary with its standard output in a file.
class QlbctlProcess {
  public:
    QlbctlProcess(const std::vector<std::string>& args, const std::filesystem::path& output) {
        std::vector<std::string> all = {QLB_PROGRAM_DIR "/qlbctl"};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& arg : all) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, (output.string() + ".err").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    ~QlbctlProcess() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    void Terminate() { ::kill(pid_, SIGTERM); }
    int Wait() {
        const auto deadline = std::chrono::steady_clock::now() + kWait;
        int status = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                reaped_ = true;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return -1;
    }

  private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

template <typename Predicate>
bool WaitUntil(Predicate predicate) {
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

class QlbctlBinaryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qlbctl-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
        hub_ = std::make_unique<IPCMessageServer>(dir_ / "ipc.sock", qlb::ipc::PeerPolicy({::getuid()}, {}));
        ASSERT_TRUE(hub_->Start());
        // Stands in for the main service: records what it is sent and answers "ok" with the sync id.
        service_ = std::make_unique<IPCMessageClient>(0x30000, dir_ / "ipc.sock");
        IPCMessageClient* service = service_.get();
        service_->SetDefaultCallback([this, service](TagIPCMessageItem& item) {
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
            service->PostIPCMessage(answer);
        });
        ASSERT_TRUE(service_->WaitJoined(kWait));
    }
    void TearDown() override {
        service_.reset();
        hub_.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    std::string Socket() const { return (dir_ / "ipc.sock").string(); }

    std::filesystem::path dir_;
    std::unique_ptr<IPCMessageServer> hub_;
    std::unique_ptr<IPCMessageClient> service_;
    std::mutex mutex_;
    TagIPCMessageItem received_;
    std::vector<std::uint8_t> payload_;
    int count_ = 0;
};

TEST_F(QlbctlBinaryTest, SendDeliversTheTextAndPrintsTheAnswer) {
    QlbctlProcess ctl({"--socket", Socket(), "--module", "0x500000", "send", "0x30077", "--text", "hello",
                       "--sync", "77", "--wait", "20"},
                      dir_ / "out");
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(dir_ / "out").find("text: ok") != std::string::npos; }));
    ctl.Terminate();
    EXPECT_EQ(ctl.Wait(), 0);
    const std::string out = ReadFile(dir_ / "out");
    EXPECT_NE(out.find("0x30077 from 0x30000 to 0x500000 sync 77"), std::string::npos) << out;
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(received_.fromModuleId, 0x500000);
    EXPECT_EQ(received_.syncMessageId, 77);
    EXPECT_EQ(payload_, (std::vector<std::uint8_t>{'h', 'e', 'l', 'l', 'o', 0}));
}

TEST_F(QlbctlBinaryTest, SendOfAFileWithoutWaitingExitsZeroOnceItIsOut) {
    std::ofstream(dir_ / "record.bin", std::ios::binary) << std::string("\x01\x00\x02", 3);
    QlbctlProcess ctl({"--socket", Socket(), "send", "0x30002", "--file", (dir_ / "record.bin").string()},
                      dir_ / "out");
    EXPECT_EQ(ctl.Wait(), 0);
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_ == 1;
    }));
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(payload_, (std::vector<std::uint8_t>{1, 0, 2}));
}

TEST_F(QlbctlBinaryTest, WatchPrintsFramesAddressedToItsModule) {
    const auto joined = hub_->Counters().joined;
    QlbctlProcess ctl({"--socket", Socket(), "--module", "0x510000", "watch"}, dir_ / "out");
    ASSERT_TRUE(WaitUntil([&] { return hub_->Counters().joined > joined; }));
    unsigned char bytes[] = {0xDE, 0xAD};
    TagIPCMessageItem item;
    item.toModuleId = 0x510000;
    item.fromModuleId = 0x30000;
    item.messageId = 0x3F0004;
    item.data = bytes;
    item.dataLength = 2;
    ASSERT_TRUE(service_->PostIPCMessage(item));
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(dir_ / "out").find("hex: de ad") != std::string::npos; }));
    ctl.Terminate();
    EXPECT_EQ(ctl.Wait(), 0);
}

TEST(QlbctlExitStatusTest, NoHubGivesOneAndBadUsageGivesTwo) {
    char pattern[] = "/tmp/qlbctl-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::filesystem::path dir = pattern;
    QlbctlProcess noHub({"--socket", (dir / "none.sock").string(), "send", "1"}, dir / "out");
    EXPECT_EQ(noHub.Wait(), 1);
    EXPECT_NE(ReadFile(dir / "out.err").find("cannot join"), std::string::npos);
    QlbctlProcess usage({"send"}, dir / "out2");
    EXPECT_EQ(usage.Wait(), 2);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
}

}  // namespace
