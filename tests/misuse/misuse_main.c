/* misuse_c CASE: runs one case. misuse_c --check CASE...: whether these are all there are. */
#define _GNU_SOURCE
#include <dirent.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "misuse.h"

atomic_int failures = 0;

static const misuse_case* const groups[] = {argument_cases, sequence_cases, callback_cases,
                                            environment_cases};
enum { GROUPS = sizeof(groups) / sizeof(groups[0]) };

double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

void fail_waiting(const char* file, int line, const char* condition) {
    fprintf(stderr, "%s:%d: waited in vain: %s\n", file, line, condition);
    ++failures;
}

void sleep_a_moment(void) {
    usleep(1000);
}

int count_threads(void) {
    int count = 0;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == NULL) return -1;
    for (const struct dirent* task = readdir(tasks); task != NULL; task = readdir(tasks)) {
        if (task->d_name[0] != '.') ++count;
    }
    closedir(tasks);
    return count;
}

static char temporary[64];

const char* temporary_file(void) {
    snprintf(temporary, sizeof(temporary), "/tmp/kelo-misuse-%d", (int)getpid());
    return temporary;
}

void begin_firmware(CAM_HANDLE handle, int camera) {
    camera_write_firmware(temporary_file());
    camera_tell(camera, CAMERA_DELAY_REPLIES, 0, 1);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloFirmwareProgram(handle, temporary_file()));
}

int knows(CAM_HANDLE camera) {
    EXT_CAM_INFO info;
    return keloGetCameraInfo(camera, &info) == KELO_STATUS_SUCCESS;
}

CAM_HANDLE find_camera_among(const CAM_HANDLE* list, int count, int camera) {
    for (int i = 0; i < count; ++i) {
        EXT_CAM_INFO info;
        if (keloGetCameraInfo(list[i], &info) == KELO_STATUS_SUCCESS &&
            info.camera_ip == camera_address(camera)) {
            return list[i];
        }
    }
    return 0;
}

static CAM_HANDLE discover_once(int camera) {
    CAM_HANDLE found[8];
    const int count = keloDiscover(found, 8, 20);
    return find_camera_among(found, count, camera);
}

CAM_HANDLE find_camera(int camera) {
    CAM_HANDLE handle = 0;
    WAIT_FOR(handle != 0 || (handle = discover_once(camera)) != 0);
    return handle;
}

CAM_HANDLE start_and_find(void) {
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloInit());
    return find_camera(0);
}

CAM_HANDLE start_and_open(void) {
    const CAM_HANDLE camera = start_and_find();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(camera, NULL));
    return camera;
}

CAM_HANDLE start_and_acquire(void) {
    const CAM_HANDLE camera = start_and_open();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(camera));
    CHECK(keloGetNextImageTimeout(camera, 0, 20000) != NULL);
    CHECK(keloGetNextImageTimeout(camera, 1, 20000) != NULL);
    return camera;
}

void check_image(CAM_HANDLE camera, uint8_t stream) {
    const IMAGE_BUFFER_HANDLE image = keloGetNextImageTimeout(camera, stream, 20000);
    CHECK(image != NULL);
    if (image == NULL) return;
    uint8_t frame[CAMERA_FRAME_BYTES_MAX];
    const size_t bytes = camera_frame(stream, keloGetImageNumber(image), frame);
    CHECK_EQUAL(bytes, keloGetImageSize(image));
    CHECK_EQUAL(0, keloGetImageBytesLost(image));
    if ((size_t)keloGetImageSize(image) == bytes) {
        CHECK(memcmp(frame, keloGetImageData(image), bytes) == 0);
    }
    keloPopImage(camera, stream, image);
}

static const misuse_case* find_case(const char* name) {
    for (int group = 0; group < GROUPS; ++group) {
        for (const misuse_case* one = groups[group]; one->name != NULL; ++one) {
            if (strcmp(one->name, name) == 0) return one;
        }
    }
    return NULL;
}

static int check_names(char** names, int count) {
    int known = 0;
    for (int group = 0; group < GROUPS; ++group) {
        for (const misuse_case* one = groups[group]; one->name != NULL; ++one)
            ++known;
    }
    for (int i = 0; i < count; ++i) {
        if (find_case(names[i]) == NULL) return 1;
    }
    return known == count ? 0 : 1;
}

static void* nothing(void* argument) {
    return argument;
}

/* What a sanitizer makes along with a program's first thread is none of the library's. */
static void start_first_thread(void) {
    pthread_t first;
    CHECK_EQUAL(0, pthread_create(&first, NULL, nothing, NULL));
    CHECK_EQUAL(0, pthread_join(first, NULL));
}

int main(int count, char** arguments) {
    if (count >= 2 && strcmp(arguments[1], "--check") == 0) {
        return check_names(arguments + 2, count - 2);
    }
    const misuse_case* one = count == 2 ? find_case(arguments[1]) : NULL;
    if (one == NULL) {
        fprintf(stderr, "usage: misuse_c CASE\n");
        return 101;
    }
    camera_enter_network();
    camera_start(&one->setup);
    start_first_thread();
    const int threads_before = count_threads();
    one->run();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
    WAIT_FOR(count_threads() <= threads_before);
    camera_stop();
    unlink(temporary_file());
    if (failures > 0) fprintf(stderr, "%d failures\n", failures);
    return failures < 100 ? failures : 100;
}
