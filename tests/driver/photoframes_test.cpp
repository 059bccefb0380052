// Photo frames, countdown pictures and snapshots as files on disk give them:
// what size of frame file is taken, resized or refused, black as the only
// transparent colour, the countdown picture kept across a change of height,
// the snapshot's exact file, the user's own frame through the registry, and
// bitmaps that lie about themselves never read past their end.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "controls/settings.h"
#include "driver_test_support.h"
#include "imaging/photoframes.h"
#include "kvsim/files.h"
#include "kvsim/registry.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

// A 24-bit bitmap as the driver reads it: the sizes at 18 and 22, the
// pixels from 54; `fill` gives pixel i's three bytes.
Bytes Bitmap(uint32_t w, uint32_t h, uint8_t b, uint8_t g, uint8_t r)
{
    Bytes file(54 + size_t{w} * h * 3);
    file[0] = 'B';
    file[1] = 'M';
    std::memcpy(&file[18], &w, 4);
    std::memcpy(&file[22], &h, 4);
    for (size_t i = 54; i + 2 < file.size(); i += 3) {
        file[i] = b;
        file[i + 1] = g;
        file[i + 2] = r;
    }
    return file;
}

class PhotoFrames : public ::testing::Test {
protected:
    void SetUp() override
    {
        root_ = fs::temp_directory_path() / ("photoframes_test_" + std::to_string(::getpid()));
        fs::remove_all(root_);
        fs::create_directories(root_ / "c" / "frames");
        kvsim::MapRoot("\\SystemRoot", root_.string());
        kvsim::MapRoot("\\DosDevices\\C:", (root_ / "c").string());
        kvsim::RegReset();
    }
    void TearDown() override
    {
        kvsim::UnmapAllRoots();
        fs::remove_all(root_);
    }
    void Write(const fs::path& name, const Bytes& bytes)
    {
        std::ofstream(root_ / name, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    }
    fs::path root_;
};

// Frame files: the exact size is copied byte for byte, one that matches in
// width or height is resized, one that matches in neither is refused.
TEST_F(PhotoFrames, FrameFileSizesAreCopiedResizedOrRefused)
{
    struct Case {
        uint32_t w, h;
        bool loads;
    } const cases[] = {{640, 480, true}, {640, 400, true}, {320, 480, true}, {800, 600, false}, {0, 0, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h));
        Bytes file = Bitmap(c.w, c.h, 10, 20, 30);
        if (c.w == 640 && c.h == 480) file[54 + 5] = 99;  // one odd byte survives a copy, not a resize
        Write("2_640_480.bmp", file);
        Bytes frame(640 * 480 * 3, 0xEE);
        const NTSTATUS status = LoadFrameBitmap(2, 640, 480, FRAME_LOAD_INTO, frame.data());
        EXPECT_EQ(NT_SUCCESS(status), c.loads) << std::hex << status;
        if (!c.loads) continue;
        EXPECT_EQ(frame[0], 10);
        EXPECT_EQ(frame[640 * 480 * 3 - 1], 30);
        if (c.w == 640 && c.h == 480) {
            EXPECT_EQ(frame[5], 99);
        }
    }
    EXPECT_EQ(LoadFrameBitmap(1, 640, 480, FRAME_LOAD_CHECK_ONLY, nullptr), STATUS_NO_SUCH_FILE);
}

// Pure black lets the video through; (0, 0, 1) and every other colour cover it.
TEST_F(PhotoFrames, OnlyPureBlackIsTransparent)
{
    const Bytes overlay = {0, 0, 0, 0, 0, 1, 200, 0, 0};
    Bytes frame = {7, 7, 7, 7, 7, 7, 7, 7, 7};
    OverlayKeyed(3, 1, overlay.data(), frame.data());
    EXPECT_EQ(frame, (Bytes{7, 7, 7, 0, 0, 1, 200, 0, 0}));
}

// The countdown picture is current by its count and width only: a change of
// height keeps the picture loaded; a change of width loads again (and a
// missing file then covers nothing).
TEST_F(PhotoFrames, TheCountdownPictureOutlivesAChangeOfHeight)
{
    PhotoFrameState state;
    InitPhotoFrameState(&state, 640 * 480 * 3);
    Write("VGA3.bmp", Bitmap(640, 480, 0, 0, 255));
    Bytes frame(640 * 480 * 3, 0);
    ASSERT_EQ(ApplyCountdownPicture(&state, 3, 640, 480, frame.data()), STATUS_SUCCESS);
    EXPECT_EQ(frame[2], 255);
    fs::remove(root_ / "VGA3.bmp");
    Bytes shorter(640 * 240 * 3, 0);
    ApplyCountdownPicture(&state, 3, 640, 240, shorter.data());
    EXPECT_EQ(shorter[2], 255) << "the picture loaded for 480 rows is still shown";
    Bytes narrower(320 * 240 * 3, 0);
    ApplyCountdownPicture(&state, 3, 320, 240, narrower.data());
    EXPECT_EQ(narrower[2], 0);
    EXPECT_TRUE(drvtest::DebugSaid("St=c000000f\n"));
    ReleasePhotoFrames(&state);
}

// A snapshot of 640x480 is a 921,654-byte bitmap whose header says so.
TEST_F(PhotoFrames, ASnapshotIsAComplete24BitBitmap)
{
    const Bytes frame(640 * 480 * 3, 0x42);
    ASSERT_EQ(SaveSnapshot(frame.data(), 640, 480), STATUS_SUCCESS);
    std::ifstream in(root_ / "snapshot.bmp", std::ios::binary);
    const Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(file.size(), 921654u);
    uint32_t fileSize = 0, offset = 0, width = 0, height = 0;
    uint16_t bits = 0;
    std::memcpy(&fileSize, &file[2], 4);
    std::memcpy(&offset, &file[10], 4);
    std::memcpy(&width, &file[18], 4);
    std::memcpy(&height, &file[22], 4);
    std::memcpy(&bits, &file[28], 2);
    EXPECT_EQ(std::string(file.begin(), file.begin() + 2), "BM");
    EXPECT_EQ(fileSize, 921654u);
    EXPECT_EQ(offset, 54u);
    EXPECT_EQ(width, 640u);
    EXPECT_EQ(height, 480u);
    EXPECT_EQ(bits, 24);
    EXPECT_EQ(file.back(), 0x42);
}

// Frames 8..11 are the user's own: "CustomerFrame1".. name a file reached
// through "\DosDevices\"; a changed name is read again when the reload flag
// says so.
TEST_F(PhotoFrames, TheUsersFrameComesThroughTheRegistry)
{
    const std::string last = drvtest::kService + "\\Property\\Last";
    kvsim::RegCreateKey(last);
    kvsim::RegSetString(last, "CustomerFrame1", "C:\\frames\\mine.bmp");
    Write("c/frames/mine.bmp", Bitmap(640, 480, 1, 2, 3));
    Write("c/frames/other.bmp", Bitmap(640, 480, 4, 5, 6));
    PhotoFrameState state;
    InitPhotoFrameState(&state, 640 * 480 * 3);
    Bytes frame(640 * 480 * 3, 0);
    ULONG reload = 0;
    ASSERT_EQ(ApplyPhotoFrame(&state, 8, 640, 480, frame.data(), &reload), STATUS_SUCCESS);
    EXPECT_EQ(frame[0], 1);
    kvsim::RegSetString(last, "CustomerFrame1", "C:\\frames\\other.bmp");
    reload = 1;
    ApplyPhotoFrame(&state, 8, 640, 480, frame.data(), &reload);
    EXPECT_EQ(frame[0], 4);
    EXPECT_EQ(reload, 0u);
    EXPECT_EQ(ApplyPhotoFrame(&state, 0, 640, 480, frame.data(), &reload), static_cast<NTSTATUS>(0xC00000A0));
    EXPECT_EQ(state.pFrameOverlay, nullptr);
    ReleasePhotoFrames(&state);
}

// Bitmaps cut short, grown, or with sizes that lie or overflow: each loads
// (its pixels, all 0x33, cover the frame) or is refused (the frame shows
// through), and nothing is read past the file or written past the frame
// (AddressSanitizer watches both); never anything else, such as a fresh
// overlay buffer's old contents. Seeded, a fixed count.
TEST_F(PhotoFrames, LyingBitmapsNeverReadPastTheirEnd)
{
    std::mt19937 rng(11);
    const uint32_t sizes[] = {0, 1, 2, 3, 479, 480, 640, 641, 8200, 0x55555556u, 0x80000000u, 0xFFFFFFFFu};
    for (int round = 0; round < 300; ++round) {
        PhotoFrameState state;
        InitPhotoFrameState(&state, 320 * 240 * 3);
        const uint32_t w = sizes[rng() % std::size(sizes)] % (round % 2 ? 0xFFFFFFFFu : 700u);
        const uint32_t h = round % 7 == 0 ? 2 : sizes[rng() % std::size(sizes)] % (round % 3 ? 0xFFFFFFFFu : 520u);
        Bytes file(rng() % 4096 + (round % 5 == 0 ? 640 * 480 * 3 : 0) + (round % 7 == 0 ? 8200 * 6 : 0), 0x33);
        if (file.size() >= 26) {
            std::memcpy(&file[18], &w, 4);
            std::memcpy(&file[22], &h, 4);
        }
        Write(round % 2 ? "1_640_480.bmp" : "VGA5.bmp", file);
        Bytes frame(320 * 240 * 3, 0);
        ULONG reload = 0;
        if (round % 2) {
            ApplyPhotoFrame(&state, 1, 320, 240, frame.data(), &reload);
        } else {
            ApplyCountdownPicture(&state, 5, 320, 240, frame.data());
        }
        for (size_t i = 0; i < frame.size(); ++i) {
            ASSERT_TRUE(frame[i] == 0 || frame[i] == 0x33) << "round " << round << " byte " << i << ": " << int(frame[i]);
        }
        ReleasePhotoFrames(&state);
    }
}

}  // namespace
