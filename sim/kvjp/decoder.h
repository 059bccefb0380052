// The simulated KVJP.SYS: its one export, DecodeJpg, as kvdrv.sys imports it
// (driver/streaming/kvjp.h declares it for the driver and states the
// contract). Host code: the driver includes its own header, never this one.
#pragma once

#include "wdm.h"

extern "C" UCHAR DecodeJpg(const UCHAR* pJpeg, ULONG OutputSize, UCHAR* pOutput);
