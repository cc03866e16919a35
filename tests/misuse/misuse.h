/* What the cases share: checks, a camera, and the way to it. */
#ifndef KELO_TEST_MISUSE_H
#define KELO_TEST_MISUSE_H

#include "c_checks.h"
#include "camera_process.h"
#include "kelo_api.h"

typedef struct misuse_case {
    const char* name;
    camera_setup setup;
    void (*run)(void);
} misuse_case;

extern const misuse_case argument_cases[];
extern const misuse_case sequence_cases[];
extern const misuse_case callback_cases[];
extern const misuse_case environment_cases[];

/* The library, started; the handle of the first camera, discovered, open, acquiring. */
CAM_HANDLE start_and_find(void);
CAM_HANDLE start_and_open(void);
CAM_HANDLE start_and_acquire(void);

CAM_HANDLE find_camera(int camera);
CAM_HANDLE find_camera_among(const CAM_HANDLE* list, int count, int camera);
int knows(CAM_HANDLE camera);

/* Takes the next image of a stream and compares every byte with what was sent. */
void check_image(CAM_HANDLE camera, uint8_t stream);

/* Waits, long enough for any machine, until the condition holds; then it is not asked again: a
 * further discovery might miss a camera, and would drop it. */
#define WAIT_FOR(condition)                                        \
    do {                                                           \
        const double begin_ = now();                               \
        int holds_ = 0;                                            \
        while (!(holds_ = (condition)) && now() - begin_ < 40)     \
            sleep_a_moment();                                      \
        if (!holds_) fail_waiting(__FILE__, __LINE__, #condition); \
    } while (0)

void fail_waiting(const char* file, int line, const char* condition);

double now(void);
void sleep_a_moment(void);
int count_threads(void);

/* Begins a firmware run that is still sending when it is looked at, or aborted. */
void begin_firmware(CAM_HANDLE handle, int camera);

/* A file in the folder for temporary files, removed at the end of the case. */
const char* temporary_file(void);

/* Every exported function with a handle that names no camera, or without the library. */
void check_every_function_refuses(CAM_HANDLE camera, int library_is_there);

#endif
