/* The exported functions as a C program sees them: without the library started, started but without
 * any camera, and after its end. Plain C11 over the public header and the shared library. */
#define _GNU_SOURCE
#include <dirent.h>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "c_checks.h"
#include "kelo_api.h"

atomic_int failures = 0;

static int threads_of_this_process(void) {
    int count = 0;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == NULL) return -1;
    for (const struct dirent* task = readdir(tasks); task != NULL; task = readdir(tasks)) {
        if (task->d_name[0] != '.') ++count;
    }
    closedir(tasks);
    return count;
}

static double seconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static KELO_API_STATUS on_close(CAM_HANDLE camera) {
    (void)camera;
    fprintf(stderr, "a close callback came although no camera was open\n");
    ++failures;
    return KELO_STATUS_SUCCESS;
}

/* ---- Functions that need neither the library nor a camera ---------------------------------- */

static void check_version(void) {
    CHECK_EQUAL(0x02030003, keloGetVersion());
    CHECK_EQUAL(33751043, keloGetVersion());
}

static void check_info_arguments(void) {
    char text[8] = "before";
    int length = 7;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetInfo(NULL, text, &length));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetInfo("VersionString", NULL, &length));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetInfo("VersionString", text, NULL));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetInfo(NULL, NULL, NULL));
    CHECK_EQUAL(7, length);
    CHECK(strcmp(text, "before") == 0);
}

static void check_unknown_info_key(const char* key) {
    char text[64] = "before";
    int length = sizeof(text);
    CHECK_EQUAL(KELO_STATUS_OUT_OF_RANGE, keloGetInfo(key, text, &length));
    CHECK_EQUAL(0, length);
    CHECK(strcmp(text, "before") == 0);
}

/* Asks for the version with a buffer of this size. */
static void check_version_text(int size, KELO_API_STATUS status, const char* text_after,
                               int length_after) {
    char text[16] = "before";
    int length = size;
    CHECK_EQUAL(status, keloGetInfo("VersionString", text, &length));
    CHECK_EQUAL(length_after, length);
    CHECK(strcmp(text, text_after) == 0);
}

static void check_build_info(void) {
    char text[64];
    int length = 42;
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloGetInfo("BuildInfo", text, &length));
    CHECK_EQUAL(42, length);
    CHECK_EQUAL(41, strlen(text));
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    char revision[8] = "";
    int used = 0;
    CHECK_EQUAL(7, sscanf(text, "Built on %4d-%2d-%2d at %2d:%2d:%2d (%7[0-9a-f])%n", &year, &month,
                          &day, &hour, &minute, &second, revision, &used));
    CHECK_EQUAL(41, used);
    CHECK_EQUAL(7, strlen(revision));
    CHECK(year >= 1970 && month >= 1 && month <= 12 && day >= 1 && day <= 31);
    CHECK(hour <= 23 && minute <= 59 && second <= 60);

    char cut[64];
    length = 41;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetInfo("BuildInfo", cut, &length));
    CHECK_EQUAL(0, length);
    CHECK_EQUAL(40, strlen(cut));
    CHECK(strncmp(text, cut, 40) == 0);
}

static void check_info(void) {
    check_info_arguments();
    check_unknown_info_key("versionstring");
    check_unknown_info_key("buildinfo");
    check_unknown_info_key("VersionString ");
    check_unknown_info_key("Version");
    check_unknown_info_key("");
    check_version_text(6, KELO_STATUS_SUCCESS, "2.3.3", 6);
    check_version_text(16, KELO_STATUS_SUCCESS, "2.3.3", 6);
    check_version_text(5, KELO_STATUS_ERROR, "2.3.", 0);
    check_version_text(1, KELO_STATUS_ERROR, "", 0);
    check_version_text(0, KELO_STATUS_ERROR, "before", 0);
    check_version_text(-1, KELO_STATUS_ERROR, "before", 0);
    check_version_text(INT_MIN, KELO_STATUS_ERROR, "before", 0);
    check_build_info();
}

static void check_checksums(void) {
    const uint8_t* text = (const uint8_t*)"123456789";
    CHECK_EQUAL(0xCBF43926u, kelo_crc32(0xFFFFFFFFu, text, 9) ^ 0xFFFFFFFFu);
    CHECK_EQUAL(0x5478DE90u, kelo_crc32(0x5478DE90u, text, 0));
    CHECK_EQUAL(0xBB3D, kelo_crc16(text, 9));
    CHECK_EQUAL(0, kelo_crc16(text, 0));
}

static void check_image_accessors(void) {
    CHECK(keloGetImageData(NULL) == NULL);
    CHECK_EQUAL(-1, keloGetImageSize(NULL));
    CHECK_EQUAL(0, keloGetHeaderSize(NULL));
    CHECK_EQUAL(-1, keloGetImageBytesLost(NULL));
    CHECK_EQUAL(0, keloGetImageNumber(NULL));

    unsigned char pixels[4] = {0};
    BufferInfo image;
    memset(&image, 0, sizeof(image));
    image.buffer = (UINT64)(uintptr_t)pixels;
    image.headerSize = 255;
    image.imageNumber = 0xFFFFFFFEu;
    image.bufferStatistics.bytesReceived = 1000;
    image.bufferStatistics.bytesLost = 17;
    image.streamStatistics.imagesReceived = 0x100000007u;
    image.streamStatistics.imagesSkipped = 0x200000009u;
    CHECK(keloGetImageData(&image) == pixels);
    CHECK_EQUAL(1000, keloGetImageSize(&image));
    CHECK_EQUAL(255, keloGetHeaderSize(&image));
    CHECK_EQUAL(17, keloGetImageBytesLost(&image));
    CHECK_EQUAL(0xFFFFFFFEu, keloGetImageNumber(&image));

    const EXT_CAM_STATS stats = keloGetCameraStats(12345, &image);
    CHECK_EQUAL(0xFFFFFFFEu, stats.current_image_number);
    CHECK_EQUAL(7, stats.images_received);
    CHECK_EQUAL(0, stats.images_dropped);
    CHECK_EQUAL(9, stats.images_skipped);
    CHECK_EQUAL(0, keloGetCameraStats(12345, NULL).images_received);
}

static void check_what_needs_no_library(void) {
    check_version();
    check_info();
    check_checksums();
    check_image_accessors();
    keloLogging(0);
    keloLogging(1);
}

/* ---- Handles that name no camera ----------------------------------------------------------- */

static void check_unknown_session(CAM_HANDLE camera) {
    EXT_CAM_INFO info;
    memset(&info, 0x5A, sizeof(info));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetCameraInfo(camera, &info));
    CHECK_EQUAL(0x5A, info.description[0]);
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetCameraInfo(camera, NULL));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloSetCameraIP(camera, 0x7F000022u, 0xFF000000u));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloOpenCamera(camera, on_close));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloOpenCamera(camera, NULL));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloCloseCamera(camera));
}

static void check_unknown_registers(CAM_HANDLE camera) {
    uint32_t number = 77;
    float fraction = 1.5f;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetRegisterInt(camera, REG_WIDTH, &number));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloSetRegisterInt(camera, REG_WIDTH, &number));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetRegisterFloat(camera, REG_GAIN, &fraction));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloSetRegisterFloat(camera, REG_GAIN, &fraction));
    CHECK_EQUAL(77, number);
    CHECK(memcmp(&fraction, &(const float){1.5f}, sizeof(fraction)) == 0);
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetRegisterInt(camera, REG_WIDTH, NULL));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloSetRegisterInt(camera, REG_WIDTH, NULL));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetRegisterFloat(camera, REG_GAIN, NULL));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloSetRegisterFloat(camera, REG_GAIN, NULL));

    uint32_t values[128] = {42};
    uint32_t count = 128;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloWriteMemory(camera, REG_WIDTH, &count, values));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloReadMemory(camera, REG_WIDTH, &count, values));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloWriteMemory(camera, REG_WIDTH, NULL, NULL));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloReadMemory(camera, REG_WIDTH, NULL, NULL));
    CHECK_EQUAL(128, count);
    CHECK_EQUAL(42, values[0]);
}

static void check_unknown_images(CAM_HANDLE camera) {
    CHECK_EQUAL(KELO_STATUS_ERROR, keloStartImageAcquisition(camera));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloStopImageAcquisition(camera));
    CHECK_EQUAL(-1, keloGetPendingImageCount(camera, 0));
    CHECK(keloGetNextImage(camera, 0) == NULL);
    const double begin = seconds();
    CHECK(keloGetNextImageTimeout(camera, 0, 3600000) == NULL);
    CHECK(seconds() - begin < 20);

    char decoded[16] = "before";
    int status = 77;
    CHECK(keloGetNextDecodedImage(camera, 0, decoded, 0, 8, &status) == NULL);
    CHECK(keloGetNextDecodedImage(camera, 0, NULL, 0, 0, NULL) == NULL);
    CHECK_EQUAL(77, status);
    CHECK(strcmp(decoded, "before") == 0);

    CHECK_EQUAL(1, keloIsBufferEmpty(camera, 0));
    CHECK_EQUAL(1, keloIsBufferEmpty(camera, 255));
    keloSetBufferSize(camera, 20);
    keloClearBuffer(camera, 0);
    keloPopImage(camera, 0, NULL);
    keloPopImage(camera, 0, decoded);
}

static void check_unknown_firmware(CAM_HANDLE camera) {
    int percent = 77;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloFirmwareProgram(camera, "no such file"));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloFirmwareProgram(camera, NULL));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloFirmwareProgramAbort(camera));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloFirmwareGetProgress(camera, &percent));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloFirmwareGetProgress(camera, NULL));
    CHECK_EQUAL(77, percent);
}

static void check_unknown_handles(void) {
    const CAM_HANDLE handles[] = {0, 1, 0x80000000u, 0xFFFFFFFFu};
    for (size_t i = 0; i < sizeof(handles) / sizeof(handles[0]); ++i) {
        check_unknown_session(handles[i]);
        check_unknown_registers(handles[i]);
        check_unknown_images(handles[i]);
        check_unknown_firmware(handles[i]);
    }
}

/* ---- With and without the library ---------------------------------------------------------- */

static void check_info_int_arguments(void) {
    int value = 77;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetInfoInt(NULL, &value));
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetInfoInt("IsMissingFilterDriver", NULL));
    CHECK_EQUAL(KELO_STATUS_OUT_OF_RANGE, keloGetInfoInt("ismissingfilterdriver", &value));
    CHECK_EQUAL(KELO_STATUS_OUT_OF_RANGE, keloGetInfoInt("", &value));
    CHECK_EQUAL(77, value);
}

static void check_without_library(void) {
    int value = 77;
    CHECK_EQUAL(KELO_STATUS_ERROR, keloGetInfoInt("IsMissingFilterDriver", &value));
    CHECK_EQUAL(77, value);
    check_info_int_arguments();
    CHECK_EQUAL(KELO_STATUS_ERROR, keloSetImagePacketCommunicatorOptions("UDP"));
    CAM_HANDLE list[2] = {42, 43};
    CHECK_EQUAL(0, keloDiscover(list, 2, 0));
    CHECK_EQUAL(42, list[0]);
    check_what_needs_no_library();
    check_unknown_handles();
}

static void check_options(void) {
    static const struct {
        const char* text;
        KELO_API_STATUS status;
    } cases[] = {
        {"UDP", KELO_STATUS_SUCCESS},
        {"UDP 1.0", KELO_STATUS_SUCCESS},
        {"UDP 0.3", KELO_STATUS_SUCCESS},
        {"UDP 100", KELO_STATUS_SUCCESS},
        {"  UDP\t2\n", KELO_STATUS_SUCCESS},
        {"UDP 2 and more", KELO_STATUS_SUCCESS},
        {"UDP two", KELO_STATUS_SUCCESS},
        {"UDP 1e1", KELO_STATUS_SUCCESS},
        {"UDP 0.2", KELO_STATUS_ERROR},
        {"UDP 0.29", KELO_STATUS_ERROR},
        {"UDP 100.5", KELO_STATUS_ERROR},
        {"UDP -1", KELO_STATUS_ERROR},
        {"UDP inf", KELO_STATUS_ERROR},
        {"PCAP 2", KELO_STATUS_ERROR},
        {"PCAP", KELO_STATUS_ERROR},
        {"udp 1", KELO_STATUS_ERROR},
        {"UDPX", KELO_STATUS_ERROR},
        {"UDP2", KELO_STATUS_ERROR},
        {"1 UDP", KELO_STATUS_ERROR},
        {"ABCDEFGHIJUDP 1", KELO_STATUS_ERROR},
        {"", KELO_STATUS_ERROR},
        {" \t\n", KELO_STATUS_ERROR},
        {NULL, KELO_STATUS_ERROR},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        const KELO_API_STATUS status = keloSetImagePacketCommunicatorOptions(cases[i].text);
        if (status != cases[i].status) {
            fprintf(stderr, "options \"%s\" give %d\n",
                    cases[i].text != NULL ? cases[i].text : "(null)", (int)status);
            ++failures;
        }
    }
}

/* Only where there is nobody whom a broadcast could disturb. */
static void check_discovery_of_nothing(void) {
    CAM_HANDLE list[2] = {42, 43};
    CHECK_EQUAL(0, keloDiscover(list, 2, 0));
    CHECK_EQUAL(0, keloDiscover(list, 2, 10));
    CHECK_EQUAL(42, list[0]);
    CHECK_EQUAL(43, list[1]);
    CHECK_EQUAL(0, keloDiscover(NULL, 0, 0));
}

/* What a discovery prints: the number in front of its first line and how many lines there are. */
static void run_logged_discovery(long* first_number, int* lines) {
    FILE* output = tmpfile();
    const int saved = dup(STDOUT_FILENO);
    CHECK(output != NULL && saved >= 0);
    if (output == NULL || saved < 0) return;
    fflush(stdout);
    dup2(fileno(output), STDOUT_FILENO);
    CHECK_EQUAL(0, keloDiscover(NULL, 0, 0));
    dup2(saved, STDOUT_FILENO);
    close(saved);
    rewind(output);
    *lines = 0;
    *first_number = 0;
    char line[256];
    while (fgets(line, sizeof(line), output) != NULL) {
        if ((*lines)++ == 0) CHECK_EQUAL(1, sscanf(line, "%ld: ", first_number));
    }
    fclose(output);
}

static void check_logging(void) {
    long before = 0;
    long number = 0;
    long after = 0;
    int lines = 0;
    run_logged_discovery(&before, &lines);
    CHECK(lines > 0);
    const int lines_each = lines;
    keloLogging(0);
    run_logged_discovery(&number, &lines);
    CHECK_EQUAL(0, lines);
    keloLogging(255);
    run_logged_discovery(&after, &lines);
    CHECK_EQUAL(lines_each, lines);
    /* The lines that were not printed were counted. */
    CHECK_EQUAL(before + 2 * lines_each, after);
}

static void check_with_library(int private_network) {
    int value = 77;
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloGetInfoInt("IsMissingFilterDriver", &value));
    CHECK_EQUAL(0, value);
    check_info_int_arguments();
    check_options();
    check_what_needs_no_library();
    check_unknown_handles();
    if (private_network) {
        check_discovery_of_nothing();
        check_logging();
        check_unknown_handles();
    }
}

static void* nothing(void* argument) {
    return argument;
}

/* A sanitizer's own thread comes with the first one of the program: it must not count as ours. */
static void start_first_thread(void) {
    pthread_t first;
    CHECK_EQUAL(0, pthread_create(&first, NULL, nothing, NULL));
    CHECK_EQUAL(0, pthread_join(first, NULL));
}

/* The system forgets a thread a moment after it could be joined. */
static int settled_thread_count(void) {
    int count = threads_of_this_process();
    for (int same = 0; same < 20; ++same) {
        usleep(1000);
        if (threads_of_this_process() != count) same = 0;
        count = threads_of_this_process();
    }
    return count;
}

static void check_thread_count_falls_to(int expected) {
    for (int i = 0; i < 10000 && threads_of_this_process() > expected; ++i)
        usleep(1000);
    CHECK_EQUAL(expected, threads_of_this_process());
}

static void check_init_and_release(int private_network) {
    const int threads_before = settled_thread_count();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloInit());
    const int threads_started = threads_of_this_process();
    CHECK(threads_started > threads_before);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloInit());
    CHECK_EQUAL(threads_started, threads_of_this_process());
    check_with_library(private_network);
    const double begin = seconds();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
    CHECK(seconds() - begin < 10);
    check_thread_count_falls_to(threads_before);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
}

int main(void) {
    /* A network without any interface that is up; no thread exists yet. */
    const int private_network =
        unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
    if (!private_network) fprintf(stderr, "no private network: discovery is not tried\n");

    start_first_thread();
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
    check_without_library();
    check_init_and_release(private_network);
    check_without_library();
    check_init_and_release(private_network);
    check_without_library();
    if (failures > 0) fprintf(stderr, "%d failures\n", failures);
    return failures < 100 ? failures : 100;
}
