// The payload path of the isochronous engine, fed requests built in memory:
// what the camera's packets make of a frame (delivered, with which bytes, or
// dropped), and a fuzzer over random packet sequences.
#include <gtest/gtest.h>

#include <numeric>

#include "packet_feeder.h"

namespace {

using kvharness::IsoPacketIn;
using kvharness::IsoStreamFeeder;

constexpr ULONG kWidth = 8;
constexpr ULONG kHeight = 2;
constexpr ULONG kFrame = kWidth * kHeight * 2;  // 32 bytes
constexpr ULONG kMaxPacket = 64;
constexpr LONG kError = static_cast<LONG>(USBD_STATUS_ISO_NOT_ACCESSED_BY_HW);

std::vector<uint8_t> Bytes(size_t n, uint8_t first)
{
    std::vector<uint8_t> v(n);
    std::iota(v.begin(), v.end(), first);
    return v;
}

IsoPacketIn Data(size_t n, uint8_t bits = 0, LONG status = 0, uint8_t first = 1)
{
    IsoPacketIn p{{12, static_cast<uint8_t>(0x80 | bits)}, status};
    p.bytes.resize(12, 0);
    auto payload = Bytes(n, first);
    p.bytes.insert(p.bytes.end(), payload.begin(), payload.end());
    return p;
}
IsoPacketIn Eof(LONG status = 0) { return Data(0, 0x02, status); }
IsoPacketIn Raw(size_t n, uint8_t first) { return {Bytes(n, first), 0}; }

struct PayloadCase {
    const char* what;
    bool uncompressed;
    std::vector<IsoPacketIn> packets;
    bool delivered;
    std::vector<uint8_t> ready;  // the frame's bytes when delivered (the rest of the buffer unchecked)
};

std::vector<PayloadCase> Cases()
{
    std::vector<uint8_t> split = Bytes(16, 1);
    auto second = Bytes(16, 17);
    split.insert(split.end(), second.begin(), second.end());
    return {
        {"a whole frame", true, {Data(kFrame), Eof()}, true, Bytes(kFrame, 1)},
        {"one byte short", true, {Data(kFrame - 1), Eof()}, false, {}},
        {"one byte long", true, {Data(kFrame + 1), Eof()}, false, {}},
        {"an end-of-frame bit on data is data", true, {Data(16, 0x02), Data(16, 0, 0, 17), Eof()}, true, split},
        {"a packet without a header is all payload", true, {Raw(kFrame, 40), Eof()}, true, Bytes(kFrame, 40)},
        {"an error packet", true, {Data(16), Data(16, 0, kError, 17), Eof()}, false, {}},
        {"an error on the end of frame", true, {Data(kFrame), Eof(kError)}, false, {}},
        {"a header-only packet that does not end the frame", true, {Data(16), Data(0), Data(16, 0, 0, 17), Eof()},
         false, {}},
        {"motion JPEG below capacity", false, {Data(16), Data(kFrame - 17, 0, 0, 17), Eof()}, true,
         Bytes(kFrame - 1, 1)},
        {"motion JPEG reaching capacity is cut", false, {Data(16), Data(16, 0, 0, 17), Eof()}, false, {}},
    };
}

class Payload : public ::testing::TestWithParam<PayloadCase> {};

// Each stream starts with two end-of-frame packets: the first opens the
// first frame (none is collected before it), the second ends it, bad since
// the first two packets after start always are.
TEST_P(Payload, FramesAreDeliveredOrDroppedAsTheirPacketsSay)
{
    const PayloadCase& c = GetParam();
    IsoStreamFeeder feeder(kWidth, kHeight, c.uncompressed, kMaxPacket);
    ASSERT_TRUE(feeder.ok());
    const std::vector<IsoPacketIn> start = {Eof(), Eof()};
    feeder.Feed(start);
    auto first = feeder.Drain();
    EXPECT_EQ(first.delivered, 0u);
    EXPECT_EQ(first.dropped, 1u);

    feeder.Feed(c.packets);
    auto tally = feeder.Drain();
    EXPECT_EQ(tally.delivered + tally.dropped, 1u);
    EXPECT_EQ(tally.delivered, c.delivered ? 1u : 0u);
    if (c.delivered) {
        std::vector<uint8_t> got(feeder.ready(), feeder.ready() + c.ready.size());
        EXPECT_EQ(got, c.ready);
    }
}

INSTANTIATE_TEST_SUITE_P(Rules, Payload, ::testing::ValuesIn(Cases()), [](const auto& info) {
    std::string name;
    for (const char* p = info.param.what; *p; ++p) name += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
    return name;
});

// Random packet sequences: nothing is read or written outside the buffers
// (AddressSanitizer watches), every finished frame is delivered or dropped.
TEST(PayloadFuzz, RandomPacketsKeepEveryFrameAccountedFor)
{
    for (uint64_t seed : {1ull, 2ull, 3ull}) {
        auto report = kvharness::FuzzPackets(seed, 20000);
        EXPECT_EQ(report.problem, "") << "seed " << seed;
        EXPECT_GE(report.packets, 20000u);
        EXPECT_GT(report.frames.delivered, 0u) << "seed " << seed;
        EXPECT_GT(report.frames.dropped, 0u) << "seed " << seed;
    }
}

}  // namespace
