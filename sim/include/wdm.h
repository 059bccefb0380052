// Simulated Windows kernel headers: wdm.h. The driver reaches these through
// driver/wdk.h only; the simulation's own code includes them directly.
// Each kv/ header is one component's share of the WDK's declarations.
#pragma once
#include "kv/ntbase.h"
#include "kv/debug.h"
#include "kv/ob.h"
#include "kv/ke.h"
#include "kv/ex.h"
#include "kv/rtl.h"
#include "kv/io.h"
#include "kv/po.h"
#include "kv/zw.h"
#include "kv/devinterface.h"
