// TEMPORARY declaration until the companion decoder lands.
#pragma once
#include "wdk.h"
extern "C" UCHAR DecodeJpg(const UCHAR* pJpeg, ULONG OutputSize, UCHAR* pOutput);
