#include "imaging/primitives.h"

namespace {
UCHAR Clamp(int v) { return static_cast<UCHAR>(v < 0 ? 0 : v > 255 ? 255 : v); }
void YuvToBgr(int y, int u, int v, UCHAR* p)
{
    int c = (y - 16) * 298, d = u - 128, e = v - 128;
    p[2] = Clamp((c + 409 * e + 128) >> 8);
    p[1] = Clamp((c - 100 * d - 208 * e + 128) >> 8);
    p[0] = Clamp((c + 516 * d + 128) >> 8);
}
}  // namespace

void Yuy2ToRgb24(const UCHAR* pSrc, ULONG srcStride, UCHAR* pDst, ULONG dstStride, ULONG width, ULONG height)
{
    for (ULONG y = 0; y < height; ++y) {
        const UCHAR* s = pSrc + y * srcStride;
        UCHAR* d = pDst + y * dstStride;
        for (ULONG x = 0; x + 1 < width; x += 2, s += 4, d += 6) {
            YuvToBgr(s[0], s[1], s[3], d);
            YuvToBgr(s[2], s[1], s[3], d + 3);
        }
    }
}

void Rgb24ToYuy2BottomUp(const UCHAR* pSrc, ULONG srcStride, UCHAR* pDst, ULONG dstStride, ULONG width, ULONG height)
{
    for (ULONG y = 0; y < height; ++y) {
        const UCHAR* s = pSrc + (height - 1 - y) * srcStride;
        UCHAR* d = pDst + y * dstStride;
        for (ULONG x = 0; x + 1 < width; x += 2, s += 6, d += 4) {
            int b0 = s[0], g0 = s[1], r0 = s[2], b1 = s[3], g1 = s[4], r1 = s[5];
            d[0] = static_cast<UCHAR>(((66 * r0 + 128 * g0 + 25 * b0) >> 8) + 16);
            d[1] = static_cast<UCHAR>(((-38 * r0 - 74 * g0 + 112 * b0) >> 8) + 128);
            d[2] = static_cast<UCHAR>(((66 * r1 + 128 * g1 + 25 * b1) >> 8) + 16);
            d[3] = static_cast<UCHAR>(((112 * r1 - 94 * g1 - 18 * b1) >> 8) + 128);
        }
    }
}

LONG MirrorInPlace(UCHAR* pImage, LONG step, ULONG width, ULONG height, int axis)
{
    if (axis != 0) return -1;
    for (ULONG i = 0; i < height / 2; ++i) {
        UCHAR* a = pImage + i * step;
        UCHAR* b = pImage + (height - 1 - i) * step;
        for (ULONG k = 0; k < width * 3; ++k) { UCHAR t = a[k]; a[k] = b[k]; b[k] = t; }
    }
    return 0;
}

void FlipMirrorYuy2(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror)
{
    for (ULONG y = 0; y < h; ++y) {
        const UCHAR* s = pSrc + (flip ? h - 1 - y : y) * w * 2;
        UCHAR* d = pDst + y * w * 2;
        for (ULONG g = 0; g < w / 2; ++g) {
            const UCHAR* sg = s + (mirror ? w / 2 - 1 - g : g) * 4;
            d[g * 4 + 0] = mirror ? sg[2] : sg[0];
            d[g * 4 + 1] = sg[1];
            d[g * 4 + 2] = mirror ? sg[0] : sg[2];
            d[g * 4 + 3] = sg[3];
        }
    }
}

void FlipMirrorRgb(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror)
{
    for (ULONG y = 0; y < h; ++y) {
        const UCHAR* s = pSrc + (flip ? h - 1 - y : y) * w * 3;
        UCHAR* d = pDst + y * w * 3;
        for (ULONG x = 0; x < w; ++x) {
            const UCHAR* sp = s + (mirror ? w - 1 - x : x) * 3;
            d[x * 3] = sp[0]; d[x * 3 + 1] = sp[1]; d[x * 3 + 2] = sp[2];
        }
    }
}
