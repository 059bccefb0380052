// The control probe: a driver source with the driver's own headers compiles.
#include "wdk.h"
#include "device/device.h"
#include "streaming/kvjp.h"
