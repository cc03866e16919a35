/* The header in front of every image packet, on UDP and on TCP. Big-endian on the wire.
 *
 *   offset  size  field
 *        0     1  magic              always 0xAC
 *        1     1  stream_number
 *        2     4  NL_image_number    wraps
 *        6     2  NS_current_packet  from 0
 *        8     2  NS_all_packets
 *       10     2  NS_image_width     pixels
 *       12     2  NS_image_height    pixels
 *
 * The payload of packet k belongs at k times the payload length of a packet that is not the last.
 */
#ifndef IMG_COMMON_H
#define IMG_COMMON_H

#include <stddef.h>
#include <stdint.h>

#define KELO_IMAGE_MAGIC 0xAC

#pragma pack(push, 1)
typedef struct header_image_s {
    uint8_t magic;
    uint8_t stream_number;
    uint32_t NL_image_number;
    uint16_t NS_current_packet;
    uint16_t NS_all_packets;
    uint16_t NS_image_width;
    uint16_t NS_image_height;
} THeaderImage;
#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(THeaderImage) == 14, "the image header has 14 bytes on the wire");
static_assert(offsetof(THeaderImage, NL_image_number) == 2, "wire offset");
static_assert(offsetof(THeaderImage, NS_current_packet) == 6, "wire offset");
static_assert(offsetof(THeaderImage, NS_all_packets) == 8, "wire offset");
static_assert(offsetof(THeaderImage, NS_image_width) == 10, "wire offset");
static_assert(offsetof(THeaderImage, NS_image_height) == 12, "wire offset");
#endif

#endif /* IMG_COMMON_H */
