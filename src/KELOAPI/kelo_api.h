/** @file
 * The whole interface of libkelobase. C11 and C++11.
 *
 * Conventions
 *
 *  1. Call keloInit once before everything else and keloRelease after everything else; these two
 *     must not race with each other or with any other call. All other functions may be called from
 *     any thread at any time. Called without keloInit they return their value for "unknown handle".
 *  2. A camera is named by its CAM_HANDLE, which keloDiscover lists. A handle stays valid until a
 *     discovery no longer finds the camera unchanged, or its address is set. Any value may be
 *     passed: one that names no camera gives KELO_STATUS_ERROR or the value stated.
 *  3. Status functions return KELO_STATUS_SUCCESS (0) or one of three negative codes, see
 *     kelo_common_defs.h. Requests to a camera are tried up to four times, for 2.5 s together,
 *     before KELO_STATUS_NO_RESPONSE.
 *  4. Images belong to the library. A handle from keloGetNextImage... and the data behind it stay
 *     valid until keloPopImage with that handle, keloClearBuffer, keloCloseCamera or keloRelease.
 *     When the library gives a camera up by itself (it is lost, a discovery does not find it
 *     unchanged, its address is set), the image that was handed out last stays readable as well:
 *     until keloPopImage, which takes it also with the old handle, until the same stream is lost
 *     or closed again, or until keloRelease. The images behind it are gone.
 *     Reception never drops an image because the application is slow: the backlog and its memory
 *     grow until images are popped.
 *  5. Streams are numbered from 0. IPv4 addresses are 32-bit numbers in host byte order:
 *     192.168.1.5 is 0xC0A80105. Times are milliseconds.
 *  6. Close callbacks run one at a time on a thread of the library and may call back into it.
 *  7. No function throws.
 *  8. A forked process begins without the library: its calls answer as before keloInit, which it
 *     may call. Nothing that the library opens is inherited by another program. Signals may
 *     interrupt its threads at any time, and an output that takes no log line does no harm.
 */
#ifndef KELO_API_H
#define KELO_API_H

#include "crc32.h"
#include "kelo_common_defs.h"
#include "kelo_registers.h"
#include "kelo_types.h"

#pragma pack(push, 1)

/** A camera's identity. 118 bytes, no padding. */
typedef struct EXT_CAM_INFO {
    char description[100];      /**< the camera's text, at most 32 bytes of it; terminated */
    CAM_HANDLE camera_handle;   /**< the handle that was asked for */
    uint32_t camera_ip;         /**< IPv4 address, host byte order */
    uint32_t camera_subnetmask; /**< IPv4 subnet mask, host byte order */
    uint8_t camera_mac[6];      /**< MAC address, first byte first */
} EXT_CAM_INFO;

#pragma pack(pop)

/* The callback and the records of images: kelo_types.h. */

/* ---- Library ------------------------------------------------------------------------------- */

/** Starts the library: reads "ImagePacketCommunicatorOptions.txt" from the current directory if it
 * is there, and starts the receivers. A second call does nothing and succeeds.
 * KELO_STATUS_ERROR when the system refuses a thread or memory. A socket for images that is refused
 * is tried for again by keloOpenCamera. Must not run beside any other call. */
KELO_API KELO_API_STATUS keloInit(void);

/** Closes every camera and stops every thread. Images and handles become invalid. Always
 * KELO_STATUS_SUCCESS. Must not run beside any other call; a close callback may make it. */
KELO_API KELO_API_STATUS keloRelease(void);

/** Major version in the top byte, minor in the next, patch in the low 16 bits. Works without
 * keloInit. */
KELO_API int keloGetVersion(void);

/** Switches log lines on standard output on (the default) or off. Needs no keloInit. */
KELO_API void keloLogging(uint8_t enable);

/** Stores a text and its length with the terminating zero. Keys: "VersionString" (needs 6 bytes),
 * "BuildInfo" (needs 42 bytes). *length is the size of buffer on entry. Too small: the cut text is
 * stored, *length is 0, KELO_STATUS_ERROR. Unknown key: KELO_STATUS_OUT_OF_RANGE, *length is 0. A
 * null pointer: KELO_STATUS_ERROR. Needs no keloInit. */
KELO_API KELO_API_STATUS keloGetInfo(const char* path, void* buffer, int* length);

/** Stores a number. The only key is "IsMissingFilterDriver", which is always 0 here; any other
 * gives KELO_STATUS_OUT_OF_RANGE. A null pointer, or no keloInit: KELO_STATUS_ERROR. */
KELO_API KELO_API_STATUS keloGetInfoInt(const char* path, int* val);

/** Sets image transport options: "UDP", optionally followed by a factor from 0.3 to 100.
 * Receivers that exist are not changed. KELO_STATUS_ERROR for anything else. */
KELO_API KELO_API_STATUS keloSetImagePacketCommunicatorOptions(const char* options);

/* ---- Cameras ------------------------------------------------------------------------------- */

/** Finds the cameras on every IPv4 interface. Broadcasts once, listens for ms_delay milliseconds
 * (500 suits most networks), then brings the list of known cameras up to date: cameras that did not
 * answer unchanged are dropped, and closed if they were open. Writes up to max_count handles in
 * ascending order to cameraList and returns how many. One discovery at a time. */
KELO_API int keloDiscover(CAM_HANDLE* cameraList, uint32_t max_count, uint32_t ms_delay);

/** Identity of a discovered camera; it need not be open. KELO_STATUS_ERROR for an unknown handle,
 * and *extCamInfo is left as it is. The record is the caller's. */
KELO_API KELO_API_STATUS keloGetCameraInfo(CAM_HANDLE camera_id, EXT_CAM_INFO* extCamInfo);

/** Tells the camera to take a new address, by broadcast to its MAC. The camera does not confirm;
 * the handle is gone at once, and the next discovery lists the camera under a new one. */
KELO_API KELO_API_STATUS keloSetCameraIP(CAM_HANDLE camera_id, uint32_t new_ip_address,
                                         uint32_t new_subnet_mask);

/** Claims the camera, starts its heartbeat and finds the largest packet that the path carries.
 * closeCameraEvent may be null. On an error after the claim the session stays open: call
 * keloCloseCamera. */
KELO_API KELO_API_STATUS keloOpenCamera(CAM_HANDLE camera_id,
                                        keloCameraCloseEvent* closeCameraEvent);

/** Stops the acquisition and frees the camera. Waits for images in other threads end with null.
 * While the camera writes its flash at the end of a firmware run, this call waits for it: up to 190
 * s. */
KELO_API KELO_API_STATUS keloCloseCamera(CAM_HANDLE camera_id);

/* ---- Registers and memory ------------------------------------------------------------------ */

/* Registers are numbered as in kelo_registers.h. Every request waits its turn: one camera has one
 * at a time. KELO_STATUS_ERROR for a null pointer, an unknown handle and a refusal of the camera;
 * KELO_STATUS_OUT_OF_RANGE where the camera has no such register. The camera need not be open. */

/** Stores the value of register number address, in host byte order. On an error *value is left. */
KELO_API KELO_API_STATUS keloGetRegisterInt(CAM_HANDLE camera_id, uint32_t address,
                                            uint32_t* value);
/** Writes *value, in host byte order, to register number address, and stores what the camera now
 * holds back through the pointer. On an error *value is left. A write may reach the camera twice
 * where its answer was lost. */
KELO_API KELO_API_STATUS keloSetRegisterInt(CAM_HANDLE camera_id, uint32_t address,
                                            uint32_t* value);
/** As keloGetRegisterInt, for a register whose 32 bits are an IEEE single. They are not changed. */
KELO_API KELO_API_STATUS keloGetRegisterFloat(CAM_HANDLE camera_id, uint32_t address, float* value);
/** As keloSetRegisterInt, for a register whose 32 bits are an IEEE single. They are not changed. */
KELO_API KELO_API_STATUS keloSetRegisterFloat(CAM_HANDLE camera_id, uint32_t address, float* value);

/** Writes *count (at most 128) registers from start_address on; stores the count that the camera
 * wrote. Values in host byte order. KELO_STATUS_ERROR for more than 128, and nothing is sent. */
KELO_API KELO_API_STATUS keloWriteMemory(CAM_HANDLE camera_id, uint32_t start_address,
                                         uint32_t* count, uint32_t* values);

/** Reads *count (at most 128) registers from start_address on and stores how many the camera gave.
 * values MUST have room for 128: the camera's answer decides how many are stored. In host byte
 * order. */
KELO_API KELO_API_STATUS keloReadMemory(CAM_HANDLE camera_id, uint32_t start_address,
                                        uint32_t* count, uint32_t* values);

/* ---- Images -------------------------------------------------------------------------------- */

/** Sets the streams up from the camera's registers and starts sending. The stream counters begin
 * anew. Returns the status of the step that failed; the acquisition then does not run. Takes some
 * 100 ms, and requests of other threads to this camera wait so long. */
KELO_API KELO_API_STATUS keloStartImageAcquisition(CAM_HANDLE camera_id);

/** Tells the camera to stop sending. Images that have come stay queued. KELO_STATUS_SUCCESS also
 * when the camera does not answer; KELO_STATUS_ERROR for an unknown handle. */
KELO_API KELO_API_STATUS keloStopImageAcquisition(CAM_HANDLE camera_id);

/** Finished images of the stream that wait; 0 when the camera is not open, -1 for an unknown
 * handle. */
KELO_API int keloGetPendingImageCount(CAM_HANDLE camera_id, uint8_t streamNumber);

/** The oldest finished image, or null when there is none, the camera is not open or the handle is
 * unknown. Does not wait. The image belongs to the library and stays queued, and is returned again,
 * until it is popped. */
KELO_API IMAGE_BUFFER_HANDLE keloGetNextImage(CAM_HANDLE camera_id, uint8_t streamNumber);
/** As keloGetNextImage, but waits up to timeout_msec milliseconds for an image. Returns null at
 * once when the camera is closed meanwhile. One thread at a time waits per stream. */
KELO_API IMAGE_BUFFER_HANDLE keloGetNextImageTimeout(CAM_HANDLE camera_id, uint8_t streamNumber,
                                                     int timeout_msec);

/** Decodes the oldest finished image if it is run-length coded (format 0x24) and has more than
 * header_size + 7 bytes, else null. The first header_size bytes are left out. pDecodedBuffer MUST
 * have room for bufferSize + 1 bytes. *status: 1 or 2 decoded whole; 3 to 13 the data is damaged;
 * 14 there was none, the buffer is zero-filled. The image stays queued until it is popped. */
KELO_API IMAGE_BUFFER_HANDLE keloGetNextDecodedImage(CAM_HANDLE camera_id, uint8_t streamNumber,
                                                     void* pDecodedBuffer, int header_size,
                                                     int bufferSize, int* status);

/** Gives an image back; its handle and data end with that. Image must be the very handle that was
 * returned; anything else changes nothing but a log line. */
KELO_API void keloPopImage(CAM_HANDLE camera_id, uint8_t streamNumber, void* Image);

/** 1 when no finished image waits, also for an unknown handle; else 0. */
KELO_API int keloIsBufferEmpty(CAM_HANDLE camera_id, uint8_t streamNumber);

/** Image buffers per stream to announce to the receivers at the next keloOpenCamera; 0 and 1 are
 * ignored. The default is 20. */
KELO_API void keloSetBufferSize(CAM_HANDLE camera_id, uint32_t bufferSize);

/** Drops every finished image of the stream; their handles become invalid. */
KELO_API void keloClearBuffer(CAM_HANDLE camera_id, uint8_t streamNumber);

/** Counters as they were when this image was completed. camera_id is not looked at. */
KELO_API EXT_CAM_STATS keloGetCameraStats(CAM_HANDLE camera_id, void* image);

/* What an image is. These need no keloInit, and no lock: a queued image does not change. */

/** The image's data, header first; bufferLength bytes of it (see BufferInfo). Belongs to the
 * library and is valid as long as the image. Null for a null handle. */
KELO_API unsigned char* keloGetImageData(IMAGE_BUFFER_HANDLE image);

/** Bytes of image data that were received; -1 for a null handle. Packets that came twice count
 * twice, so it may exceed BufferInfo::bufferLength: never read more than that. */
KELO_API int keloGetImageSize(IMAGE_BUFFER_HANDLE image);

/** Bytes in front of the pixels, low 8 bits; 0 for a null handle. */
KELO_API uint8_t keloGetHeaderSize(IMAGE_BUFFER_HANDLE image);

/** Bytes that were lost on the way, and are zeros; -1 for a null handle. */
KELO_API int keloGetImageBytesLost(IMAGE_BUFFER_HANDLE image);

/** The camera's number of the image, which wraps to 0; 0 for a null handle. */
KELO_API uint32_t keloGetImageNumber(IMAGE_BUFFER_HANDLE image);

/* ---- Firmware ------------------------------------------------------------------------------ */

/** Checks the firmware file, then programs it on a thread of the library; the camera reboots at the
 * end. KELO_STATUS_ERROR when the file is not valid or a run is going on for this camera. The
 * heartbeat rests until keloFirmwareGetProgress reports the end. */
KELO_API KELO_API_STATUS keloFirmwareProgram(CAM_HANDLE camera_id, const char* file_name);

/** Asks the run to end. Heeded until the camera has begun to write its flash. KELO_STATUS_SUCCESS
 * also when no run is going on; KELO_STATUS_ERROR for an unknown handle. */
KELO_API KELO_API_STATUS keloFirmwareProgramAbort(CAM_HANDLE camera_id);

/** Percent done. Poll it until 100 or an error: KELO_STATUS_NO_RESPONSE when the camera stopped
 * answering, KELO_STATUS_ERROR when the run failed. */
KELO_API KELO_API_STATUS keloFirmwareGetProgress(CAM_HANDLE camera_id, int* percent_done);

#endif /* KELO_API_H */
