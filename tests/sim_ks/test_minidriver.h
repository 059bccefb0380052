// A small AVStream test minidriver for the tests of the simulated ks.sys
// (not part of the product). It has one filter factory (created at Start,
// reference string "GLOBAL", KSCREATE_ITEM_FREEONSTOP, categories CAPTURE
// and VIDEO), and a filter with two pins:
//   pin 0: capture-like OUT pin, SINK communication, category
//          PINNAME_VIDEO_CAPTURE, two KS_DATARANGE_VIDEO ranges (YUY2
//          320x240 and YUY2 640x480, VIDEOINFO specifier), an intersect
//          handler, SetDataFormat, SetDeviceState that records each step,
//          Process that fills one frame into the leading-edge stream pointer
//          and ejects it; 1 instance possible; KS_FRAME_INFO after each
//          stream header; KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY (a test may
//          change the flags with SetCapturePinFlags).
//   pin 1: IN bridge pin (KSPIN_COMMUNICATION_BRIDGE, 0 instances possible),
//          two ranges of major type ANALOGVIDEO: a KSDATARANGE and one of
//          FormatSize 68 (not a multiple of 8, for the list's alignment).
// The filter's automation table has one property set (kTestPropertySet) and
// one event set (kTestEventSet), for the automation tests.
//
// Everything the minidriver sees is recorded in TestRecorder() (reset with
// ResetTestRecorder() at the start of a test), and knobs there make its
// dispatch routines fail or break a rule on purpose.
#pragma once
#include <string>
#include <vector>

#include "ks.h"
#include "ksmedia.h"

namespace kvtest::ks {

// ---- identities --------------------------------------------------------------------
constexpr ULONG kCapturePinId = 0;
constexpr ULONG kBridgePinId = 1;
constexpr ULONG kPinCount = 2;
inline constexpr char16_t kReferenceString[] = u"GLOBAL";

// Ranges of the capture pin: index 0 is 320x240, index 1 is 640x480, both
// YUY2 (16 bits a pixel), 30 frames a second.
constexpr ULONG kRangeCount = 2;
constexpr LONG kRangeWidth[kRangeCount] = {320, 640};
constexpr LONG kRangeHeight[kRangeCount] = {240, 480};
constexpr LONGLONG kFrameInterval = 333333;  // 100 ns units

// The test property set: item 0 is a LONG read/write (MinData 4, a stepped
// range [kTestValueMin, kTestValueMax] as its Values), item 1 a LONG
// read-only, item 2 a kTestBlobSize-byte get with MinData 0 whose handler
// answers the size query itself, item 3 a LONG get whose request is a
// KSP_NODE (MinProperty). The set also overrides ks.sys's
// KSPROPERTY_PIN_GLOBALCINSTANCES, which then answers kTestGlobalInstances.
#define STATIC_KVTEST_PROPSETID 0x4b1d0e57, 0x7a31, 0x4c2e, 0x9b, 0x6f, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66
inline constexpr GUID kTestPropertySet = {STATIC_KVTEST_PROPSETID};
enum : ULONG { kTestPropertyValue = 0, kTestPropertyReadOnly = 1, kTestPropertyBlob = 2, kTestPropertyNodeLike = 3 };
constexpr ULONG kTestBlobSize = 12;
constexpr LONG kTestReadOnlyValue = 0x1234;
constexpr LONG kTestValueMin = -100, kTestValueMax = 100;
constexpr ULONG kTestGlobalInstances = 99;

// The test event set: plain KSEVENTDATA events (DataInput
// sizeof(KSEVENTDATA), default add/remove handlers); kTestEventOther has 16
// bytes of extra entry data.
#define STATIC_KVTEST_EVENTSETID 0x4b1d0e58, 0x7a31, 0x4c2e, 0x9b, 0x6f, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66
inline constexpr GUID kTestEventSet = {STATIC_KVTEST_EVENTSETID};
enum : ULONG { kTestEventTick = 0, kTestEventOther = 1 };

// ---- what the minidriver saw, and its knobs ----------------------------------------------
struct StateStep {
    KSSTATE to;
    KSSTATE from;
};

struct TestRecorder {
    // Every dispatch call in order: "Add", "Start", "PostStart", "QueryStop",
    // "CancelStop", "Stop", "QueryRemove", "CancelRemove", "Remove",
    // "SurpriseRemoval", "QueryPower", "SetPower",
    // "FilterCreate", "FilterClose", "PinCreate", "PinClose",
    // "SetDataFormat", "SetDeviceState", "Process", "PinSleep", "PinWake",
    // "Intersect".
    std::vector<std::string> calls;
    std::vector<StateStep> stateSteps;
    // Arguments seen.
    bool startHadIrp = false;
    bool startSawStartedFalse = false;  // KSDEVICE.Started was FALSE during Start
    const KSDATARANGE* lastMatchedRange = nullptr;  // SetDataFormat's DataRange
    DEVICE_POWER_STATE lastSetPowerTo = PowerDeviceUnspecified;
    DEVICE_POWER_STATE lastSetPowerFrom = PowerDeviceUnspecified;
    SYSTEM_POWER_STATE lastQueryPowerSystemTo = PowerSystemUnspecified;
    POWER_ACTION lastQueryPowerAction = PowerActionNone;
    // Objects.
    PKSDEVICE device = nullptr;
    PKSFILTER filter = nullptr;       // the last filter created (null after its close)
    PKSPIN capturePin = nullptr;      // the last capture pin created (null after its close)
    // Process: frames filled and ejected so far; each frame's bytes are all
    // (BYTE)(framesFilled at the time, counting from 1).
    ULONG framesFilled = 0;
    ULONG processCalls = 0;
    // Object bag: the filter's Create adds an item with a free routine that
    // counts here.
    ULONG bagItemsFreed = 0;
    // The test property's value, and whether its last read came from a
    // 32-bit caller (IoIs32bitProcess in the get handler); calls of the test
    // property handlers and the IRQL of the last one; the context of the
    // last intersect handler call.
    LONG propertyValue = 0;
    bool valueReadFrom32bit = false;
    ULONG propertyCalls = 0;
    KIRQL propertyIrql = 0xFF;
    PVOID intersectContext = nullptr;

    // Knobs.
    bool fillOnProcess = true;           // Process fills and ejects a frame
    KSSTATE failStateTo = KSSTATE_STOP;  // SetDeviceState fails going to this state...
    bool failStateEnabled = false;       // ...when enabled, with STATUS_UNSUCCESSFUL
    bool failStart = false;              // Start returns STATUS_UNSUCCESSFUL
    bool failQueryStop = false;          // QueryStop returns STATUS_UNSUCCESSFUL
    bool failQueryRemove = false;        // QueryRemove returns STATUS_UNSUCCESSFUL
    const char* misstepIn = nullptr;     // each call of this dispatch routine (named as in
    void (*misstep)() = nullptr;         // `calls`) first runs the test's misstep
};

TestRecorder& Recorder();
// Also restores the capture pin's flags.
void ResetTestRecorder();
// The capture pin's KSPIN_DESCRIPTOR_EX.Flags (ks.sys reads them when it
// decides whether to call Process); set before the pin is created.
constexpr ULONG kDefaultCaptureFlags = KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY;
void SetCapturePinFlags(ULONG flags);

// ---- the driver ------------------------------------------------------------------------
// The DriverEntry: KsInitializeDriver with the test device descriptor.
NTSTATUS TestDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
// The capture pin's ranges.
const KS_DATARANGE_VIDEO& TestRange(ULONG index);
// A KS_DATAFORMAT_VIDEOINFOHEADER that matches range `index` exactly (the
// format a client connects with).
KS_DATAFORMAT_VIDEOINFOHEADER MakeTestFormat(ULONG index);
// The bytes of one frame of range `index` (width x height x 2).
ULONG TestFrameBytes(ULONG index);
// Raises a test event on the filter (KsFilterGenerateEvents).
void FireTestEvent(PKSFILTER filter, ULONG id = kTestEventTick);

}  // namespace kvtest::ks
