// Digital pan and zoom on the bottom-up RGB frame: the window a zoom level
// gives and what the enlarged picture shows, the one-shot direction
// commands with their edge indications, level 1 and reset, refused levels,
// and frames of odd sizes, which must never be cropped outside the frame.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "controls/settings.h"
#include "device/formats.h"
#include "imaging/panzoom.h"

namespace {

using Bytes = std::vector<UCHAR>;

struct Point {
    LONG x, y;  // in the picture as seen: y from the top
    bool operator==(const Point& o) const { return x == o.x && y == o.y; }
};
std::ostream& operator<<(std::ostream& os, const Point& p) { return os << "(" << p.x << "," << p.y << ")"; }

// A stream's work area and settings, and a frame whose pixels carry their
// own position (the buffer pixel's index in their three bytes).
class Zoom {
public:
    Zoom(ULONG w, ULONG h) : m_W(w), m_H(h), m_Work(PanZoomWorkAreaSize(w, h))
    {
        EXPECT_EQ(PanZoomStart(m_Work.data(), w, h), STATUS_SUCCESS);
        Slot(SLOT_TRACKING_METHOD) = 1;
        Slot(SLOT_ZOOM_SWITCH) = 1;
        Slot(SLOT_ZOOM_LEVEL) = 1;
    }

    LONG& Slot(ULONG slot) { return m_Property.Slot[slot]; }

    static Bytes Numbered(ULONG w, ULONG h)
    {
        Bytes frame(size_t(3) * w * h);
        for (size_t p = 0; p < size_t(w) * h; ++p) {
            frame[3 * p] = UCHAR(p), frame[3 * p + 1] = UCHAR(p >> 8), frame[3 * p + 2] = UCHAR(p >> 16);
        }
        return frame;
    }

    // One frame; the frame as it came out.
    const Bytes& Run(ULONG fourcc = kPanZoomRgbFrame)
    {
        m_Frame = Numbered(m_W, m_H);
        PanZoomFrame(m_Work.data(), &m_Property, m_Frame.data(), fourcc);
        return m_Frame;
    }

    // Which picture position output pixel (x, y) shows.
    Point Shows(LONG x, LONG y) const
    {
        const UCHAR* p = &m_Frame[(size_t(m_H - 1 - y) * m_W + x) * 3];
        const ULONG n = p[0] | (p[1] << 8) | (p[2] << 16);
        return {LONG(n % m_W), LONG(m_H - 1 - n / m_W)};
    }

    // The window's corner: the output's top-left pixel shows it.
    Point Corner() const { return Shows(0, 0); }

    ULONG m_W, m_H;

private:
    Bytes m_Work;
    DeviceProperty m_Property = {};
    Bytes m_Frame;
};

// Level 41 zooms by two: a 320 x 240 window in the middle of 640 x 480,
// each output pixel the crop pixel at i * (crop - 1) / frame.
TEST(PanZoom, Level41ShowsTheMiddle320x240WindowEnlarged)
{
    Zoom zoom(640, 480);
    zoom.Slot(SLOT_ZOOM_LEVEL) = 41;
    zoom.Run();
    for (LONG y = 0; y < 480; ++y) {
        for (LONG x = 0; x < 640; ++x) {
            const Point expected{160 + x * 319 / 640, 120 + y * 239 / 480};
            ASSERT_EQ(zoom.Shows(x, y), expected) << "output " << x << "," << y;
        }
    }
    EXPECT_EQ(zoom.Slot(SLOT_ZOOM_LEVEL), 41);
    for (ULONG slot : {SLOT_PAN_LEFT, SLOT_PAN_RIGHT, SLOT_PAN_UP, SLOT_PAN_DOWN}) EXPECT_EQ(zoom.Slot(slot), 0);
}

// A command moves the window one step and acts once; repeated, it stops
// at the edge, which its slot reports with -1 from then on. The YUY2 code
// exchanges up and down.
TEST(PanZoom, ACommandStepsOnceAndStopsAtTheEdgeReportingMinusOne)
{
    struct Case {
        const char* name;
        ULONG fourcc, slot;
        Point step, edge;  // the window's corner after one step, and at the edge
    };
    const Case cases[] = {
        {"left", kPanZoomRgbFrame, SLOT_PAN_LEFT, {156, 120}, {0, 120}},
        {"right", kPanZoomRgbFrame, SLOT_PAN_RIGHT, {164, 120}, {320, 120}},
        {"up", kPanZoomRgbFrame, SLOT_PAN_UP, {160, 117}, {160, 0}},
        {"down", kPanZoomRgbFrame, SLOT_PAN_DOWN, {160, 123}, {160, 240}},
        {"up, read for YUY2", kv::kFourccYuy2, SLOT_PAN_UP, {160, 123}, {160, 240}},
        {"down, read for YUY2", kv::kFourccYuy2, SLOT_PAN_DOWN, {160, 117}, {160, 0}},
    };
    for (const Case& c : cases) {
        Zoom zoom(640, 480);
        zoom.Slot(SLOT_ZOOM_LEVEL) = 41;
        zoom.Slot(c.slot) = 1;
        zoom.Run(c.fourcc);
        EXPECT_EQ(zoom.Corner(), c.step) << c.name;
        EXPECT_EQ(zoom.Slot(c.slot), 0) << c.name;
        zoom.Run(c.fourcc);
        EXPECT_EQ(zoom.Corner(), c.step) << c.name << ": no command, no move";
        for (int i = 0; i < 45; ++i) {  // 40 steps reach any edge from the middle
            zoom.Slot(c.slot) = 1;
            zoom.Run(c.fourcc);
        }
        EXPECT_EQ(zoom.Corner(), c.edge) << c.name;
        EXPECT_EQ(zoom.Slot(c.slot), -1) << c.name;
        zoom.Run(c.fourcc);
        EXPECT_EQ(zoom.Slot(c.slot), -1) << c.name << ": the -1 is not a command";
        EXPECT_EQ(zoom.Corner(), c.edge) << c.name;
    }
}

// Two commands at once: only the first in the order left, right, up,
// down, reset acts; the other direction slots get their edge indications
// and a pending reset waits for the next frame.
TEST(PanZoom, OfTwoCommandsOnlyTheFirstInOrderActs)
{
    struct Case {
        const char* name;
        ULONG first, second;
        Point corner;
        LONG resetAfter;
    };
    const Case cases[] = {
        {"left and right", SLOT_PAN_LEFT, SLOT_PAN_RIGHT, {156, 120}, 0},
        {"right and up", SLOT_PAN_RIGHT, SLOT_PAN_UP, {164, 120}, 0},
        {"up and down", SLOT_PAN_UP, SLOT_PAN_DOWN, {160, 117}, 0},
        {"down and left (left first)", SLOT_PAN_LEFT, SLOT_PAN_DOWN, {156, 120}, 0},
        {"down and reset", SLOT_PAN_DOWN, SLOT_PAN_RESET, {160, 123}, 1},
    };
    for (const Case& c : cases) {
        Zoom zoom(640, 480);
        zoom.Slot(SLOT_ZOOM_LEVEL) = 41;
        zoom.Slot(c.first) = 1;
        zoom.Slot(c.second) = 1;
        zoom.Run();
        EXPECT_EQ(zoom.Corner(), c.corner) << c.name;
        for (ULONG slot : {SLOT_PAN_LEFT, SLOT_PAN_RIGHT, SLOT_PAN_UP, SLOT_PAN_DOWN}) {
            EXPECT_EQ(zoom.Slot(slot), 0) << c.name << ", slot " << slot;
        }
        EXPECT_EQ(zoom.Slot(SLOT_PAN_RESET), c.resetAfter) << c.name;
    }
}

// Level 1, and a reset from any window, show the whole frame unchanged,
// odd sizes included; a reset brings the level back to 1.
TEST(PanZoom, LevelOneAndResetLeaveThePictureUnchanged)
{
    struct Size {
        ULONG w, h;
    };
    for (const Size s : {Size{640, 480}, Size{641, 481}, Size{321, 241}, Size{7, 5}}) {
        const std::string name = std::to_string(s.w) + "x" + std::to_string(s.h);
        Zoom zoom(s.w, s.h);
        EXPECT_EQ(zoom.Run(), Zoom::Numbered(s.w, s.h)) << name << " at level 1";
        for (ULONG slot : {SLOT_PAN_LEFT, SLOT_PAN_RIGHT, SLOT_PAN_UP, SLOT_PAN_DOWN}) {
            EXPECT_EQ(zoom.Slot(slot), -1) << name << ": the whole frame touches every edge";
        }
        zoom.Slot(SLOT_ZOOM_LEVEL) = 30;
        zoom.Slot(SLOT_PAN_RIGHT) = 1;
        zoom.Run();
        zoom.Slot(SLOT_PAN_RESET) = 1;
        EXPECT_EQ(zoom.Run(), Zoom::Numbered(s.w, s.h)) << name << " after a reset";
        EXPECT_EQ(zoom.Slot(SLOT_ZOOM_LEVEL), 1) << name;
        EXPECT_EQ(zoom.Slot(SLOT_PAN_RESET), 0) << name;
    }
}

// Levels past the table, and settings that switch the zoom off, leave the
// frame and the settings alone.
TEST(PanZoom, RefusesLevelsPast61AndRunsOnlyWhenSwitchedOn)
{
    struct Case {
        const char* name;
        LONG level, method, zoomSwitch;
    };
    const Case cases[] = {{"level 62", 62, 1, 1},      {"level 0", 0, 1, 1},   {"level 255", 255, 1, 1},
                          {"zoom switch off", 41, 1, 0}, {"face tracking", 41, 2, 1}};
    for (const Case& c : cases) {
        Zoom zoom(64, 48);
        zoom.Slot(SLOT_ZOOM_LEVEL) = c.level;
        zoom.Slot(SLOT_TRACKING_METHOD) = c.method;
        zoom.Slot(SLOT_ZOOM_SWITCH) = c.zoomSwitch;
        zoom.Slot(SLOT_PAN_LEFT) = 1;
        EXPECT_EQ(zoom.Run(), Zoom::Numbered(64, 48)) << c.name;
        EXPECT_EQ(zoom.Slot(SLOT_PAN_LEFT), 1) << c.name;
        EXPECT_EQ(zoom.Slot(SLOT_ZOOM_LEVEL), c.level) << c.name;
    }
}

// Every level, pushed to every edge, on frames of odd and small sizes:
// each output pixel shows a pixel of the window, which lies in the frame
// (the frame buffer is sized exactly for AddressSanitizer).
TEST(PanZoom, OddSizesNeverCropOutsideTheFrame)
{
    struct Size {
        ULONG w, h;
    };
    for (const Size s : {Size{37, 29}, Size{65, 47}, Size{4, 4}, Size{5, 7}}) {
        Zoom zoom(s.w, s.h);
        for (LONG level = 1; level <= kZoomLevelLargest; ++level) {
            zoom.Slot(SLOT_ZOOM_LEVEL) = level;
            for (ULONG slot : {SLOT_PAN_LEFT, SLOT_PAN_UP, SLOT_PAN_RIGHT, SLOT_PAN_DOWN}) {
                for (ULONG i = 0; i <= s.w / 2; ++i) {
                    zoom.Slot(slot) = 1;
                    zoom.Run();
                    const Point corner = zoom.Corner(), far = zoom.Shows(LONG(s.w) - 1, LONG(s.h) - 1);
                    ASSERT_TRUE(corner.x >= 0 && corner.y >= 0 && far.x < LONG(s.w) && far.y < LONG(s.h) &&
                                far.x >= corner.x && far.y >= corner.y)
                        << s.w << "x" << s.h << " level " << level << ": corner " << corner << ", far " << far;
                }
            }
        }
    }
}

}  // namespace
