/** @file
 * The records of received images and of their statistics, and the close callback. C and C++;
 * naturally aligned unless stated. */
#ifndef KELO_TYPES_H
#define KELO_TYPES_H

#include <stdint.h>

#include "kelo_common_defs.h"

typedef uint8_t UINT8;   /**< 8 bits, unsigned */
typedef uint16_t UINT16; /**< 16 bits, unsigned */
typedef uint32_t UINT32; /**< 32 bits, unsigned */
typedef uint64_t UINT64; /**< 64 bits, unsigned */

/** Losses of one image. */
typedef struct _BuffferStatistics {
    UINT8 errorFlag;       /**< 1 if any packet of the image was lost, else 0 */
    UINT16 missingPackets; /**< packets of this image counted lost */
    UINT32 bytesReceived;  /**< payload bytes placed into this image */
    UINT32 bytesLost;      /**< lost packets times the image's payload bytes per packet */
} BufferStatistics;

/** Counters of one stream, since its creation or the last start of the acquisition. */
typedef struct _StreamStatistics {
    UINT64 imagesSkipped;  /**< image numbers jumped over without any packet seen */
    UINT64 imagesReceived; /**< images completed, with or without losses */
    UINT64 missingPackets; /**< packets counted lost */
    UINT64 bytesReceived;  /**< payload bytes received */
    UINT64 bytesLost;      /**< payload bytes counted lost */
} StreamStatistics;

/** One image. Its address is its identity from the moment it is handed out until it is popped. */
typedef struct _BufferInfo {
    UINT8 streamNumber; /**< stream of the camera that it came from */
    UINT8 streamFormat; /**< the stream's format register, low 8 bits; 0x24: run-length coded */
    UINT8 headerType;   /**< the stream's header format register, low 8 bits */
    UINT8 headerSize;   /**< bytes of image header in front of the pixels, low 8 bits */
    UINT16 imageWidth;  /**< pixels */
    UINT16 imageHeight; /**< pixels */
    UINT16 allPacketsAmount;           /**< packets that the image was sent in */
    UINT32 imageNumber;                /**< the camera's sequence number; wraps */
    UINT32 bufferLength;               /**< bytes of memory at buffer */
    UINT64 buffer;                     /**< address of the image data; belongs to the library */
    BufferStatistics bufferStatistics; /**< what the image lost on its way */
    StreamStatistics streamStatistics; /**< the stream's counters when this image was completed */
} BufferInfo;

#pragma pack(push, 1)

/** Counters taken from one image. 20 bytes, no padding. */
typedef struct EXT_CAM_STATS {
    uint32_t current_image_number; /**< the camera's number of the image */
    uint32_t images_received;      /**< images of the stream up to this one, low 32 bits */
    uint32_t images_dropped;       /**< always 0 */
    uint32_t images_skipped;       /**< image numbers never seen, low 32 bits */
    uint32_t images_pending;       /**< NOT SET: do not use; see keloGetPendingImageCount */
} EXT_CAM_STATS;

#pragma pack(pop)

/** Called when a camera was closed by the library: it stopped answering, or a discovery dropped it.
 * Not called for keloCloseCamera and keloRelease. The result is ignored. */
typedef KELO_API_STATUS(keloCameraCloseEvent)(CAM_HANDLE camera_id);

#endif /* KELO_TYPES_H */
