// What happens to a `kvcam stream` besides its frames: the camera's button
// pressed at given times (--button-at), the software trigger sent through
// the video-control MODE property (--trigger-at), the still pin opened and
// each still written (--still), and the still-button events the filter
// raises, counted as an application's event handle would see them.
#pragma once
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "capture_offers.h"
#include "client/ks_client.h"
#include "media_files.h"
#include "system.h"

namespace kvcam {

// One status packet of the camera's button at a time of the simulation.
struct ButtonPacket {
    LONGLONG at = 0;  // 100 ns since the stream started
    bool pressed = false;
};

// "T:KIND", T in seconds ("2", "2.5s") or milliseconds ("500ms"); KIND
// press, release, click (press, release 100 ms later), double (two clicks
// 250 ms apart), long (held 2.5 s). Appends the packets; an error text
// when the argument is malformed.
std::string ParseButtonAt(std::string_view text, std::vector<ButtonPacket>& packets);
// A time as --trigger-at and --button-at take it, in 100 ns units.
bool ParseEventTime(std::string_view text, LONGLONG* at);

// The timeline of a stream: button packets to the camera and software
// triggers to the filter, each once its time has come.
class StreamTimeline {
public:
    StreamTimeline(std::vector<ButtonPacket> buttons, std::vector<LONGLONG> triggers);
    // Everything due at `elapsed` (100 ns since the stream started).
    void Run(LONGLONG elapsed, kvharness::System& system);
    size_t triggersRefused() const { return triggersRefused_; }

private:
    std::vector<ButtonPacket> buttons_;
    std::vector<LONGLONG> triggers_;
    size_t nextButton_ = 0;
    size_t nextTrigger_ = 0;
    size_t triggersRefused_ = 0;
};

// The still pin opened as a still-capture application opens it, with the
// still format of the capture size when the pin offers one, else its first;
// each still is written as FILE.png, the next ones as FILE-2.png, FILE-3.png.
class StillSink {
public:
    // False with *error set when the pin offers nothing or does not open.
    bool Open(kvharness::System& system, LONG captureWidth, LONG captureHeight, std::string path,
              std::string* error);
    // Writes the stills that arrived (at `elapsed`, 100 ns since the stream
    // started); false with *error on a file error.
    bool Collect(LONGLONG elapsed, std::string* error);
    void Close();
    size_t stills() const { return written_; }
    const std::vector<std::string>& files() const { return files_; }
    const std::vector<LONGLONG>& times() const { return times_; }

private:
    std::unique_ptr<kvsim::client::Pin> pin_;
    kvharness::VideoFormat format_;
    ULONG imageSize_ = 0;
    std::string path_;
    size_t written_ = 0;
    std::vector<std::string> files_;
    std::vector<LONGLONG> times_;
};

// The filter's still-button event (KSEVENT_VIDCAPTOSTI_EXT_TRIGGER) enabled
// as an application enables it, and counted.
class StillEventCounter {
public:
    bool Enable(kvsim::client::Filter& filter);
    void Poll();
    size_t count() const { return count_; }

private:
    std::unique_ptr<kvsim::client::EventWaiter> waiter_;
    size_t count_ = 0;
};

}  // namespace kvcam
