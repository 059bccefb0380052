// A driver source that includes the simulated KVJP.SYS's own header instead
// of the driver's declaration (streaming/kvjp.h).
#include "wdk.h"
#include "kvjp/decoder.h"
