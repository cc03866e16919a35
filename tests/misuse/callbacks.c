/* Close callbacks that call back into the library. */
#include "misuse.h"

static CAM_HANDLE other = 0;
static void (*action)(CAM_HANDLE camera) = NULL;
static atomic_int called = 0;
static atomic_int returned = 0;

static KELO_API_STATUS on_close(CAM_HANDLE camera) {
    ++called;
    if (action != NULL) action(camera);
    ++returned;
    return KELO_STATUS_ERROR; /* not looked at */
}

/* Discovers until both cameras answer within one discovery: one that a discovery misses, because
 * the machine stands still, is dropped. */
static void find_both(CAM_HANDLE list[2]) {
    WAIT_FOR(keloDiscover(list, 2, 20) == 2);
}

/* Both cameras, the first one opened with a callback that does what it is told to. */
static CAM_HANDLE open_first(void (*what)(CAM_HANDLE camera)) {
    action = what;
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloInit());
    CAM_HANDLE list[2];
    find_both(list);
    EXT_CAM_INFO info;
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloGetCameraInfo(list[0], &info));
    const int first = info.camera_ip == camera_address(0) ? 0 : 1;
    other = list[1 - first];
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(list[first], on_close));
    return list[first];
}

/* The camera stops answering: its handle stays. The keep-alive request, which is given up before,
 * takes 2.5 s. */
static CAM_HANDLE lose_camera(void (*what)(CAM_HANDLE camera)) {
    const CAM_HANDLE camera = open_first(what);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(camera));
    camera_tell(0, CAMERA_SET_REGISTER, REG_HEARTBEAT_TIMEOUT, 300);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(camera, on_close));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(camera));
    WAIT_FOR(returned == 1 || keloIsBufferEmpty(camera, 0) == 0);
    camera_tell(0, CAMERA_SILENT, 0, 1);
    /* Closing, which begins with the session's end, goes on at once when the camera is back. */
    WAIT_FOR(returned == 1 || keloIsBufferEmpty(camera, 0) == 1);
    camera_tell(0, CAMERA_SET_REGISTER, REG_HEARTBEAT_TIMEOUT, 100000);
    camera_tell(0, CAMERA_SILENT, 0, 0);
    WAIT_FOR(returned == 1);
    CHECK_EQUAL(1, called);
    return camera;
}

/* The camera is given its address anew, which closes it at once: its handle is gone until a
 * discovery finds it. */
static CAM_HANDLE set_address(void (*what)(CAM_HANDLE camera)) {
    const CAM_HANDLE camera = open_first(what);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloSetCameraIP(camera, camera_address(0), 0xFF000000u));
    WAIT_FOR(returned == 1);
    CHECK_EQUAL(1, called);
    return camera;
}

static void close_both(CAM_HANDLE camera) {
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(other, NULL));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(camera));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(other));
    CHECK_EQUAL(0, camera_tell(1, CAMERA_IS_USED, 0, 0));
}

static void callback_closes(void) {
    lose_camera(close_both);
    CHECK_EQUAL(1, called);
}

static void open_both(CAM_HANDLE camera) {
    /* The new session is there to stay. */
    camera_tell(0, CAMERA_SET_REGISTER, REG_HEARTBEAT_TIMEOUT, 100000);
    camera_tell(0, CAMERA_SILENT, 0, 0);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(camera, on_close));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(other, on_close));
}

static void callback_opens(void) {
    const CAM_HANDLE camera = lose_camera(open_both);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(camera));
    check_image(camera, 0);
    CHECK_EQUAL(1, camera_tell(0, CAMERA_IS_USED, 0, 0));
    CHECK_EQUAL(1, camera_tell(1, CAMERA_IS_USED, 0, 0));
}

static void discover_all(CAM_HANDLE camera) {
    CAM_HANDLE list[2];
    find_both(list);
    CHECK(knows(camera));
    CHECK(knows(other));
}

static void callback_discovers(void) {
    const CAM_HANDLE camera = set_address(discover_all);
    CHECK(knows(camera));
}

static void program_other(CAM_HANDLE camera) {
    int percent = 0;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloFirmwareGetProgress(camera, &percent));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(other, NULL));
    begin_firmware(other, 1);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloFirmwareGetProgress(other, &percent));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloFirmwareProgramAbort(other));
    WAIT_FOR(keloFirmwareGetProgress(other, &percent) == KELO_STATUS_ERROR);
}

static void callback_watches_firmware(void) {
    set_address(program_other);
}

static void use_everything(CAM_HANDLE camera) {
    uint32_t width = 0;
    CAM_HANDLE list[2];
    find_both(list);
    CHECK_EQUAL(camera, find_camera_among(list, 2, 0));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(camera, NULL));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloGetRegisterInt(camera, REG_WIDTH, &width));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(camera));
    check_image(camera, 0);
    check_image(camera, 1);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStopImageAcquisition(camera));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(camera));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloInit());
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloSetCameraIP(other, camera_address(1), 0xFF000000u));
}

static void callback_uses_everything(void) {
    set_address(use_everything);
    find_camera(1);
}

static void release_and_init(CAM_HANDLE camera) {
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
    check_every_function_refuses(camera, 0);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloInit());
    CHECK_EQUAL(camera, find_camera(0));
}

static void callback_releases_and_inits(void) {
    const CAM_HANDLE camera = set_address(release_and_init);
    CHECK_EQUAL(camera, start_and_acquire());
    check_image(camera, 0);
}

const misuse_case callback_cases[] = {
    {.name = "callback_closes", .setup = {.cameras = 2}, .run = callback_closes},
    {.name = "callback_opens", .setup = {.cameras = 2}, .run = callback_opens},
    {.name = "callback_discovers", .setup = {.cameras = 2}, .run = callback_discovers},
    {.name = "callback_watches_firmware",
     .setup = {.cameras = 2},
     .run = callback_watches_firmware},
    {.name = "callback_uses_everything", .setup = {.cameras = 2}, .run = callback_uses_everything},
    {.name = "callback_releases_and_inits",
     .setup = {.cameras = 2},
     .run = callback_releases_and_inits},
    {.name = NULL},
};
