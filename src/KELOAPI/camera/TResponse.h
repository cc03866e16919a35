#pragma once

#include <cstdint>
#include <vector>

#include "kelo_common_defs.h"

// One parsed reply to a request. Values in host order; only what belongs to the kind of reply is
// filled. Room for registers is taken where there are some: every session keeps a thousand of
// these.
struct TResponse {
    KELO_API_STATUS Status = KELO_STATUS_NO_RESPONSE;
    uint32_t Value = 0;            // register read and write
    uint32_t Count = 0;            // memory read and write: registers
    std::vector<uint32_t> Values;  // memory read: Count of them
};
