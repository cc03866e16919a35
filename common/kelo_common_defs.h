/** @file
 * Status codes, handles and the export mark: what every other public header needs. C and C++. */
#ifndef KELO_COMMON_DEFS_H
#define KELO_COMMON_DEFS_H

#include <stdint.h>

/** C linkage, for C and C++. */
#ifdef __cplusplus
#define KELO_EXTERN_C extern "C"
#else
#define KELO_EXTERN_C extern
#endif

/** Marks an exported function: C linkage, visible outside the shared library. */
#define KELO_API KELO_EXTERN_C __attribute__((visibility("default")))

/** Result of the functions that can fail. There is deliberately no value -2. */
typedef enum KELO_API_STATUS {
    KELO_STATUS_SUCCESS = 0, /**< done */
    KELO_STATUS_ERROR = -1,  /**< bad argument, unknown handle, not initialised, refused by the
                                camera, send failure */
    KELO_STATUS_OUT_OF_RANGE = -3, /**< the key or the address is not supported */
    KELO_STATUS_NO_RESPONSE = -4   /**< the camera did not answer in time */
} KELO_API_STATUS;

/** Names a camera. Computed from its description, address, subnet mask and MAC address, so it stays
 * the same over discoveries as long as none of them changes. */
typedef uint32_t CAM_HANDLE;

/** One received image: an opaque pointer to its BufferInfo (kelo_types.h). */
typedef void* IMAGE_BUFFER_HANDLE;

#endif /* KELO_COMMON_DEFS_H */
