// Random property requests against the capture filter, as a careless or
// hostile application might send them: the driver's three property sets
// and an unknown one, any id and flags, property and data buffers from 0
// bytes to beyond their minimum (each exactly as long as claimed, so that a
// read or write past its end is caught by AddressSanitizer), 32- and 64-bit
// callers, and tunnel steps in any order.
#pragma once
#include <cstdint>
#include <string>

#include "client/ks_client.h"

namespace kvharness {

struct PropertyFuzzReport {
    uint64_t requests = 0;
    uint64_t succeeded = 0;
    // Successes by set: driver control, video control, dropped frames,
    // the unknown set (which must have none).
    uint64_t succeededBySet[4] = {};
};

PropertyFuzzReport FuzzProperties(kvsim::client::Filter& filter, uint64_t seed, uint64_t count);

}  // namespace kvharness
