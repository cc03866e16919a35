/* Wrong arguments: null pointers, and handles that name no camera. */
#include <stdlib.h>
#include <string.h>

#include "misuse.h"

/* ---- Null pointers -------------------------------------------------------------------------- */

static char tried[64][48];
static int tried_count = 0;

static void note(const char* function) {
    snprintf(tried[tried_count++ % 64], sizeof(tried[0]), "%s", function);
}

/* One function: what the call, with a null pointer in it, must give. */
#define TRY(function, expected, ...)                    \
    do {                                                \
        note(#function);                                \
        CHECK_EQUAL(expected, (function)(__VA_ARGS__)); \
    } while (0)
#define TRY_FOR_NULL(function, ...)             \
    do {                                        \
        note(#function);                        \
        CHECK((function)(__VA_ARGS__) == NULL); \
    } while (0)
#define TAKES_NONE(function) note(#function)

static void null_pointers_of_the_library(void) {
    char text[64];
    int length = sizeof(text);
    TRY(keloGetInfo, KELO_STATUS_ERROR, NULL, text, &length);
    TRY(keloGetInfo, KELO_STATUS_ERROR, "BuildInfo", NULL, &length);
    TRY(keloGetInfo, KELO_STATUS_ERROR, "BuildInfo", text, NULL);
    CHECK_EQUAL(sizeof(text), length);
    TRY(keloGetInfoInt, KELO_STATUS_ERROR, NULL, &length);
    TRY(keloGetInfoInt, KELO_STATUS_ERROR, "IsMissingFilterDriver", NULL);
    TRY(keloSetImagePacketCommunicatorOptions, KELO_STATUS_ERROR, NULL);
    TRY(kelo_crc32, 7, 7, NULL, 100);
    TRY(kelo_crc16, 0, NULL, 100);
    /* The cameras are found, but not listed. */
    TRY(keloDiscover, 0, NULL, 8, 20);
    TRY(keloDiscover, 0, NULL, 0, 0);
}

static void null_pointers_of_a_session(CAM_HANDLE camera) {
    uint32_t values[128] = {5};
    uint32_t count = 1;
    TRY(keloGetCameraInfo, KELO_STATUS_ERROR, camera, NULL);
    TRY(keloOpenCamera, KELO_STATUS_SUCCESS, camera, NULL);
    TRY(keloGetRegisterInt, KELO_STATUS_ERROR, camera, REG_WIDTH, NULL);
    TRY(keloSetRegisterInt, KELO_STATUS_ERROR, camera, REG_GAIN, NULL);
    TRY(keloGetRegisterFloat, KELO_STATUS_ERROR, camera, REG_GAIN, NULL);
    TRY(keloSetRegisterFloat, KELO_STATUS_ERROR, camera, REG_GAIN, NULL);
    TRY(keloReadMemory, KELO_STATUS_ERROR, camera, REG_WIDTH, NULL, values);
    TRY(keloReadMemory, KELO_STATUS_ERROR, camera, REG_WIDTH, &count, NULL);
    TRY(keloWriteMemory, KELO_STATUS_ERROR, camera, REG_GAIN, NULL, values);
    TRY(keloWriteMemory, KELO_STATUS_ERROR, camera, REG_GAIN, &count, NULL);
    CHECK_EQUAL(1, count);
    TRY(keloFirmwareProgram, KELO_STATUS_ERROR, camera, NULL);
    TRY(keloFirmwareGetProgress, KELO_STATUS_ERROR, camera, NULL);
}

static void null_pointers_of_images(CAM_HANDLE camera) {
    char decoded[4096];
    int status = 77;
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(camera));
    const IMAGE_BUFFER_HANDLE image = keloGetNextImageTimeout(camera, 1, 20000);
    CHECK(image != NULL);
    TRY_FOR_NULL(keloGetNextDecodedImage, camera, 1, NULL, 0, 1024, &status);
    CHECK_EQUAL(77, status);
    CHECK(keloGetNextDecodedImage(camera, 1, decoded, 0, sizeof(decoded) - 1, NULL) == image);
    note("keloPopImage");
    keloPopImage(camera, 1, NULL);
    CHECK(keloGetNextImage(camera, 1) == image);
    note("keloGetCameraStats");
    CHECK_EQUAL(0, keloGetCameraStats(camera, NULL).images_received);
    TRY_FOR_NULL(keloGetImageData, NULL);
    TRY(keloGetImageSize, -1, NULL);
    TRY(keloGetHeaderSize, 0, NULL);
    TRY(keloGetImageBytesLost, -1, NULL);
    TRY(keloGetImageNumber, 0, NULL);
}

static void null_pointers(void) {
    start_and_open();
    null_pointers_of_the_library();
    const CAM_HANDLE camera = find_camera(0);
    null_pointers_of_a_session(camera);
    null_pointers_of_images(camera);
    check_image(camera, 0);
    check_image(camera, 1);
}

static void every_function_is_tried(void) {
    null_pointers();
    TAKES_NONE(keloInit);
    TAKES_NONE(keloRelease);
    TAKES_NONE(keloGetVersion);
    TAKES_NONE(keloLogging);
    TAKES_NONE(keloSetCameraIP);
    TAKES_NONE(keloCloseCamera);
    TAKES_NONE(keloStartImageAcquisition);
    TAKES_NONE(keloStopImageAcquisition);
    TAKES_NONE(keloGetPendingImageCount);
    TAKES_NONE(keloGetNextImage);
    TAKES_NONE(keloGetNextImageTimeout);
    TAKES_NONE(keloIsBufferEmpty);
    TAKES_NONE(keloSetBufferSize);
    TAKES_NONE(keloClearBuffer);
    TAKES_NONE(keloFirmwareProgramAbort);
    FILE* symbols = fopen(KELO_EXPORTED_SYMBOLS, "r");
    CHECK(symbols != NULL);
    if (symbols == NULL) return;
    char name[64];
    int count = 0;
    for (; fscanf(symbols, "%63s", name) == 1; ++count) {
        int found = 0;
        for (int i = 0; i < tried_count; ++i)
            found |= strcmp(tried[i], name) == 0;
        if (!found) fprintf(stderr, "%s is not tried\n", name);
        CHECK(found);
    }
    CHECK(count > 30);
    fclose(symbols);
}

/* ---- Handles -------------------------------------------------------------------------------- */

static void session_functions_refuse(CAM_HANDLE camera) {
    EXT_CAM_INFO info;
    memset(&info, 0x5A, sizeof(info));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetCameraInfo(camera, &info));
    CHECK_EQUAL(0x5A, info.description[0]);
    CHECK_EQUAL(KELO_STATUS_ERROR, keloSetCameraIP(camera, 0x7F000022u, 0xFF000000u));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloOpenCamera(camera, NULL));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloCloseCamera(camera));
    int percent = 77;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloFirmwareProgram(camera, "/no/such/file"));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloFirmwareProgramAbort(camera));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloFirmwareGetProgress(camera, &percent));
    CHECK_EQUAL(77, percent);
}

static void register_functions_refuse(CAM_HANDLE camera) {
    uint32_t values[128] = {77};
    uint32_t count = 1;
    float fraction = 0.5f;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetRegisterInt(camera, REG_WIDTH, values));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloSetRegisterInt(camera, REG_GAIN, values));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetRegisterFloat(camera, REG_GAIN, &fraction));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloSetRegisterFloat(camera, REG_GAIN, &fraction));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloReadMemory(camera, REG_WIDTH, &count, values));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloWriteMemory(camera, REG_GAIN, &count, values));
    CHECK_EQUAL(77, values[0]);
    CHECK_EQUAL(1, count);
}

static void image_functions_refuse(CAM_HANDLE camera) {
    char decoded[16] = "before";
    int status = 77;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloStartImageAcquisition(camera));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloStopImageAcquisition(camera));
    CHECK_EQUAL(-1, keloGetPendingImageCount(camera, 0));
    CHECK(keloGetNextImage(camera, 0) == NULL);
    const double begin = now();
    CHECK(keloGetNextImageTimeout(camera, 0, 1000000) == NULL);
    CHECK(now() - begin < 60);
    CHECK(keloGetNextDecodedImage(camera, 1, decoded, 0, 8, &status) == NULL);
    CHECK_EQUAL(77, status);
    CHECK(strcmp(decoded, "before") == 0);
    CHECK_EQUAL(1, keloIsBufferEmpty(camera, 0));
    keloSetBufferSize(camera, 30);
    keloClearBuffer(camera, 0);
    keloPopImage(camera, 0, decoded);
}

void check_every_function_refuses(CAM_HANDLE camera, int library_is_there) {
    session_functions_refuse(camera);
    register_functions_refuse(camera);
    image_functions_refuse(camera);
    if (library_is_there) return;
    int value = 77;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetInfoInt("IsMissingFilterDriver", &value));
    CHECK_EQUAL(77, value);
    CHECK_EQUAL(KELO_STATUS_ERROR, keloSetImagePacketCommunicatorOptions("UDP"));
    CAM_HANDLE list[1] = {42};
    CHECK_EQUAL(0, keloDiscover(list, 1, 20));
    CHECK_EQUAL(42, list[0]);
    CHECK_EQUAL(0x02030003, keloGetVersion());
}

static void unknown_handles(void) {
    const CAM_HANDLE camera = start_and_acquire();
    const CAM_HANDLE others[] = {0, 1, camera + 1, camera - 1, ~camera, 0xFFFFFFFFu};
    for (size_t i = 0; i < sizeof(others) / sizeof(others[0]); ++i)
        check_every_function_refuses(others[i], 1);
    check_image(camera, 0);
}

static void before_init(void) {
    check_every_function_refuses(1, 0);
    const CAM_HANDLE camera = start_and_acquire();
    check_image(camera, 0);
}

static void after_release(void) {
    const CAM_HANDLE camera = start_and_acquire();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
    check_every_function_refuses(camera, 0);
    CHECK_EQUAL(camera, start_and_acquire());
    check_image(camera, 0);
}

/* The library notices by the discovery that does not find the camera. It was not open: a camera
 * that is gone takes seconds to close. */
static void vanished_camera(void) {
    const CAM_HANDLE camera = start_and_find();
    camera_tell(0, CAMERA_POWER_OFF, 0, 0);
    CAM_HANDLE list[8];
    WAIT_FOR(keloDiscover(list, 8, 20) >= 0 && !knows(camera));
    check_every_function_refuses(camera, 1);
    camera_tell(0, CAMERA_POWER_ON, 0, 0);
    CHECK_EQUAL(camera, start_and_acquire());
    check_image(camera, 0);
}

static void camera_with_a_new_address(void) {
    const CAM_HANDLE camera = start_and_acquire();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloSetCameraIP(camera, camera_address(40), 0xFF000000u));
    check_every_function_refuses(camera, 1);
    const CAM_HANDLE moved = find_camera(40);
    CHECK(moved != camera);
    check_every_function_refuses(camera, 1);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(moved, NULL));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(moved));
    check_image(moved, 0);
}

const misuse_case argument_cases[] = {
    {.name = "null_pointers", .run = null_pointers},
    {.name = "every_function_is_tried", .run = every_function_is_tried},
    {.name = "unknown_handles", .run = unknown_handles},
    {.name = "before_init", .run = before_init},
    {.name = "after_release", .run = after_release},
    {.name = "vanished_camera", .run = vanished_camera},
    {.name = "camera_with_a_new_address", .run = camera_with_a_new_address},
    {.name = NULL},
};
