/* What an application does around the library: other programs, other processes, signals, and an
 * output that takes no log line. */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "misuse.h"

#if defined(__SANITIZE_THREAD__)
#define THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define THREAD_SANITIZER 1
#endif
#endif
#ifndef THREAD_SANITIZER
#define THREAD_SANITIZER 0
#endif

/* ---- Other programs and processes ----------------------------------------------------------- */

enum { DESCRIPTORS_MAX = 256 };

/* Those that are open and would be inherited by another program. */
static int count_descriptors(int inherited_only) {
    int count = 0;
    for (int fd = 0; fd < DESCRIPTORS_MAX; ++fd) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && !(inherited_only && (flags & FD_CLOEXEC) != 0)) ++count;
    }
    return count;
}

static CAM_HANDLE start_all_that_opens_descriptors(void) {
    const CAM_HANDLE camera = start_and_acquire();
    begin_firmware(camera, 0);
    return camera;
}

static void close_on_exec(void) {
    const int inherited = count_descriptors(1);
    const int all = count_descriptors(0);
    const CAM_HANDLE camera = start_all_that_opens_descriptors();
    /* The any-address, the interface, images, two connections, the file. */
    CHECK(count_descriptors(0) >= all + 6);
    CHECK_EQUAL(inherited, count_descriptors(1));
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloFirmwareProgramAbort(camera));
}

static void* init(void* argument) {
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloInit());
    return argument;
}

/* The flags of an open descriptor as its status file tells them, O_CLOEXEC among them. What another
 * thread is about to open or close is looked at from outside. */
static int flags_of(int fd) {
    char path[64];
    int flags = -1;
    snprintf(path, sizeof path, "/proc/self/fdinfo/%d", fd);
    FILE* info = fopen(path, "re");
    if (info == NULL) return -1;
    if (fscanf(info, "pos: %*d flags: %o", (unsigned*)&flags) != 1) flags = -1;
    fclose(info);
    return flags;
}

/* Whether a descriptor that reads this file is open; 2 when another program would inherit it. */
static int reads_file(const char* name) {
    struct stat file;
    CHECK_EQUAL(0, stat(name, &file));
    for (int fd = 0; fd < DESCRIPTORS_MAX; ++fd) {
        char path[64];
        struct stat other;
        snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
        if (stat(path, &other) != 0 || other.st_ino != file.st_ino || other.st_dev != file.st_dev) {
            continue;
        }
        const int flags = flags_of(fd);
        if (flags < 0 || (flags & O_ACCMODE) != O_RDONLY) continue;
        return (flags & O_CLOEXEC) != 0 ? 1 : 2;
    }
    return 0;
}

/* A pipe holds the library where it has the file open. */
static void options_file_is_close_on_exec(void) {
    static const char name[] = "ImagePacketCommunicatorOptions.txt";
    char folder[] = "/tmp/kelo-misuse-XXXXXX";
    CHECK(mkdtemp(folder) != NULL);
    CHECK_EQUAL(0, chdir(folder));
    CHECK_EQUAL(0, mkfifo(name, 0600));
    pthread_t thread;
    CHECK_EQUAL(0, pthread_create(&thread, NULL, init, NULL));
    const int writer = open(name, O_WRONLY | O_CLOEXEC);
    CHECK(writer >= 0);
    WAIT_FOR(reads_file(name) != 0);
    CHECK_EQUAL(1, reads_file(name));
    CHECK_EQUAL(4, write(writer, "UDP\n", 4));
    close(writer);
    CHECK_EQUAL(0, pthread_join(thread, NULL));
    CHECK_EQUAL(0, unlink(name));
    CHECK_EQUAL(0, chdir("/"));
    CHECK_EQUAL(0, rmdir(folder));
}

static void exec_inherits_nothing(void) {
    const CAM_HANDLE camera = start_all_that_opens_descriptors();
    FILE* list = popen("for fd in /proc/$$/fd/*; do readlink \"$fd\"; done", "r");
    CHECK(list != NULL);
    if (list == NULL) return;
    char line[512];
    int lines = 0;
    for (; fgets(line, sizeof(line), list) != NULL; ++lines) {
        CHECK(strncmp(line, "socket:", 7) != 0);
        CHECK(strstr(line, temporary_file()) == NULL);
    }
    CHECK(lines > 0);
    pclose(list);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloFirmwareProgramAbort(camera));
}

static void check_child(pid_t child) {
    int status = 0;
    CHECK(child > 0);
    if (child < 0) return; /* or the camera process would be waited for */
    CHECK_EQUAL(child, waitpid(child, &status, 0));
    CHECK(WIFEXITED(status));
    CHECK_EQUAL(0, WEXITSTATUS(status));
}

static void check_undisturbed(CAM_HANDLE camera, uint32_t starts) {
    uint32_t width = 0;
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloGetRegisterInt(camera, REG_WIDTH, &width));
    CHECK_EQUAL(1, camera_tell(0, CAMERA_IS_USED, 0, 0));
    CHECK_EQUAL(starts, camera_tell(0, CAMERA_COUNT_STARTS, 0, 0));
    for (uint8_t stream = 0; stream < CAMERA_STREAMS; ++stream) {
        keloClearBuffer(camera, stream);
        check_image(camera, stream);
    }
}

static void forked_child_exits(void) {
    const CAM_HANDLE camera = start_and_acquire();
    const uint32_t starts = camera_tell(0, CAMERA_COUNT_STARTS, 0, 0);
    for (int i = 0; i < 5; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            if (i % 2 == 0) _exit(0);
#if defined(__SANITIZE_ADDRESS__)
            _exit(0); /* its search for leaks would miss the stacks of the parent's threads */
#else
            exit(0);
#endif
        }
        check_child(child);
        check_undisturbed(camera, starts);
    }
}

static void forked_child_calls(void) {
    const CAM_HANDLE camera = start_and_acquire();
    const uint32_t starts = camera_tell(0, CAMERA_COUNT_STARTS, 0, 0);
    for (int i = 0; i < 3; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            failures = 0;
            check_every_function_refuses(camera, 0);
            CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
            /* ThreadSanitizer lets no forked process start threads. */
            if (!THREAD_SANITIZER) {
                CHECK_EQUAL(KELO_STATUS_SUCCESS, keloInit());
                CHECK_EQUAL(camera, find_camera(0));
                CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
            }
            _exit(failures == 0 ? 0 : 1);
        }
        check_child(child);
        check_undisturbed(camera, starts);
    }
}

/* ---- Signals -------------------------------------------------------------------------------- */

static atomic_int signals_of_others = 0;
static atomic_int signalling_ends = 0;
static pid_t main_thread = 0;

static void on_signal(int number) {
    (void)number;
    const int error = errno;
    if (syscall(SYS_gettid) != main_thread) ++signals_of_others;
    errno = error;
}

static void signal_every_thread_but(pid_t self) {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == NULL) return;
    for (const struct dirent* task = readdir(tasks); task != NULL; task = readdir(tasks)) {
        const pid_t thread = (pid_t)atoi(task->d_name);
        if (thread > 0 && thread != self) (void)syscall(SYS_tgkill, getpid(), thread, SIGUSR1);
    }
    closedir(tasks);
}

static void* signal_at_1_khz(void* argument) {
    const pid_t self = (pid_t)syscall(SYS_gettid);
    while (!signalling_ends) {
        signal_every_thread_but(self);
        usleep(1000);
    }
    return argument;
}

static pthread_t begin_signals(void) {
    main_thread = (pid_t)syscall(SYS_gettid);
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = on_signal; /* and no SA_RESTART */
    CHECK_EQUAL(0, sigaction(SIGUSR1, &action, NULL));
    pthread_t thread;
    CHECK_EQUAL(0, pthread_create(&thread, NULL, signal_at_1_khz, NULL));
    return thread;
}

static void end_signals(pthread_t thread) {
    WAIT_FOR(signals_of_others > 100);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
    signalling_ends = 1;
    CHECK_EQUAL(0, pthread_join(thread, NULL));
}

static void check_registers(CAM_HANDLE camera) {
    for (uint32_t i = 0; i < 200; ++i) {
        uint32_t value = i;
        CHECK_EQUAL(KELO_STATUS_SUCCESS, keloSetRegisterInt(camera, REG_EXPOSURETIME, &value));
        value = 0;
        CHECK_EQUAL(KELO_STATUS_SUCCESS, keloGetRegisterInt(camera, REG_EXPOSURETIME, &value));
        CHECK_EQUAL(i, value);
    }
}

/* A request for a test datagram that is made again, because its answer is late, may make the next
 * size seem not to pass. A signal that cost one would cost one every time. */
static void check_packet_size(CAM_HANDLE camera) {
    for (int i = 0; i < 10 && camera_tell(0, CAMERA_GET_REGISTER, REG_MTU, 0) != 9000; ++i) {
        CHECK_EQUAL(KELO_STATUS_SUCCESS, keloCloseCamera(camera));
        CHECK_EQUAL(KELO_STATUS_SUCCESS, keloOpenCamera(camera, NULL));
        CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(camera));
    }
    CHECK_EQUAL(9000, camera_tell(0, CAMERA_GET_REGISTER, REG_MTU, 0));
}

static void signals_at_1_khz(void) {
    const pthread_t signals = begin_signals();
    const CAM_HANDLE camera = start_and_acquire();
    check_packet_size(camera);
    check_registers(camera);
    for (int start = 0; start < 3; ++start) {
        for (int image = 0; image < 10; ++image) {
            check_image(camera, 0);
            check_image(camera, 1);
        }
        CHECK_EQUAL(KELO_STATUS_SUCCESS, keloStartImageAcquisition(camera));
    }
    end_signals(signals);
}

static void signals_and_firmware(void) {
    const pthread_t signals = begin_signals();
    const CAM_HANDLE camera = start_and_open();
    begin_firmware(camera, 0);
    int percent = 0;
    KELO_API_STATUS status = KELO_STATUS_SUCCESS;
    WAIT_FOR((status = keloFirmwareGetProgress(camera, &percent)) != KELO_STATUS_SUCCESS ||
             percent >= 2);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, status);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloFirmwareProgramAbort(camera));
    WAIT_FOR(keloFirmwareGetProgress(camera, &percent) == KELO_STATUS_ERROR);
    end_signals(signals);
}

/* ---- Output --------------------------------------------------------------------------------- */

static void do_all_that_logs(void) {
    const CAM_HANDLE camera = start_and_acquire();
    const IMAGE_BUFFER_HANDLE image = keloGetNextImageTimeout(camera, 0, 20000);
    keloPopImage(camera, 0, image);
    keloPopImage(camera, 0, image);
    uint32_t value = 0;
    CHECK_EQUAL(KELO_STATUS_OUT_OF_RANGE, keloGetRegisterInt(camera, 9999, &value));
    check_image(camera, 0);
    check_image(camera, 1);
    CHECK_EQUAL(KELO_STATUS_SUCCESS, keloRelease());
}

static void put_in_place_of_output(int fd) {
    CHECK(fd >= 0);
    fflush(stdout);
    CHECK_EQUAL(STDOUT_FILENO, dup2(fd, STDOUT_FILENO));
    close(fd);
}

static void full_disk(void) {
    put_in_place_of_output(open("/dev/full", O_WRONLY));
    do_all_that_logs();
    /* There is room again. */
    put_in_place_of_output(open(temporary_file(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    do_all_that_logs();
    struct stat file;
    CHECK_EQUAL(0, fstat(STDOUT_FILENO, &file));
    CHECK(file.st_size > 200);
}

/* What the library opens must not take the place of the output: the camera would get the log. */
static void closed_output(void) {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    const CAM_HANDLE camera = start_and_acquire();
    CHECK(fcntl(STDIN_FILENO, F_GETFD) < 0);
    CHECK(fcntl(STDOUT_FILENO, F_GETFD) < 0);
    check_image(camera, 0);
    do_all_that_logs();
}

static atomic_int broken_pipes = 0;

static void on_broken_pipe(int number) {
    (void)number;
    ++broken_pipes;
}

static void output_nobody_reads(void) {
    int ends[2];
    CHECK_EQUAL(0, pipe(ends));
    put_in_place_of_output(ends[1]);
    close(ends[0]);
    do_all_that_logs(); /* the signal would end this process */
    /* The application's own writes raise it as ever. */
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = on_broken_pipe;
    CHECK_EQUAL(0, sigaction(SIGPIPE, &action, NULL));
    do_all_that_logs();
    CHECK_EQUAL(0, broken_pipes);
    CHECK_EQUAL(-1, write(STDOUT_FILENO, "x", 1));
    CHECK_EQUAL(1, broken_pipes);
}

const misuse_case environment_cases[] = {
    {.name = "close_on_exec", .setup = {.over_tcp = 1}, .run = close_on_exec},
    {.name = "options_file_is_close_on_exec", .run = options_file_is_close_on_exec},
    {.name = "exec_inherits_nothing", .setup = {.over_tcp = 1}, .run = exec_inherits_nothing},
    {.name = "forked_child_exits", .setup = {.over_tcp = 1}, .run = forked_child_exits},
    {.name = "forked_child_calls", .run = forked_child_calls},
    {.name = "signals_at_1_khz_udp", .run = signals_at_1_khz},
    {.name = "signals_at_1_khz_tcp", .setup = {.over_tcp = 1}, .run = signals_at_1_khz},
    {.name = "signals_and_firmware", .run = signals_and_firmware},
    {.name = "full_disk", .run = full_disk},
    {.name = "closed_output", .setup = {.over_tcp = 1}, .run = closed_output},
    {.name = "output_nobody_reads", .run = output_nobody_reads},
    {.name = NULL},
};
