#pragma once

#include <cstdint>

#include "kelo_common_defs.h"
#include "kelo_protocol.h"

// One parsed reply to a request. Values in host order; only what belongs to the kind of reply is
// filled.
struct TResponse {
    KELO_API_STATUS Status = KELO_STATUS_NO_RESPONSE;
    uint32_t Value = 0;                          // register read and write
    uint32_t Count = 0;                          // memory read and write: registers
    uint32_t Values[MAX_MEMORY_REGISTERS] = {};  // memory read
};
