#!/usr/bin/python3
"""What the settings of a host do to losses: the receive buffer, and the priority of the application.

Usage: host_settings.py BUILD_FOLDER [--seconds N]

A simulated camera sends 125 MB/s in packets of 1500 bytes over the loopback interface of a network
of its own, with real-time priority, as a camera's time is its own. The application is this script,
by the library's C interface; it only counts. Needs root. Prints a table.

  stalls   the application is stopped by a signal every half second, for so many milliseconds
  busy     four loops per core take all the processor time that they can get
"""
import argparse
import ctypes
import os
import pathlib
import signal
import subprocess
import sys
import time

MB_PER_S = 125
LOOPS_PER_CORE = 4
STALLS_MS = (20, 50, 100, 200)
PRIORITIES = (("as every process", []), ("nice -n -10", ["nice", "-n", "-10"]),
              ("chrt --rr 10", ["chrt", "--rr", "10"]))
UNPRIVILEGED = ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"]


class StreamStatistics(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint64) for name in
                ("images_skipped", "images_received", "missing_packets", "bytes_received", "bytes_lost")]


class BufferStatistics(ctypes.Structure):
    _fields_ = [("error", ctypes.c_uint8), ("missing", ctypes.c_uint16),
                ("received", ctypes.c_uint32), ("lost", ctypes.c_uint32)]


class BufferInfo(ctypes.Structure):
    _fields_ = [("stream", ctypes.c_uint8), ("format", ctypes.c_uint8), ("header_type", ctypes.c_uint8),
                ("header_size", ctypes.c_uint8), ("width", ctypes.c_uint16), ("height", ctypes.c_uint16),
                ("packets", ctypes.c_uint16), ("number", ctypes.c_uint32),
                ("length", ctypes.c_uint32), ("buffer", ctypes.c_uint64), ("image", BufferStatistics),
                ("total", StreamStatistics)]


def application(build, seconds):
    """Receives for so many seconds and prints what was received and lost, in packets."""
    library = ctypes.CDLL(str(pathlib.Path(build, "src/KELOAPI/libkelobase.so")))
    library.keloGetNextImageTimeout.restype = ctypes.POINTER(BufferInfo)
    library.keloLogging(0)
    handles = (ctypes.c_uint32 * 1)()
    if library.keloInit() != 0 or library.keloDiscover(handles, 1, 500) != 1:
        sys.exit("no camera")
    camera = handles[0]
    if library.keloOpenCamera(camera, None) != 0 or library.keloStartImageAcquisition(camera) != 0:
        sys.exit("the camera does not start")
    print("started", flush=True)
    end, images, received, lost = time.monotonic() + seconds, 0, 0, 0
    number = None
    while time.monotonic() < end:
        image = library.keloGetNextImageTimeout(camera, 0, 2000)
        if not image:
            continue
        record = image.contents
        if number is not None:
            lost += (record.number - number - 1) * record.packets  # images without a single packet
        number = record.number
        lost += record.image.missing
        received += record.packets - record.image.missing
        images += 1
        library.keloPopImage(camera, ctypes.c_uint8(0), image)
    print(received, lost, flush=True)
    library.keloRelease()


def stall(process, seconds, stall_ms):
    end = time.monotonic() + seconds - 0.5
    while time.monotonic() < end:
        time.sleep(0.5)
        os.kill(process.pid, signal.SIGSTOP)
        time.sleep(stall_ms / 1000)
        os.kill(process.pid, signal.SIGCONT)


def measure(build, seconds, prefix, stall_ms=0, busy=False):
    """The share of lost packets, in percent."""
    camera = subprocess.Popen(["chrt", "--fifo", "20", build / "simulator/kelo-sim", "--quiet", "--fps", "0",
                               "--picture", "2048x2048", "--path-packet-size", "1500", "--max-mbytes",
                               str(MB_PER_S)], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
    loops = [subprocess.Popen(["sh", "-c", "while :; do :; done"])
             for _ in range(LOOPS_PER_CORE * os.cpu_count() if busy else 0)]
    try:
        time.sleep(0.5)
        client = subprocess.Popen([*prefix, sys.executable, __file__, str(build), "--application", "--seconds",
                                   str(seconds)], stdout=subprocess.PIPE, text=True)
        client.stdout.readline()
        if stall_ms:
            stall(client, seconds, stall_ms)
        received, lost = map(int, client.stdout.readline().split())
        client.wait()
        return 100 * lost / (received + lost)
    finally:
        for process in (*loops, camera):
            process.terminate()
            process.wait()


def table(build, seconds):
    limit = int(pathlib.Path("/proc/sys/net/core/rmem_max").read_text()) // 1024
    print("| receive buffer | " + " | ".join(f"{ms} ms" for ms in STALLS_MS) + " |")
    print("|---|" + "---|" * len(STALLS_MS))
    for name, prefix in ((f"{limit} KiB", UNPRIVILEGED), ("32768 KiB", [])):
        losses = [measure(build, seconds, prefix, stall_ms=ms) for ms in STALLS_MS]
        print(f"| {name} | " + " | ".join(f"{loss:.2f} %" for loss in losses) + " |", flush=True)
    print("\n| priority | 32768 KiB | " + f"{limit} KiB |\n|---|---|---|")
    for name, prefix in PRIORITIES:
        losses = [measure(build, seconds, [*prefix, *user], busy=True) for user in ([], UNPRIVILEGED)]
        print(f"| {name} | " + " | ".join(f"{loss:.2f} %" for loss in losses) + " |", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--seconds", type=float, default=8)
    parser.add_argument("--application", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.application:
        application(arguments.build, arguments.seconds)
    elif os.environ.get("KELO_SETTINGS_NAMESPACE") != "1":
        os.environ["KELO_SETTINGS_NAMESPACE"] = "1"
        os.execvp("unshare", ["unshare", "--net", sys.executable, *sys.argv])
    else:
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        table(arguments.build.resolve(), arguments.seconds)


if __name__ == "__main__":
    main()
