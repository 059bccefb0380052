// Media files for kvcam: what a capture writes (a YUV4MPEG2 stream, a raw
// motion-JPEG stream, one frame as a PNG) and what the virtual camera can be
// given to send (YUV4MPEG2, PNG and JPEG pictures, or a directory of them).
//
// Colour: the camera's YUY2 is BT.601 studio range (Y 16..235 is black to
// white, chroma 16..240 around 128). Every conversion between it and RGB here
// uses the integer BT.601 matrix of Microsoft's "Recommended 8-Bit YUV
// Formats for Video Rendering":
//   RGB to YUV: Y = ((66R + 129G + 25B + 128) >> 8) + 16
//               U = ((-38R - 74G + 112B + 128) >> 8) + 128
//               V = ((112R - 94G - 18B + 128) >> 8) + 128
//   YUV to RGB: C = Y - 16, D = U - 128, E = V - 128
//               R = clamp((298C + 409E + 128) >> 8)
//               G = clamp((298C - 100D - 208E + 128) >> 8)
//               B = clamp((298C + 516D + 128) >> 8)
// JPEG pictures are full-range YCbCr (JFIF); libjpeg turns them into RGB,
// and from there they take the rule above like any other RGB picture.
#pragma once
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "camera/frame_source.h"

namespace kvharness {

// Yuy2: packed Y0 U Y1 V, rows top-down, stride width*2 (width even).
// Bgr24BottomUp: three bytes B, G, R a pixel, the last row first, stride
// width*3 (Windows' RGB24). Mjpeg: one JPEG frame.
enum class PixelLayout { Yuy2, Bgr24BottomUp, Mjpeg };

struct VideoFormat {
    uint32_t width = 0, height = 0;
    PixelLayout layout = PixelLayout::Yuy2;
    uint32_t fpsNumerator = 30, fpsDenominator = 1;
};

// The bytes of one uncompressed frame of `format` (0 for Mjpeg).
size_t FrameBytes(const VideoFormat& format);

// A YUV4MPEG2 stream: the header line "YUV4MPEG2 W H F Ip A1:1 C
// XCOLORRANGE=LIMITED", then per frame "FRAME\n" and the Y, U and V planes.
// Yuy2 frames become planar 4:2:2 (C422) with the same samples; Bgr24BottomUp
// frames become planar 4:4:4 (C444) by the matrix above, top-down. Mjpeg is
// refused. (XCOLORRANGE is ffmpeg's comment token; without it ffmpeg leaves
// the range unknown.)
class Y4mWriter {
public:
    // Null, with *error set, for an unusable format (no size, an odd YUY2
    // width, no frame rate, Mjpeg) or a file that cannot be created.
    static std::unique_ptr<Y4mWriter> Create(const std::string& path, const VideoFormat& format, std::string* error);
    ~Y4mWriter();
    Y4mWriter(const Y4mWriter&) = delete;
    Y4mWriter& operator=(const Y4mWriter&) = delete;

    // One frame of exactly FrameBytes(format) bytes. False for a frame of
    // another size (not written; the stream goes on) and after a write error
    // (every later Write fails too); error() says which.
    bool Write(std::span<const uint8_t> frame);
    // Flushes and closes the file; false when that or an earlier write
    // failed. Later calls return the same answer.
    bool Close();
    uint64_t frames() const { return frames_; }
    const std::string& error() const { return error_; }

private:
    Y4mWriter(std::string path, const VideoFormat& format, std::FILE* file);

    std::string path_;
    VideoFormat format_;
    std::FILE* file_;
    bool failed_ = false;
    uint64_t frames_ = 0;
    std::string error_;
    std::vector<uint8_t> planes_;  // "FRAME\n" and the planes of the frame being written
};

// A raw motion-JPEG stream: the frames one after the other, each cut after
// its EOI marker (a frame buffer may carry bytes past it). ffmpeg reads such
// a file with "-f mjpeg". Frames go in as the camera sent them (without
// Huffman tables when it left them out, as motion-JPEG decoders expect).
class MjpegWriter {
public:
    static std::unique_ptr<MjpegWriter> Create(const std::string& path, std::string* error);
    ~MjpegWriter();
    MjpegWriter(const MjpegWriter&) = delete;
    MjpegWriter& operator=(const MjpegWriter&) = delete;

    // False for a frame that is not a whole JPEG stream (no SOI at the
    // start, no EOI; not written, the stream goes on) and after a write error
    // (every later Write fails too); error() says which.
    bool Write(std::span<const uint8_t> frame);
    bool Close();
    uint64_t frames() const { return frames_; }
    const std::string& error() const { return error_; }

private:
    MjpegWriter(std::string path, std::FILE* file);

    std::string path_;
    std::FILE* file_;
    bool failed_ = false;
    uint64_t frames_ = 0;
    std::string error_;
};

// The length of a JPEG frame up to and including its EOI marker; nullopt
// when it does not start with SOI or ends before its EOI.
std::optional<size_t> JpegFrameLength(std::span<const uint8_t> jpeg);

// One frame as an 8-bit RGB PNG (libpng). Yuy2 by the matrix above (each
// pair of pixels shares its U and V); Bgr24BottomUp reordered and turned
// top-down; Mjpeg decoded by libjpeg (the standard Huffman tables supplied
// when the frame has none), at the size its own header gives.
bool WritePng(const std::string& path, std::span<const uint8_t> frame, const VideoFormat& format, std::string* error);

// Pictures for the virtual camera: a .y4m file (every frame; 8-bit C420jpeg,
// C420paldv, C420mpeg2, C420, C422, C444 or Cmono; XCOLORRANGE=FULL planes
// are scaled to studio range), a PNG (any colour type and depth, a 16-bit
// one without gamma information taken as sRGB, transparency over black), a
// JPEG (whatever libjpeg decodes to RGB), a 24-bit BMP, or a directory whose .y4m, .png,
// .jpg, .jpeg and .bmp files (any case) are taken in the byte order of their
// names, other files skipped. A file named directly is recognised by its
// first bytes, whatever its name. Chroma is taken from the nearest sample
// (4:2:0 rows repeat, 4:4:4 pairs are averaged); the siting a 4:2:0 variant
// names is not interpolated. A picture of odd width gets one more column, a
// copy of its last (YUY2 groups hold two pixels). Pictures are at most 8192
// pixels on a side.
// nullopt, with *error naming the file and what is wrong, for a missing or
// unreadable file, an unknown format, a bad or unsupported y4m header, a y4m
// frame shorter than its planes, a y4m with no frame, a picture too large, a
// PNG or JPEG its library cannot decode, or a directory with no pictures.
// A 24-bit bottom-up bitmap (the BMP the driver itself reads and writes) of
// a frame of any uncompressed layout or MJPEG.
bool WriteBmp(const std::string& path, std::span<const uint8_t> frame, const VideoFormat& format, std::string* error);
// WriteBmp for a ".bmp" path, else WritePng.
bool WritePicture(const std::string& path, std::span<const uint8_t> frame, const VideoFormat& format,
                  std::string* error);

std::optional<std::vector<kvsim::camera::Yuy2Picture>> LoadSourcePictures(const std::string& fileOrDirectory,
                                                                          std::string* error);

}  // namespace kvharness
