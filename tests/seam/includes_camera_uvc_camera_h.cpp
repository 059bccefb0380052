// A driver source that includes a host-only header of the simulation.
#include "wdk.h"
#include "camera/uvc_camera.h"
