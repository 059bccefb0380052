// Placeholder: the simulated ksmedia.h (issue 2 types).
#pragma once
#include "wdm.h"
