// Placeholder: filled by the kernel-simulation work of issue 2.
#pragma once
#include "kv/ntbase.h"
