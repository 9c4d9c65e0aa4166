// The wire format alone: what a reader makes of well-formed, split and lying byte streams. Several
// frames in one read are the hub's ordering test.

#include "runtime/ipc/frame_codec.h"

#include <gtest/gtest.h>

#include <numeric>

using namespace qlb::ipc;

namespace {

TagIPCMessageItem Sample(std::vector<std::uint8_t>& data) {
    data.resize(100);
    std::iota(data.begin(), data.end(), 1);
    TagIPCMessageItem item;
    item.toModuleId = 0x30000;
    item.fromModuleId = -1;
    item.messageId = 0x30002;
    item.reservedA = -1;
    item.reservedB = 0x7FFFFFFF;
    item.syncMessageId = 77;
    item.dataLength = static_cast<std::int32_t>(data.size());
    item.data = data.data();
    item.reservedFlag = 0xA5;
    return item;
}

TEST(FrameLayoutTest, HeaderIsLittleEndianWithTheLengthCountingTheHeader) {
    std::vector<std::uint8_t> data;
    const auto frame = EncodeFrame(Sample(data));
    ASSERT_EQ(frame.size(), 36u + 100u);
    EXPECT_EQ(GetU32(frame.data()), 132u);
    EXPECT_EQ(frame[4], 0x00);  // toModuleId 0x30000
    EXPECT_EQ(frame[6], 0x03);
    EXPECT_EQ(GetU32(frame.data() + 8), 0xFFFFFFFFu);  // fromModuleId -1
    EXPECT_EQ(frame[32], 0xA5);                        // reservedFlag, then three zero bytes
    EXPECT_EQ(frame[33] | frame[34] | frame[35], 0);
    EXPECT_EQ(frame[36], 1);
    const auto hello = EncodeHello(Hello{kHelloMagic, kProtocolVersion, 0x30000});
    EXPECT_EQ(std::string(hello.begin(), hello.begin() + 4), "QLBI");
}

TEST(FrameReaderTest, FrameFedOneByteAtATimeComesOutWhole) {
    std::vector<std::uint8_t> data;
    const auto frame = EncodeFrame(Sample(data));
    FrameReader reader;
    FrameView view;
    for (std::size_t i = 0; i + 1 < frame.size(); ++i) {
        reader.Feed(&frame[i], 1);
        ASSERT_EQ(reader.Next(view), ReadStatus::kNeedMore) << "at byte " << i;
    }
    reader.Feed(&frame.back(), 1);
    ASSERT_EQ(reader.Next(view), ReadStatus::kFrame);
    EXPECT_EQ(EncodeFrame(view.item), frame);
    EXPECT_EQ(view.rawSize, frame.size());
    EXPECT_EQ(reader.Next(view), ReadStatus::kNeedMore);
    EXPECT_EQ(reader.Buffered(), 0u);
}

TEST(FrameReaderTest, LengthThatDisagreesWithTheHeaderIsAnErrorForGood) {
    std::vector<std::uint8_t> data;
    TagIPCMessageItem item = Sample(data);
    const struct {
        std::uint32_t length;
        std::int32_t dataLength;
    } cases[] = {{32 + 99, 100}, {28, -4}};  // one byte short; what 32 + (-4) would give
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        std::uint8_t prefix[kFramePrefixSize];
        item.dataLength = c.dataLength;
        EncodeFramePrefix(item, prefix);
        PutU32(prefix, c.length);
        FrameReader reader;
        reader.Feed(prefix, sizeof(prefix));
        FrameView view;
        EXPECT_EQ(reader.Next(view), ReadStatus::kBadLength);
        item.dataLength = 100;
        const auto good = EncodeFrame(item);
        reader.Feed(good.data(), good.size());
        EXPECT_EQ(reader.Next(view), ReadStatus::kBadLength);
    }
}

TEST(FrameReaderTest, OversizedLengthIsRejectedFromTheLengthFieldAlone) {
    std::uint8_t length[4];
    PutU32(length, 32 + kMaxDataLength + 1);
    FrameReader reader;
    reader.Feed(length, sizeof(length));
    FrameView view;
    EXPECT_EQ(reader.Next(view), ReadStatus::kTooLarge);

    FrameReader exact;
    PutU32(length, 32 + kMaxDataLength);
    exact.Feed(length, sizeof(length));
    EXPECT_EQ(exact.Next(view), ReadStatus::kNeedMore);
}

}  // namespace
