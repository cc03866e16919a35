/** @file
 * Checksums. Exported with C linkage: tools that make firmware files need the same ones. */
#ifndef KELO_CRC32_H
#define KELO_CRC32_H

#include "kelo_common_defs.h"

/** Continues the CRC-32 of the reflected polynomial 0xEDB88320 over len bytes. Neither the start
 * value nor the result is inverted here, so that long inputs can be fed in pieces; for the usual
 * CRC-32 start at 0xFFFFFFFF and invert the last result. A null buf counts
 * as len 0. */
KELO_API uint32_t kelo_crc32(uint32_t crc, const uint8_t* buf, uint32_t len);

/** CRC-16/ARC: polynomial 0x8005, start value 0, input and output reflected. A len of 0 or less,
 * or a null buf, gives 0. */
KELO_API uint16_t kelo_crc16(const uint8_t* buf, int len);

/** The lowest bits bits of value in reverse order; the other bits of the result are 0. Not
 * exported. */
KELO_EXTERN_C uint32_t reflect(uint32_t value, int bits);

#endif /* KELO_CRC32_H */
