// Simulated Windows kernel headers: ntddk.h (everything of wdm.h; the
// simulation keeps no ntddk-only declarations apart).
#pragma once
#include "wdm.h"
