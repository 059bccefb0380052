// Pictures for the virtual camera (what its sensor delivers while it streams):
// frame sources (a moving test pattern, a still picture, a sequence of
// pictures), the frame-number stamp that tests read back, and the motion-JPEG
// codec glue over libjpeg-turbo (4:2:2 encoding, optional removal of the DHT
// segment as many real cameras send, re-insertion of the standard tables,
// decoding back to YUY2).
//
// Frame-number stamp: the top 16 rows of a picture hold 18 cells of
// width/18 pixels: cell 0 white and cell 1 black (a marker that tells a
// stamped picture from any other), then the 16 bits of the frame number,
// most significant first, white for 1 and black for 0. The cells are wide
// and flat so that they survive JPEG compression.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kvsim::camera {

// A packed 4:2:2 picture: groups Y0 U Y1 V, stride width * 2, top-down.
struct Yuy2Picture {
    uint16_t width = 0, height = 0;
    std::vector<uint8_t> pixels;  // width * height * 2
};

class FrameSource {
public:
    virtual ~FrameSource() = default;
    // The picture for sensor frame number `frame` at the requested size
    // (width even).
    virtual Yuy2Picture Render(uint32_t frame, uint16_t width, uint16_t height) = 0;
};

// Colour bars moving 4 pixels to the left per frame, with the stamp.
std::unique_ptr<FrameSource> MakeTestPatternSource();
// One picture (scaled to the requested size, nearest neighbour); stamped
// with the frame number when stamp is true.
std::unique_ptr<FrameSource> MakeStillSource(Yuy2Picture picture, bool stamp = true);
// Pictures shown in turn, one per frame, repeating.
std::unique_ptr<FrameSource> MakeSequenceSource(std::vector<Yuy2Picture> pictures, bool stamp = true);

void StampFrameNumber(Yuy2Picture& picture, uint32_t frame);
// The stamped number (16 bits), or nullopt when the marker is not there.
std::optional<uint32_t> ReadFrameNumber(std::span<const uint8_t> yuy2, uint16_t width, uint16_t height);

Yuy2Picture ScalePicture(const Yuy2Picture& in, uint16_t width, uint16_t height);

// JPEG (JFIF baseline, 4:2:2 sampling, standard Huffman tables).
std::vector<uint8_t> EncodeJpeg(const Yuy2Picture& picture, int quality = 80);
// Removes every DHT (FFC4) segment, as cameras that rely on the default
// motion-JPEG tables send their frames.
std::vector<uint8_t> StripDht(std::span<const uint8_t> jpeg);
// Inserts the standard tables (ITU-T T.81 annex K.3) before the first SOS
// when the stream has no DHT segment; otherwise returns it unchanged.
std::vector<uint8_t> InsertStandardDht(std::span<const uint8_t> jpeg);
bool HasDht(std::span<const uint8_t> jpeg);
// Decodes a JPEG into YUY2; nullopt when libjpeg reports an error (a
// corrupt or truncated stream with a warning counts as decoded).
std::optional<Yuy2Picture> DecodeJpeg(std::span<const uint8_t> jpeg);
// Reads a picture file: JPEG, or raw YUY2 named *.WxH.yuy2.
std::optional<Yuy2Picture> LoadPictureFile(const std::string& path);

}  // namespace kvsim::camera
