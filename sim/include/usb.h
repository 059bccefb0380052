// Placeholder: the simulated usb.h (issue 2 types).
#pragma once
#include "wdm.h"
