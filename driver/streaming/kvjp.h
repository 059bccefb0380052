// DecodeJpg, the one routine kvdrv.sys imports from the companion decoder
// KVJP.SYS (driver/kvjp/kvjp.def makes the import library): it turns one
// motion-JPEG frame from the camera into the 24-bit picture the capture pin
// delivers. On the host the simulation provides it (sim/kvjp).
//
// The contract:
//  - pJpeg is the frame loop's ready buffer of width x height x 2 bytes that
//    holds the received frame from its start. OutputSize is width x height x 3,
//    and DecodeJpg reads at most OutputSize / 3 * 2 bytes from pJpeg. The
//    frame normally ends sooner, at its EOI marker; what follows it (leftovers
//    of earlier frames) is never looked at.
//  - A frame without DHT segments is decoded with the standard Huffman tables
//    of ITU-T T.81 annex K.3, as motion-JPEG cameras expect of the host.
//  - On success the return value is nonzero and exactly OutputSize bytes of
//    pOutput hold the picture as 24-bit BGR (blue first), bottom-up (the
//    picture's last row first), rows packed (stride width x 3), the layout of
//    a Windows bottom-up RGB24 DIB when width x 3 is a multiple of 4.
//  - The return value is 0 when pJpeg or pOutput is null; when the frame is
//    corrupt, truncated or does not end with EOI within the bytes it may read
//    (the decoder never makes up what a damaged frame lacks); when its
//    width x height x 3 is not OutputSize; when the decoder cannot produce
//    BGR from it; and when called above PASSIVE_LEVEL (the simulation also
//    reports that as a violation). pOutput may then have been partly
//    written; nothing past OutputSize ever is. Only the product is checked:
//    a frame of another shape with the same number of pixels decodes, so the
//    dimensions are the negotiated format's, known to the caller.
//  - IRQL: PASSIVE_LEVEL only (the decoder uses the FPU and a large stack).
//    Deterministic, and safe to call from several threads at once: all its
//    state lives in the call.
#pragma once

#include "wdk.h"

// On Windows the routine lives in KVJP.SYS: dllimport makes the call go
// through the import address table directly (the DDK's own kernel imports
// are declared the same way); without it the import library's thunk would
// serve, one jump later. The simulation's DECLSPEC_IMPORT is empty.
extern "C" DECLSPEC_IMPORT UCHAR DecodeJpg(const UCHAR* pJpeg, ULONG OutputSize, UCHAR* pOutput);
