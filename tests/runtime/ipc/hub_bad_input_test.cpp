// The hub against peers that speak the wire format by hand: liars, the silent, the vanishing and the
// slow each lose their own connection, and the hub keeps serving everyone else.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ipc_test_support.h"
#include "runtime/ipc/frame_codec.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/ipc/socket_util.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

using namespace qlb::ipc;
using namespace qlb::ipc::test;
using qlb::testing::Eventually;

namespace {

constexpr int kSelf = 0x500000;

// A blocking socket with a receive timeout as the bound of every wait.
class RawPeer {
  public:
    explicit RawPeer(const std::filesystem::path& socket) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        FillUnixAddress(socket, address);
        ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        timeval timeout{static_cast<time_t>(std::chrono::seconds(kWait).count()), 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    }
    ~RawPeer() { Close(); }
    void Close() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    bool Send(const void* bytes, std::size_t size) {
        return ::send(fd_, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }
    // The status of the hub's answer to a hello, or -1 when none came.
    int Join(std::int32_t moduleId, std::uint32_t magic = kHelloMagic) {
        const auto hello = EncodeHello(Hello{magic, kProtocolVersion, moduleId});
        Send(hello.data(), hello.size());
        std::uint8_t reply[kHelloSize];
        if (!ReadExactly(reply, sizeof(reply))) {
            return -1;
        }
        return DecodeHello(std::span<const std::uint8_t, kHelloSize>(reply, kHelloSize)).value;
    }
    bool ReadExactly(std::uint8_t* out, std::size_t size) {
        for (std::size_t got = 0; got < size;) {
            const ssize_t n = ::recv(fd_, out + got, size - got, 0);
            if (n <= 0) {
                return false;
            }
            got += static_cast<std::size_t>(n);
        }
        return true;
    }
    // True once the hub has closed the connection (after whatever it still had in flight).
    bool ClosedByHub() {
        std::uint8_t sink[65536];
        for (;;) {
            const ssize_t n = ::recv(fd_, sink, sizeof(sink), 0);
            if (n <= 0) {
                return n == 0 || errno == ECONNRESET;
            }
        }
    }
    void SendPrefix(std::uint32_t length, std::int32_t dataLength) {
        std::uint8_t prefix[kFramePrefixSize] = {};
        TagIPCMessageItem item = MakeItem(0x620000, 0x600000, 1);
        item.dataLength = dataLength;
        EncodeFramePrefix(item, prefix);
        PutU32(prefix, length);
        ASSERT_TRUE(Send(prefix, sizeof(prefix)));
    }

  private:
    int fd_ = -1;
};

class HubBadInputTest : public ::testing::Test {
  protected:
    void StartHub(HubLimits limits = {}) {
        hub_ = std::make_unique<IPCMessageServer>(Socket(), PeerPolicy({::getuid()}, {}), limits);
        ASSERT_TRUE(hub_->Start());
    }
    std::filesystem::path Socket() const { return dir_ / "ipc.sock"; }

    // A well-behaved module beside the bad one still gets its frames through.
    void ExpectHubStillRoutes() {
        IPCMessageClient good(0x620000, Socket());
        Inbox inbox;
        inbox.Attach(good);
        ASSERT_TRUE(good.PostIPCMessage(MakeItem(0x620000, 0x620000, 0x7500)));
        Received received;
        EXPECT_TRUE(inbox.Take(0x7500, received));
    }

    qlb::testing::TempDir dir_;
    std::unique_ptr<IPCMessageServer> hub_;
};

TEST_F(HubBadInputTest, FrameLengthThatLiesOrAFrameCutShortEndsOnlyThatConnection) {
    StartHub();
    const struct {
        std::uint32_t length;
        std::int32_t dataLength;
        bool vanish;  // the peer goes away in the middle of the frame
    } cases[] = {
        {kHeaderSize + 8, 4, false},  // disagrees with the header
        {10, 0, false},               // below the header
        {kHeaderSize + kMaxDataLength + 1, kMaxDataLength + 1,
         false},  // above 16 MiB, refused before it comes
        {kHeaderSize + 100, 100, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        const auto dropped = hub_->Counters().dropped;
        RawPeer liar(Socket());
        ASSERT_EQ(liar.Join(0x600000), 0);
        liar.SendPrefix(c.length, c.dataLength);
        if (c.vanish) {
            liar.Close();
        } else {
            EXPECT_TRUE(liar.ClosedByHub());
        }
        EXPECT_TRUE(Eventually([&] { return hub_->Counters().dropped > dropped; }));
        ExpectHubStillRoutes();
    }
}

TEST_F(HubBadInputTest, PeerThatNeverSaysHelloOrSaysItWrongIsCutOff) {
    HubLimits limits;
    limits.helloTimeout = std::chrono::milliseconds(500);
    StartHub(limits);
    RawPeer silent(Socket());
    EXPECT_TRUE(silent.ClosedByHub());
    RawPeer stranger(Socket());
    EXPECT_EQ(stranger.Join(0x600000, 0x12345678), EPROTO);
    EXPECT_TRUE(stranger.ClosedByHub());
    RawPeer broadcast(Socket());
    EXPECT_EQ(broadcast.Join(0), EINVAL);
    ExpectHubStillRoutes();
}

TEST_F(HubBadInputTest, ReaderThatFallsBehindIsDroppedWithoutStallingOthers) {
    StartHub();  // the queue limit: 48 MiB
    RawPeer slow(Socket());
    ASSERT_EQ(slow.Join(0x610000), 0);
    IPCMessageClient sender(kSelf, Socket());
    ASSERT_TRUE(sender.WaitJoined(kWait));
    std::vector<std::uint8_t> block(4 * 1024 * 1024);
    for (int i = 0; i < 20 && hub_->Counters().dropped == 0; ++i) {
        sender.PostIPCMessage(
            MakeItem(0x610000, kSelf, 0x7600, block.data(), static_cast<int>(block.size())));
    }
    ASSERT_TRUE(Eventually([&] { return hub_->Counters().dropped >= 1; }));
    EXPECT_TRUE(slow.ClosedByHub());
    ExpectHubStillRoutes();
}

TEST_F(HubBadInputTest, ConnectionsBeyondTheLimitAreToldTheHubIsFull) {
    HubLimits limits;
    limits.maxConnections = 2;
    StartHub(limits);
    RawPeer first(Socket());
    RawPeer second(Socket());
    ASSERT_EQ(first.Join(0x600000), 0);
    ASSERT_EQ(second.Join(0x610000), 0);
    RawPeer third(Socket());
    EXPECT_EQ(third.Join(0x620000), EUSERS);
    EXPECT_TRUE(third.ClosedByHub());
    second.Close();
    ASSERT_TRUE(Eventually([&] { return RawPeer(Socket()).Join(0x630000) == 0; }));
}

TEST_F(HubBadInputTest, FramesFromOneConnectionArriveInOrder) {
    StartHub();
    RawPeer receiver(Socket());
    ASSERT_EQ(receiver.Join(0x610000), 0);
    IPCMessageClient sender(kSelf, Socket());
    ASSERT_TRUE(sender.WaitJoined(kWait));
    constexpr int kCount = 5000;
    for (int i = 0; i < kCount; ++i) {
        TagIPCMessageItem item = MakeItem(0x610000, kSelf, 0x7700);
        item.syncMessageId = i;
        ASSERT_TRUE(sender.PostIPCMessage(item));
    }
    std::uint8_t prefix[kFramePrefixSize];  // frames without data: the prefix is the whole frame
    for (int i = 0; i < kCount; ++i) {
        ASSERT_TRUE(receiver.ReadExactly(prefix, sizeof(prefix)));
        ASSERT_EQ(DecodeHeader(prefix + kLengthSize).syncMessageId, i);
    }
}

}  // namespace
