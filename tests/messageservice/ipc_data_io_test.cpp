// The payload stream: growth arithmetic and its limits, the read edges, what the destructor releases,
// and the layouts of strings, lists and the telemetry record.

#include "messageservice/ipc_data_io.h"

#include <gtest/gtest.h>

#include "runtime/ipc/ipc_test_support.h"
#include "runtime/telemetry/event_data_report.h"

namespace {

using qlb::ipc::test::MakeItem;

TEST(IPCDataIOReserveTest, GrowsInBlocksOf64AndKeepsWhatWasWritten) {
    TagIPCMessageItem item;
    IPCDataIO stream(&item, false, false);
    EXPECT_EQ(stream.Reserve(0), 0u);
    EXPECT_EQ(item.data, nullptr);
    EXPECT_EQ(stream.WriteUInt32(0x04030201), 4u);
    EXPECT_EQ(item.dataLength, 64);
    unsigned char* first = item.data;
    EXPECT_EQ(stream.Reserve(60), 60u);  // exactly the room there is: nothing moves
    EXPECT_EQ(item.data, first);
    EXPECT_EQ(item.dataLength, 64);
    const std::string text(70, 'x');
    EXPECT_EQ(stream.WriteBytes(text.data(), 70), 70u);
    EXPECT_EQ(item.dataLength, 128);  // 74 bytes rounded up
    EXPECT_EQ(stream.Position(), 74u);
    EXPECT_EQ(item.data[0], 0x01);
    EXPECT_EQ(item.data[3], 0x04);
    EXPECT_EQ(item.data[73], 'x');
}

TEST(IPCDataIOReserveTest, SizeJustBelowTwoGibibytesIsRefusedWithoutAllocating) {
    TagIPCMessageItem item;
    IPCDataIO stream(&item, false, false);
    EXPECT_EQ(stream.Reserve(0x7FFFFFC1u), 0u);
    EXPECT_EQ(item.data, nullptr);
    EXPECT_EQ(item.dataLength, 0);
}

TEST(IPCDataIOReserveTest, SumThatWrapsNegativeCountsAsRoomAndChangesNothing) {
    TagIPCMessageItem item;
    IPCDataIO stream(&item, false, false);
    stream.WriteUInt8(1);
    unsigned char* before = item.data;
    stream.position = 64;
    EXPECT_EQ(stream.Reserve(0x80000000u), 0x80000000u);
    EXPECT_EQ(item.data, before);
    EXPECT_EQ(item.dataLength, 64);
    // ...and a write of that size then finds no room and copies nothing.
    stream.position = 1;
    EXPECT_EQ(stream.WriteBytes(before, 0x80000000u), 0x80000000u);
    EXPECT_EQ(stream.Position(), 1u);
}

TEST(IPCDataIOReadTest, ExactlyTheRemainingBytesReadAndOneMoreDoesNot) {
    unsigned char bytes[6] = {1, 2, 3, 4, 5, 6};
    auto item = MakeItem(0, 0, 0, bytes, 6);
    IPCDataIO stream(&item, true, false);
    unsigned char out[7] = {};
    EXPECT_EQ(stream.ReadBytes(out, 2), 2u);
    EXPECT_EQ(stream.ReadBytes(out, 5), 0u);
    EXPECT_EQ(stream.Position(), 2u);
    EXPECT_EQ(stream.ReadBytes(out, 4), 4u);
    EXPECT_EQ(out[3], 6);
    EXPECT_EQ(stream.ReadUInt8(out), 0u);

    TagIPCMessageItem empty;
    IPCDataIO fresh(&empty, true, false);
    EXPECT_EQ(fresh.WriteBytes(nullptr, 4), 0u);
    EXPECT_EQ(fresh.ReadUInt32(nullptr), 0u);
    IPCDataIO none(nullptr, true, false);
    unsigned value = 0;
    EXPECT_EQ(none.WriteUInt32(1), 0u);
    EXPECT_EQ(none.ReadUInt32(&value), 0u);
}

TEST(IPCDataIOLifetimeTest, OnlyAStreamThatMadeThePayloadReleasesIt) {
    unsigned char bytes[4] = {1, 2, 3, 4};
    auto attached = MakeItem(0, 0, 0, bytes, 4);
    { IPCDataIO reader(&attached, true, false); }
    EXPECT_EQ(attached.data, bytes);
    EXPECT_EQ(attached.dataLength, 4);

    TagIPCMessageItem detached;
    {
        IPCDataIO writer(&detached, false, false);
        writer.WriteUInt32(7);
    }
    EXPECT_EQ(detached.data, nullptr);
    EXPECT_EQ(detached.dataLength, 0);

    IPCDataIO owning;  // the sanitizer build sees a leak if the item or its payload stays
    owning.WriteUInt32(1);
    EXPECT_EQ(owning.Item()->dataLength, 64);
}

TEST(StreamLayoutTest, StringIsLengthThenBytesWithoutNul) {
    TagIPCMessageItem item;
    IPCDataIO writer(&item, true, false);
    WriteStreamString(writer, "abc");
    ASSERT_EQ(writer.Position(), 7u);
    EXPECT_EQ(item.data[0], 3);
    EXPECT_EQ(item.data[4], 'a');
    EXPECT_EQ(item.data[6], 'c');
    IPCDataIO reader(&item, true, false);
    std::string text;
    EXPECT_TRUE(ReadStreamString(reader, text));
    EXPECT_EQ(text, "abc");
    ReleaseStreamData(item);
}

TEST(StreamLayoutTest, LyingLengthsReadNoMoreThanThereIs) {
    // A string length with the top bit set reads no bytes.
    unsigned char bytes[12] = {0x00, 0x00, 0x00, 0x80, 'a', 'b', 'c', 'd', 0x01, 0, 0, 0};
    auto item = MakeItem(0, 0, 0, bytes, sizeof(bytes));
    IPCDataIO stream(&item, true, false);
    std::string text = "old";
    EXPECT_TRUE(ReadStreamString(stream, text));
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(stream.Position(), 4u);

    // A list count that promises too much stops at the end.
    unsigned char list[] = {0xFF, 0xFF, 0xFF, 0x7F, 1, 0, 0, 0, 'z'};
    item = MakeItem(0, 0, 0, list, sizeof(list));
    IPCDataIO listStream(&item, true, false);
    std::vector<std::string> strings;
    EXPECT_FALSE(ReadStreamStringList(listStream, strings));
    EXPECT_EQ(strings, std::vector<std::string>{"z"});
}

TEST(StreamLayoutTest, LogInfoRoundTripsThroughThePeerPayload) {
    LogInfo info;
    info.eventType = 3;
    info.eventId = "619000000";
    info.extraList = {"a", ""};
    info.attachedFiles = {"/var/log/qlb/x.log"};
    info.occurTime = "20260101120000";
    info.infoText = "text";
    info.fields = {{0, "zero"}, {-5, "minus"}, {7, ""}};
    info.extraText = "extra";
    auto payload = EncodeLogInfoPayload(info);

    auto item = MakeItem(0, 0, 0, payload.data(), static_cast<int>(payload.size()));
    IPCDataIO stream(&item, true, false);
    unsigned count = 0;
    ASSERT_EQ(stream.ReadUInt32(&count), 4u);
    EXPECT_EQ(count, 1u);
    LogInfo back;
    back.fields[99] = "stale";  // the map is cleared before it is read
    ASSERT_TRUE(ReadStreamLogInfo(stream, back));
    EXPECT_EQ(EncodeLogInfoPayload(back), payload);  // every field read back as written
}

}  // namespace
