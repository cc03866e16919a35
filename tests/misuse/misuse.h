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
int knows(CAM_HANDLE camera);

/* Takes the next image of a stream and compares every byte with what was sent. */
void check_image(CAM_HANDLE camera, uint8_t stream);

/* Waits, long enough for any machine, until the condition holds. */
#define WAIT_FOR(condition)                         \
    do {                                            \
        const double begin_ = now();                \
        while (!(condition) && now() - begin_ < 40) \
            sleep_a_moment();                       \
        CHECK(condition);                           \
    } while (0)

double now(void);
void sleep_a_moment(void);
int count_threads(void);

/* A file in the folder for temporary files, removed at the end of the case. */
const char* temporary_file(void);

/* Every exported function with a handle that names no camera, or without the library. */
void check_every_function_refuses(CAM_HANDLE camera, int library_is_there);

#endif
