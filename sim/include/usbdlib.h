// Placeholder: the simulated usbdlib.h (issue 2 types).
#pragma once
#include "wdm.h"
