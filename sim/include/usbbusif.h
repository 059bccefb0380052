// Placeholder: the simulated usbbusif.h (issue 2 types).
#pragma once
#include "wdm.h"
