#!/usr/bin/python3
"""Makes a capture of the library at work with a simulated camera: tests/data/wireshark/session.pcap.

Usage: make_capture.py BUILD_FOLDER OUTPUT_FILE

BUILD_FOLDER holds libkelobase.so and kelo-sim (targets kelobase and kelo-sim of any preset without
sanitizers). Everything runs in a network namespace of its own, so nothing else is in the capture
and nothing leaves the machine. Needs root, or a system that allows user namespaces.

The session: discovery, open, registers and memory with success, refusal and an unknown number, one
stream over UDP that loses a packet and one over TCP, the first payloads of a firmware run, close, a
new address, discovery again.
"""
import ctypes
import os
import pathlib
import socket
import struct
import subprocess
import sys
import threading
import time

IMAGES = 4
UDP_PICTURE = (64, 48)
TCP_IMAGE_BYTES = 3000
ADDRESS = "127.0.0.11"
NEW_ADDRESS = "127.0.0.21"

ETH_P_ALL = 3
LINKTYPE_ETHERNET = 1
SNAP_BYTES = 65535


class Recorder:
    """Writes what the loopback interface carries into a capture file."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        self.socket.bind(("lo", 0))
        self.socket.settimeout(0.2)
        self.file = open(path, "wb")
        self.file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, SNAP_BYTES,
                                    LINKTYPE_ETHERNET))
        self.stopping = False
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while True:
            try:
                packet, origin = self.socket.recvfrom(SNAP_BYTES)
            except TimeoutError:
                if self.stopping:
                    return
                continue
            if origin[2] == socket.PACKET_OUTGOING:  # each packet comes by again on its way in
                continue
            now = time.time_ns()
            self.file.write(struct.pack("<IIII", now // 10**9, now % 10**9 // 1000, len(packet),
                                        len(packet)))
            self.file.write(packet)

    def stop(self):
        self.stopping = True
        self.thread.join()
        self.file.close()


def prepare_loopback():
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    # A capture shall show packets as a cable carries them, not several that the kernel hands over in
    # one piece.
    subprocess.run(["ip", "link", "set", "lo", "gso_max_segs", "1"], check=True)


def check(result, what):
    if not result:
        sys.exit(f"failed: {what}")


class Session:
    """The client: the library by its C interface."""

    def __init__(self, path):
        self.library = ctypes.CDLL(str(path))
        for name in ("keloGetNextImageTimeout", "keloGetImageData"):
            getattr(self.library, name).restype = ctypes.c_void_p
        self.library.keloLogging(0)
        check(self.library.keloInit() == 0, "keloInit")
        self.camera = 0

    def discover(self):
        handles = (ctypes.c_uint32 * 4)()
        deadline = time.monotonic() + 20
        while self.library.keloDiscover(handles, 4, 300) != 1:
            check(time.monotonic() < deadline, "keloDiscover finds one camera")
        self.camera = handles[0]

    def read(self, register):
        value = ctypes.c_uint32()
        return self.library.keloGetRegisterInt(self.camera, register, ctypes.byref(value)), value.value

    def write(self, register, value):
        return self.library.keloSetRegisterInt(self.camera, register,
                                               ctypes.byref(ctypes.c_uint32(value)))

    def write_memory(self, register, values):
        count = ctypes.c_uint32(len(values))
        array = (ctypes.c_uint32 * 128)(*values)
        return self.library.keloWriteMemory(self.camera, register, ctypes.byref(count), array)

    def read_memory(self, register, count):
        number = ctypes.c_uint32(count)
        values = (ctypes.c_uint32 * 128)()
        result = self.library.keloReadMemory(self.camera, register, ctypes.byref(number), values)
        return result, list(values[:number.value])

    def take_images(self, stream):
        for _ in range(IMAGES):
            image = self.library.keloGetNextImageTimeout(self.camera, stream, 10000)
            check(image is not None, f"an image of stream {stream}")
            self.library.keloPopImage(self.camera, ctypes.c_uint8(stream), ctypes.c_void_p(image))


def payload(*words, data=b""):
    """A firmware payload as register values: bytes, the lowest of each value first."""
    text = b"".join(struct.pack(">I", word) for word in words) + data
    return list(struct.unpack(f"<{len(text) // 4}I", text))


def use_everything(session):
    check(session.read(64)[0] == 0, "reading a register")
    check(session.write(25, 5000) == 0, "writing a register")
    check(session.read(9999)[0] == -3, "a register that is not there")
    check(session.write(0, 1) == -1, "a register that is read-only")
    check(session.read_memory(133, 13)[0] == 0, "reading memory")
    check(session.write_memory(96, [10, 20]) == 0, "writing memory")


def use_firmware(session):
    # The count of a short payload is its length in bytes: that is what cameras expect.
    check(session.write_memory(10000, payload(0xFFFFFF00) + [0] * 3) == 0, "the start payload")
    check(session.write_memory(10000, payload(0, data=bytes(range(252)) * 2) + [0]) == 0, "data")


def move(session):
    address = struct.unpack(">I", socket.inet_aton(NEW_ADDRESS))[0]
    check(session.library.keloSetCameraIP(session.camera, address, 0xFF000000) == 0, "set-IP")
    session.discover()


def run_session(build):
    width, height = UDP_PICTURE
    simulator = subprocess.Popen(
        [build / "simulator/kelo-sim", "--address", ADDRESS, "--fps", "50",
         "--source", "chart8", "--source", f"bytes:{TCP_IMAGE_BYTES}", "--tcp", "1",
         "--picture", f"{width}x{height}", "--images", str(IMAGES), "--packet", "drop:2:1",
         "--tcp-sync", "--path-packet-size", "1500", "--header-size", "0",
         "--description", "Capture camera", "--heartbeat-ms", "60000"],  # no keep-alive in between
        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    try:
        simulator.stdout.readline()  # the camera is there
        session = Session(build / "src/KELOAPI/libkelobase.so")
        session.discover()
        check(session.library.keloOpenCamera(session.camera, None) == 0, "keloOpenCamera")
        use_everything(session)
        check(session.library.keloStartImageAcquisition(session.camera) == 0, "the acquisition")
        session.take_images(0)
        session.take_images(1)
        session.library.keloStopImageAcquisition(session.camera)
        use_firmware(session)
        session.library.keloCloseCamera(session.camera)
        move(session)
        session.library.keloRelease()
    finally:
        simulator.terminate()
        simulator.wait()


def main(build, output):
    if os.environ.get("KELO_CAPTURE_NAMESPACE") != "1":
        os.environ["KELO_CAPTURE_NAMESPACE"] = "1"
        how = ["--net"] if os.geteuid() == 0 else ["--net", "--map-root-user"]
        os.execvp("unshare", ["unshare", *how, sys.executable, *sys.argv])
    prepare_loopback()
    recorder = Recorder(output)
    try:
        run_session(pathlib.Path(build).resolve())
    finally:
        recorder.stop()


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
