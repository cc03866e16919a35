/* Calls in the wrong order, too often, or while another thread is inside. */
#include <pthread.h>
#include <string.h>

#include "misuse.h"

static void double_init(void) {
    const CAM_HANDLE camera = start_and_acquire();
    const int threads = count_threads();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloInit());
    CHECK_EQUAL(threads, count_threads());
    /* The first one's camera is still open. */
    keloClearBuffer(camera, 0);
    check_image(camera, 0);
}

static atomic_int first_called = 0;
static atomic_int second_called = 0;

static KELO_API_STATUS first_callback(CAM_HANDLE camera) {
    (void)camera;
    ++first_called;
    return KELO_STATUS_SUCCESS;
}

static KELO_API_STATUS second_callback(CAM_HANDLE camera) {
    (void)camera;
    ++second_called;
    return KELO_STATUS_SUCCESS;
}

static void double_open(void) {
    const CAM_HANDLE camera = start_and_find();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(camera, first_callback));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(camera));
    check_image(camera, 0);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(camera, second_callback));
    keloClearBuffer(camera, 0);
    check_image(camera, 0);
    /* Setting the address closes the session and reports it, to the latest callback. */
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloSetCameraIP(camera, camera_address(0), 0xFF000000u));
    WAIT_FOR(second_called == 1);
    CHECK_EQUAL(0, first_called);
    CHECK_EQUAL(0, camera_tell(0, CAMERA_IS_USED, 0, 0));
}

static void double_close(void) {
    const CAM_HANDLE camera = start_and_acquire();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(camera));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(camera));
    CHECK_EQUAL(0, camera_tell(0, CAMERA_IS_USED, 0, 0));
    CHECK_EQUAL(0, keloGetPendingImageCount(camera, 0));
    CHECK_EQUAL(1, keloIsBufferEmpty(camera, 0));
    CHECK(keloGetNextImageTimeout(camera, 0, 1000000) == NULL);
    CHECK_EQUAL(camera, start_and_acquire());
    check_image(camera, 0);
}

static void double_start(void) {
    const CAM_HANDLE camera = start_and_acquire();
    for (int i = 0; i < 3; ++i) {
        CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(camera));
        keloClearBuffer(camera, 0);
        check_image(camera, 0);
    }
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStopImageAcquisition(camera));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStopImageAcquisition(camera));
}

static void release_twice(void) {
    const CAM_HANDLE camera = start_and_acquire();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
    CHECK_EQUAL(camera, start_and_acquire());
}

/* ---- Other threads inside ------------------------------------------------------------------- */

enum { WAITERS = 6 };

static CAM_HANDLE shared_camera = 0;
static atomic_int waiting = 0;
static atomic_int stop_wanted = 0;

static void* wait_for_image(void* stream) {
    ++waiting;
    CHECK(keloGetNextImageTimeout(shared_camera, *(const uint8_t*)stream, 1000000) == NULL);
    --waiting;
    return NULL;
}

static void close_while_others_wait(void) {
    static const uint8_t streams[2] = {0, 1};
    shared_camera = start_and_acquire();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStopImageAcquisition(shared_camera));
    /* What is still on its way. */
    for (double begin = now(); now() - begin < 0.2; sleep_a_moment()) {
        keloClearBuffer(shared_camera, 0);
        keloClearBuffer(shared_camera, 1);
    }
    pthread_t threads[WAITERS];
    for (int i = 0; i < WAITERS; ++i) {
        uint8_t stream = streams[i % 2];
        CHECK_EQUAL(0, pthread_create(&threads[i], NULL, wait_for_image,
                                      (void*)(uintptr_t)&streams[stream]));
    }
    WAIT_FOR(waiting == WAITERS);
    const double begin = now();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(shared_camera));
    for (int i = 0; i < WAITERS; ++i)
        CHECK_EQUAL(0, pthread_join(threads[i], NULL));
    CHECK(now() - begin < 60);
    CHECK_EQUAL(shared_camera, start_and_acquire());
    check_image(shared_camera, 0);
}

/* Asks for all that can be asked for; the answers depend on the moment. */
static void* ask_on_and_on(void* argument) {
    (void)argument;
    while (!stop_wanted) {
        uint32_t value = 0;
        EXT_CAM_INFO info;
        (void)keloGetRegisterInt(shared_camera, REG_WIDTH, &value);
        (void)keloGetCameraInfo(shared_camera, &info);
        (void)keloGetPendingImageCount(shared_camera, 0);
        (void)keloGetNextImageTimeout(shared_camera, 0, 5);
        (void)keloIsBufferEmpty(shared_camera, 1);
        keloClearBuffer(shared_camera, 1);
    }
    return NULL;
}

static void close_while_others_ask(void) {
    shared_camera = start_and_acquire();
    pthread_t threads[3];
    for (int i = 0; i < 3; ++i)
        CHECK_EQUAL(0, pthread_create(&threads[i], NULL, ask_on_and_on, NULL));
    for (int i = 0; i < 5; ++i) {
        CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(shared_camera));
        CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(shared_camera, NULL));
        CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(shared_camera));
    }
    stop_wanted = 1;
    for (int i = 0; i < 3; ++i)
        CHECK_EQUAL(0, pthread_join(threads[i], NULL));
    check_image(shared_camera, 0);
}

/* ---- Images --------------------------------------------------------------------------------- */

static void pop_twice(void) {
    const CAM_HANDLE camera = start_and_acquire();
    const IMAGE_BUFFER_HANDLE image = keloGetNextImageTimeout(camera, 0, 20000);
    const uint32_t number = keloGetImageNumber(image);
    keloPopImage(camera, 0, image);
    keloPopImage(camera, 0, image);
    const IMAGE_BUFFER_HANDLE next = keloGetNextImageTimeout(camera, 0, 20000);
    CHECK(next != NULL);
    CHECK_EQUAL(number + 1, keloGetImageNumber(next));
    check_image(camera, 0);
}

static void pop_foreign_image(void) {
    const CAM_HANDLE camera = start_and_acquire();
    const IMAGE_BUFFER_HANDLE image = keloGetNextImageTimeout(camera, 0, 20000);
    const IMAGE_BUFFER_HANDLE other = keloGetNextImageTimeout(camera, 1, 20000);
    BufferInfo copy;
    memcpy(&copy, image, sizeof(copy));
    keloPopImage(camera, 0, &copy);
    keloPopImage(camera, 0, other);
    keloPopImage(camera, 200, image);
    keloPopImage(camera, 0, (void*)1);
    CHECK(keloGetNextImage(camera, 0) == image);
    CHECK(keloGetNextImage(camera, 1) == other);
    check_image(camera, 0);
    check_image(camera, 1);
}

static void close_with_images_held(void) {
    const CAM_HANDLE camera = start_and_acquire();
    const IMAGE_BUFFER_HANDLE held = keloGetNextImageTimeout(camera, 0, 20000);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(camera));
    keloPopImage(camera, 0, held);
    CHECK_EQUAL(camera, start_and_acquire());
    check_image(camera, 0);
}

static void release_with_images_held(void) {
    const CAM_HANDLE camera = start_and_acquire();
    const IMAGE_BUFFER_HANDLE held = keloGetNextImageTimeout(camera, 0, 20000);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
    keloPopImage(camera, 0, held);
    CHECK_EQUAL(camera, start_and_acquire());
    check_image(camera, 0);
}

/* ---- Firmware ------------------------------------------------------------------------------- */

static CAM_HANDLE start_firmware(void) {
    const CAM_HANDLE camera = start_and_open();
    begin_firmware(camera, 0);
    return camera;
}

static void close_during_firmware(void) {
    const CAM_HANDLE camera = start_firmware();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(camera));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(camera));
    int percent = 0;
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloFirmwareGetProgress(camera, &percent));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloFirmwareProgram(camera, temporary_file()));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloFirmwareProgramAbort(camera));
    WAIT_FOR(keloFirmwareGetProgress(camera, &percent) == KELO_STATUS_ERROR);
    CHECK_EQUAL(camera, start_and_acquire());
    check_image(camera, 0);
}

static void release_during_firmware(void) {
    const CAM_HANDLE camera = start_firmware();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
    check_every_function_refuses(camera, 0);
    /* Begins anew, whatever is left of the run. */
    CHECK_EQUAL(camera, start_and_acquire());
    check_image(camera, 0);
}

const misuse_case sequence_cases[] = {
    {.name = "double_init", .run = double_init},
    {.name = "double_open", .run = double_open},
    {.name = "double_close", .run = double_close},
    {.name = "double_start", .run = double_start},
    {.name = "release_twice", .run = release_twice},
    {.name = "close_while_others_wait", .run = close_while_others_wait},
    {.name = "close_while_others_ask", .run = close_while_others_ask},
    {.name = "pop_twice", .run = pop_twice},
    {.name = "pop_foreign_image", .run = pop_foreign_image},
    {.name = "release_with_images_held", .run = release_with_images_held},
    {.name = "close_with_images_held", .run = close_with_images_held},
    {.name = "release_during_firmware", .run = release_during_firmware},
    {.name = "close_during_firmware", .run = close_during_firmware},
    {.name = NULL},
};
