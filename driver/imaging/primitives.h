// TEMPORARY scalar conversions until the vectorised primitives land.
#pragma once
#include "wdk.h"

void Yuy2ToRgb24(const UCHAR* pSrc, ULONG srcStride, UCHAR* pDst, ULONG dstStride, ULONG width, ULONG height);
void Rgb24ToYuy2BottomUp(const UCHAR* pSrc, ULONG srcStride, UCHAR* pDst, ULONG dstStride, ULONG width, ULONG height);
LONG MirrorInPlace(UCHAR* pImage, LONG step, ULONG width, ULONG height, int axis);
void FlipMirrorYuy2(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror);
void FlipMirrorRgb(const UCHAR* pSrc, UCHAR* pDst, ULONG w, ULONG h, bool flip, bool mirror);
