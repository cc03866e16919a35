/* A simulated camera in a process of its own, for tests of C and C++: nothing of it counts among
 * the descriptors, the threads and the memory of the process under test, and no signal to that
 * process reaches it. */
#ifndef KELO_TEST_CAMERA_PROCESS_H
#define KELO_TEST_CAMERA_PROCESS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Stream 0 sends a moving chart, stream 1 a run-length coded laser line, 50 images a second. */
enum { CAMERA_STREAMS = 2, CAMERA_FRAME_BYTES_MAX = 4096 };

typedef struct camera_setup {
    int over_tcp;
    int cameras;                   /* at 127.0.0.11 and on */
    uint32_t heartbeat_timeout_ms; /* 0: longer than any machine stands still */
    uint32_t flash_time_ms;
} camera_setup;

typedef enum camera_command {
    CAMERA_POWER_OFF,
    CAMERA_POWER_ON,
    CAMERA_SILENT, /* value: 1 silent, 0 answering again */
    CAMERA_GET_REGISTER,
    CAMERA_SET_REGISTER,
    CAMERA_DELAY_REPLIES, /* value: by so many ms */
    CAMERA_IS_USED,
    CAMERA_COUNT_STARTS /* writes of the register that starts the acquisition */
} camera_command;

/* Takes the process into a network of its own. Before everything else. */
void camera_enter_network(void);

/* Starts the cameras. While the process has one thread only. One camera process at a time. */
void camera_start(const camera_setup* setup);
void camera_stop(void);

/* Tells a camera, counted from 0, what to do, and returns when it is done, with what was
 * asked. Any thread. */
uint32_t camera_tell(int camera, camera_command command, uint32_t number, uint32_t value);

uint32_t camera_address(int camera);

/* Stores what the image of that number consists of; returns how many bytes. */
size_t camera_frame(int stream, uint32_t number, uint8_t frame[CAMERA_FRAME_BYTES_MAX]);

/* Writes a valid firmware image, of 10,000 payloads: a camera that answers each of them a
 * millisecond late is still being sent some when a machine that stood still goes on. */
void camera_write_firmware(const char* path);

#ifdef __cplusplus
}
#endif

#endif
