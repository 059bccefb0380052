// The simulated KVJP.SYS as the frame loop calls it: DecodeJpg turns the
// virtual camera's motion-JPEG frames, with or without their Huffman tables,
// into bottom-up BGR close to the camera's picture; truncated, damaged,
// oversized and wrongly sized frames fail, and no call reads past the ready
// buffer or writes past the output (each ends at a guard page); the IRQL
// rule; several threads at once.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <span>
#include <vector>

#include "camera/frame_source.h"
#include "kvjp/decoder.h"    // the simulation's definition and
#include "kvsim/diag.h"
#include "streaming/kvjp.h"  // the driver's declaration must agree, or this does not compile

namespace {

using namespace kvsim::camera;
using Bytes = std::vector<uint8_t>;

size_t OutputBytes(int w, int h) { return size_t(w) * h * 3; }

// The frame loop's ready buffer for an output of `outputBytes`: the frame
// from the start (as much as fits), then `leftover` to the last byte.
Bytes Ready(std::span<const uint8_t> frame, size_t outputBytes, std::span<const uint8_t> leftover = {}) {
    Bytes ready(outputBytes / 3 * 2, 0);
    for (size_t i = 0; i < ready.size(); ++i)
        ready[i] = i < frame.size() ? frame[i] : i < leftover.size() ? leftover[i] : 0;
    return ready;
}

// A block that ends where an inaccessible page begins. libjpeg is not built
// with AddressSanitizer: an access one byte past the block faults instead.
class GuardedBlock {
public:
    explicit GuardedBlock(size_t size) {
        const size_t page = size_t(sysconf(_SC_PAGESIZE));
        span_ = (size + page - 1) / page * page + page;
        void* base = mmap(nullptr, span_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base == MAP_FAILED || mprotect(static_cast<uint8_t*>(base) + span_ - page, page, PROT_NONE) != 0)
            std::abort();
        base_ = static_cast<uint8_t*>(base);
        data_ = base_ + span_ - page - size;
    }
    ~GuardedBlock() { munmap(base_, span_); }
    GuardedBlock(const GuardedBlock&) = delete;
    GuardedBlock& operator=(const GuardedBlock&) = delete;
    uint8_t* data() const { return data_; }

private:
    size_t span_;
    uint8_t* base_;
    uint8_t* data_;
};

// DecodeJpg from a guarded copy of `ready` into a guarded output of exactly
// `outputBytes`, first filled with `fill`; empty when it fails.
Bytes Decode(const Bytes& ready, size_t outputBytes, uint8_t fill = 0) {
    GuardedBlock in(ready.size()), out(outputBytes);
    std::copy(ready.begin(), ready.end(), in.data());
    std::fill_n(out.data(), outputBytes, fill);
    if (!DecodeJpg(in.data(), ULONG(outputBytes), out.data())) return {};
    return Bytes(out.data(), out.data() + outputBytes);
}

// The test pattern with a red block at the left edge, below the frame stamp.
Yuy2Picture MarkedPicture(uint16_t w, uint16_t h, uint32_t frame = 7) {
    Yuy2Picture p = MakeTestPatternSource()->Render(frame, w, h);
    for (int y = 24; y < 40; ++y)
        for (int x = 0; x < 16; ++x) {
            uint8_t* px = &p.pixels[(size_t(y) * w + x) * 2];
            px[0] = 81;                  // Y of pure red (BT.601 studio range)
            px[1] = (x & 1) ? 240 : 90;  // Cr on odd pixels, Cb on even
        }
    return p;
}

// The picture as DecodeJpg should deliver it: the sensor's studio-range
// YCbCr to RGB (BT.601; the camera's JPEG engine carried it through JFIF's
// full range), each pixel with its pair's chroma, BGR, bottom-up.
Bytes ExpectedBgr(const Yuy2Picture& p) {
    Bytes out(OutputBytes(p.width, p.height));
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x) {
            const uint8_t* pair = &p.pixels[(size_t(y) * p.width + (x & ~1)) * 2];
            double luma = 1.164 * (p.pixels[(size_t(y) * p.width + x) * 2] - 16.0), cb = pair[1] - 128.0,
                   cr = pair[3] - 128.0;
            double bgr[3] = {luma + 2.017 * cb, luma - 0.392 * cb - 0.813 * cr, luma + 1.596 * cr};
            for (int c = 0; c < 3; ++c)
                out[(size_t(p.height - 1 - y) * p.width + x) * 3 + c] =
                    uint8_t(std::clamp(std::lround(bgr[c]), 0L, 255L));
        }
    return out;
}

double Psnr(const Bytes& a, const Bytes& b) {
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) sum += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
    return sum == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 * a.size() / sum);
}

TEST(DecodeJpg, CameraFramesDecodeToBottomUpBgrWithOrWithoutHuffmanTables) {
    const std::pair<uint16_t, uint16_t> sizes[] = {{640, 480}, {176, 144}, {162, 122}};  // the last not in whole MCUs
    for (auto [w, h] : sizes) {
        SCOPED_TRACE(testing::Message() << w << "x" << h);
        Yuy2Picture picture = MarkedPicture(w, h);
        Bytes jpeg = EncodeJpeg(picture), bare = StripDht(jpeg);
        ASSERT_TRUE(HasDht(jpeg));
        ASSERT_FALSE(HasDht(bare));
        Bytes out = Decode(Ready(jpeg, OutputBytes(w, h)), OutputBytes(w, h));
        ASSERT_FALSE(out.empty());
        // About 35 dB at 640x480 and 29.5 dB at the small sizes, whose bars
        // have more edges, where the decoder blends the 4:2:2 chroma and the
        // reference repeats it; upside down or RGB falls far below.
        EXPECT_GT(Psnr(out, ExpectedBgr(picture)), 28.0);
        // The red block's middle (picture row 32) is row h - 33 of the output.
        const uint8_t* red = &out[(size_t(h - 33) * w + 8) * 3];
        EXPECT_TRUE(red[0] < 40 && red[1] < 40 && red[2] > 215) << int(red[0]) << " " << int(red[1]) << " " << int(red[2]);
        EXPECT_EQ(Decode(Ready(bare, OutputBytes(w, h)), OutputBytes(w, h)), out);
    }
}

// A COM segment of `bytes` bytes in all put right after SOI: a frame that
// decodes as before but is longer.
Bytes Padded(const Bytes& jpeg, size_t bytes) {
    Bytes comment = {0xFF, 0xFE, uint8_t((bytes - 2) >> 8), uint8_t(bytes - 2)};
    comment.resize(bytes, 'k');
    Bytes out(jpeg.begin(), jpeg.begin() + 2);
    out.insert(out.end(), comment.begin(), comment.end());
    out.insert(out.end(), jpeg.begin() + 2, jpeg.end());
    return out;
}

TEST(DecodeJpg, FrameMustEndWithinTheReadyBuffer) {
    const size_t outputBytes = OutputBytes(176, 144), readyBytes = outputBytes / 3 * 2;
    Bytes jpeg = StripDht(EncodeJpeg(MarkedPicture(176, 144)));
    ASSERT_TRUE(readyBytes - jpeg.size() >= 5 && readyBytes - jpeg.size() <= 65536);
    Bytes out = Decode(Ready(jpeg, outputBytes), outputBytes);
    ASSERT_FALSE(out.empty());
    // EOI in the ready buffer's last two bytes: decoded as before.
    EXPECT_EQ(Decode(Ready(Padded(jpeg, readyBytes - jpeg.size()), outputBytes), outputBytes), out);
    // One byte longer: EOI's last byte is beyond what may be read.
    EXPECT_TRUE(Decode(Ready(Padded(jpeg, readyBytes - jpeg.size() + 1), outputBytes), outputBytes).empty());
}

TEST(DecodeJpg, TruncatedFramesFailAndStayInTheReadyBuffer) {
    const size_t outputBytes = OutputBytes(176, 144);
    Bytes jpeg = StripDht(EncodeJpeg(MarkedPicture(176, 144, 1)));
    Bytes earlier = StripDht(EncodeJpeg(MarkedPicture(176, 144, 900)));  // another frame's bytes behind the cut
    std::vector<size_t> cuts = {0, 1, 2, jpeg.size() - 2, jpeg.size() - 1};
    for (size_t cut = 3; cut < jpeg.size() - 2; cut += jpeg.size() / 150) cuts.push_back(cut);
    for (size_t cut : cuts) {
        std::span<const uint8_t> part(jpeg.data(), cut);
        // Zeros behind the cut hold no EOI: the frame can only fail.
        EXPECT_TRUE(Decode(Ready(part, outputBytes), outputBytes).empty()) << "cut at " << cut;
        // The earlier frame's tail may even complete it; either way no
        // access leaves the buffers.
        Decode(Ready(part, outputBytes, earlier), outputBytes);
    }
}

TEST(DecodeJpg, DamagedFramesFailOrDecodeEveryByteAlike) {
    const size_t outputBytes = OutputBytes(176, 144);
    Bytes jpeg = EncodeJpeg(MarkedPicture(176, 144));
    size_t scan = 0;  // the first entropy-coded byte: after SOS's header
    for (size_t i = 2; i + 3 < jpeg.size() && scan == 0; i += 2 + ((jpeg[i + 2] << 8) | jpeg[i + 3]))
        if (jpeg[i + 1] == 0xDA) scan = i + 2 + ((jpeg[i + 2] << 8) | jpeg[i + 3]);
    ASSERT_NE(scan, 0u);
    int failed = 0, decoded = 0;
    // Every header byte (tables included), a sample of the entropy-coded data.
    for (size_t at = 0; at < jpeg.size(); at += at < scan ? 1 : 41)
        for (uint8_t value : {uint8_t(0x00), uint8_t(0xFF), uint8_t(jpeg[at] ^ 0x55)}) {
            Bytes damaged = jpeg;
            damaged[at] = value;
            Bytes ready = Ready(damaged, outputBytes);
            // A success writes all of the output, and the same each time.
            Bytes a = Decode(ready, outputBytes, 0x00), b = Decode(ready, outputBytes, 0xFF);
            EXPECT_EQ(a, b) << "byte " << at << " = " << int(value);
            ++(a.empty() ? failed : decoded);
        }
    EXPECT_GT(failed, 0);
    EXPECT_GT(decoded, 0);
}

TEST(DecodeJpg, OutputSizeOfAnotherPictureFails) {
    Bytes jpeg = EncodeJpeg(MarkedPicture(176, 144));
    const size_t outputSizes[] = {OutputBytes(320, 240), OutputBytes(160, 120), OutputBytes(176, 144) + 3,
                                  OutputBytes(176, 144) - 1, 3};
    for (size_t outputBytes : outputSizes)
        EXPECT_TRUE(Decode(Ready(jpeg, outputBytes), outputBytes).empty()) << outputBytes;
    Bytes ready = Ready(jpeg, OutputBytes(176, 144)), out(OutputBytes(176, 144));
    EXPECT_EQ(DecodeJpg(nullptr, ULONG(out.size()), out.data()), 0);
    EXPECT_EQ(DecodeJpg(ready.data(), ULONG(out.size()), nullptr), 0);
}

TEST(DecodeJpg, CallAbovePassiveLevelIsReportedAndFails) {
    Bytes ready = Ready(EncodeJpeg(MarkedPicture(176, 144)), OutputBytes(176, 144)), out(OutputBytes(176, 144));
    kvsim::TakeViolations();
    KIRQL old = 0;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    UCHAR result = DecodeJpg(ready.data(), ULONG(out.size()), out.data());
    KeLowerIrql(old);
    auto violations = kvsim::TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].find("DecodeJpg called at IRQL 2"), std::string::npos) << violations[0];
    EXPECT_EQ(result, 0);
}

// Several system threads decode their own frames at once (at once indeed in
// the Parallel mode of the ThreadSanitizer runs); each gets what a decode
// alone gives.
struct DecodeJob {
    Bytes ready, expected;
    size_t outputBytes;
    int mismatches = 0;
};

void DecodeThread(PVOID context) {
    auto* job = static_cast<DecodeJob*>(context);
    for (int i = 0; i < 20; ++i) job->mismatches += Decode(job->ready, job->outputBytes) != job->expected;
    PsTerminateSystemThread(STATUS_SUCCESS);
}

TEST(DecodeJpg, SeveralThreadsDecodeAtOnce) {
    DecodeJob jobs[3];
    for (int i = 0; i < 3; ++i) {
        uint16_t w = uint16_t(96 + 32 * i), h = uint16_t(64 + 16 * i);
        jobs[i].outputBytes = OutputBytes(w, h);
        jobs[i].ready = Ready(StripDht(EncodeJpeg(MarkedPicture(w, h, i))), jobs[i].outputBytes);
        jobs[i].expected = Decode(jobs[i].ready, jobs[i].outputBytes);
        ASSERT_FALSE(jobs[i].expected.empty());
    }
    PVOID threads[3];
    for (int i = 0; i < 3; ++i) {
        HANDLE h = nullptr;
        ASSERT_EQ(PsCreateSystemThread(&h, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, DecodeThread, &jobs[i]),
                  STATUS_SUCCESS);
        ASSERT_EQ(ObReferenceObjectByHandle(h, SYNCHRONIZE, *PsThreadType, KernelMode, &threads[i], nullptr),
                  STATUS_SUCCESS);
        ZwClose(h);
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(KeWaitForSingleObject(threads[i], Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
        ObDereferenceObject(threads[i]);
        EXPECT_EQ(jobs[i].mismatches, 0) << "thread " << i;
    }
}

}  // namespace
