// The simulated KVJP.SYS: DecodeJpg over libjpeg-turbo's decompressor,
// reading from the caller's buffer within its bound and writing the picture's
// rows straight into the caller's output, last row first, in BGR order.
//
// libjpeg reports errors through the error manager's error_exit, which must
// not return; as libjpeg documents, ours longjmps back to DecodeJpg. The
// frames the jump crosses (libjpeg's own and DecodeFrame's) hold no C++
// objects, so no destructor is skipped.
#include "decoder.h"

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>  // jpeglib.h uses FILE and size_t without including them

#include <jpeglib.h>

#include "kvsim/diag.h"

// libjpeg-turbo's extensions are part of the contract: the BGR output colour
// space (JCS_EXT_BGR), and the standard Huffman tables of ITU-T T.81 annex
// K.3 put in place of any table a frame leaves undefined (libjpeg-turbo's
// change log, version 1.3.0: motion-JPEG frames without Huffman tables then
// decode with no work on the application's part). IJG's libjpeg has neither.
#if !defined(JCS_EXTENSIONS) || !defined(LIBJPEG_TURBO_VERSION_NUMBER)
#error "the simulated KVJP.SYS needs libjpeg-turbo"
#endif

namespace {

struct ErrorManager {
    jpeg_error_mgr mgr;  // first: libjpeg holds a pointer to it alone
    std::jmp_buf failed;
};

[[noreturn]] void OnError(j_common_ptr cinfo) {
    std::longjmp(reinterpret_cast<ErrorManager*>(cinfo->err)->failed, 1);
}

// A warning (level -1) means the frame is damaged: corrupt entropy data, a
// marker where data belongs, or the input ending before EOI. libjpeg would
// go on with made-up data (grey or zero blocks); the frame fails instead, at
// once, so that a damaged frame costs no more than its own bytes. Trace
// messages (level >= 0) are dropped.
void OnMessage(j_common_ptr cinfo, int level) {
    if (level < 0) std::longjmp(reinterpret_cast<ErrorManager*>(cinfo->err)->failed, 1);
}

// One decode on a created decompressor. Called under DecodeJpg's setjmp:
// nothing here may need destruction.
bool DecodeFrame(jpeg_decompress_struct& d, const UCHAR* jpeg, size_t jpegBytes, ULONG outputSize, UCHAR* output) {
    jpeg_mem_src(&d, jpeg, static_cast<unsigned long>(jpegBytes));
    if (jpeg_read_header(&d, TRUE) != JPEG_HEADER_OK) return false;
    // Before any sample is decoded or memory for it allocated.
    if (uint64_t(d.image_width) * d.image_height * 3 != outputSize) return false;
    d.out_color_space = JCS_EXT_BGR;
    // The integer IDCT: exact arithmetic, the same result on every machine
    // (libjpeg documents that the floating-point one may differ).
    d.dct_method = JDCT_ISLOW;
    jpeg_start_decompress(&d);
    if (d.output_width != d.image_width || d.output_height != d.image_height || d.output_components != 3)
        return false;
    const size_t stride = size_t(d.output_width) * 3;
    while (d.output_scanline < d.output_height) {
        JSAMPROW row = output + size_t(d.output_height - 1 - d.output_scanline) * stride;
        if (jpeg_read_scanlines(&d, &row, 1) != 1) return false;
    }
    // Reads on to EOI: a frame whose EOI is missing within the bound fails
    // here with the end-of-input warning.
    return jpeg_finish_decompress(&d) == TRUE;
}

}  // namespace

extern "C" UCHAR DecodeJpg(const UCHAR* pJpeg, ULONG OutputSize, UCHAR* pOutput) {
    const KIRQL irql = KeGetCurrentIrql();
    if (irql != PASSIVE_LEVEL) {
        kvsim::ReportViolation("DecodeJpg called at IRQL %u; KVJP.SYS decodes at PASSIVE_LEVEL only",
                               static_cast<unsigned>(irql));
        return 0;
    }
    if (pJpeg == nullptr || pOutput == nullptr || OutputSize == 0 || OutputSize % 3 != 0) return 0;
    // The ready buffer is width x height x 2 bytes: the frame lies within it.
    const size_t jpegBound = size_t(OutputSize) / 3 * 2;

    jpeg_decompress_struct d{};
    ErrorManager err{};
    d.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = OnError;
    err.mgr.emit_message = OnMessage;
    if (setjmp(err.failed) != 0) {
        jpeg_destroy_decompress(&d);  // also after a failed create: it frees what exists
        return 0;
    }
    jpeg_create_decompress(&d);
    const bool decoded = DecodeFrame(d, pJpeg, jpegBound, OutputSize, pOutput);
    jpeg_destroy_decompress(&d);
    return decoded ? 1 : 0;
}
