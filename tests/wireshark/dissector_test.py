#!/usr/bin/python3
"""Runs tshark with tools/wireshark/kelo.lua over captures and looks at what it decodes.

Usage: dissector_test.py ROOT BUILD_FOLDER CASE...

Exits with 77 where tshark is not installed. BUILD_FOLDER serves fresh_capture alone.
"""
import functools
import pathlib
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

SKIPPED = 77
REG_STREAMPORT = "257"
FIELDS = (
    "frame.number", "frame.protocols", "udp.dstport", "tcp.dstport", "_ws.expert.message",
    "kelo.command", "kelo.message_number", "kelo.status", "kelo.description", "kelo.camera_ip",
    "kelo.camera_subnet", "kelo.new_ip", "kelo.link_speed", "kelo.register", "kelo.count", "kelo.value",
    "kelo.reply_in", "kelo.request_in", "kelo.test_port", "kelo.packet_size", "kelo.firmware.command",
    "kelo.firmware.offset", "kelo.cut", "kelo.short", "kelo_image.number", "kelo_image.stream",
    "kelo_image.packet", "kelo_image.packets", "kelo_image.width", "kelo_image.height",
    "kelo_image.length", "kelo_image.complete", "kelo_image.missing", "kelo_image.short",
    "kelo_image.bad_packet", "kelo_stream.stream", "kelo_stream.opening", "kelo_stream.type",
    "kelo_stream.short", "kelo_stream.bad_magic", "kelo_sizetest.size",
)
UDP_IMAGES = {"1": 3, "2": 2, "3": 3, "4": 3}  # packets of each; image 2 loses one
TCP_IMAGE_BYTES = 3000


def tshark(capture, *arguments):
    command = ["tshark", "-n", "-r", str(capture), "-X", f"lua_script:{SCRIPT}", *arguments]
    run = subprocess.run(command, capture_output=True, text=True, check=True, timeout=60)
    if "Lua" in run.stderr:
        raise AssertionError(run.stderr)
    return run.stdout


@functools.cache
def decoded(capture):
    """Every packet of the capture, as a dictionary by field. One run tells all: starting tshark is
    what takes the time."""
    arguments = ["-2", "-T", "fields", "-E", "separator=|", "-E", "aggregator=;"]
    for field in FIELDS:
        arguments += ["-e", field]
    return [dict(zip(FIELDS, line.split("|")))
            for line in tshark(capture, *arguments).splitlines()]


def rows(capture, condition):
    return [row for row in decoded(str(capture)) if condition(row)]


def has(*fields):
    """The condition that a packet has one of the fields."""
    return lambda row: any(row[field] for field in fields)


def is_command(*commands):
    return lambda row: row["kelo.command"] in {str(command) for command in commands}


def is_udp_image(row):
    return row["kelo_image.packets"] and row["udp.dstport"]


def header_constants(path, kind):
    """NAME = NUMBER pairs of an enumeration in a C or C++ header."""
    body = re.search(rf"enum {kind}\b[^{{]*{{(.*?)}}", path.read_text(), re.DOTALL).group(1)
    return {name: int(value, 0) for name, value in re.findall(r"(\w+) = (\w+)", body)}


def lua_table(name):
    body = re.search(rf"^local {name} = {{(.*?)^}}", SCRIPT.read_text(),
                     re.DOTALL | re.MULTILINE).group(1)
    return {part: int(number, 0) for number, names in re.findall(r'\[(\w+)\] = "([^"]*)"', body)
            for part in names.split(" / ")}


def udp_packet(source_port, port, payload):
    """A frame of an Ethernet capture, from 10.0.0.1 to 10.0.0.2."""
    udp = struct.pack(">HHHH", source_port, port, 8 + len(payload), 0) + payload
    ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0, 64, 17, 0,
                     bytes((10, 0, 0, 1)), bytes((10, 0, 0, 2)))
    return bytes(12) + b"\x08\x00" + ip + udp


def write_capture(path, frames):
    """frames: bytes, and how many there were before the capture cut them off."""
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for number, (frame, size) in enumerate(frames):
            file.write(struct.pack("<IIII", number, 0, len(frame), size) + frame)


def read_capture(path):
    data = pathlib.Path(path).read_bytes()
    offset, frames = 24, []
    while offset < len(data):
        size = struct.unpack_from("<I", data, offset + 8)[0]
        frames.append(data[offset + 16:offset + 16 + size])
        offset += 16 + size
    return frames


def story(capture):
    """What happens in a capture, without what differs from run to run: ports, and their order."""
    shown = tshark(capture, "-T", "fields", "-E", "separator=|", "-e", "_ws.col.Protocol", "-e",
                   "_ws.col.Info", "-e", "kelo_stream.type", "-e", "kelo_image.number")
    lines = [line.split("|") for line in shown.splitlines()]
    told = {re.sub(r"= \d{5,}", "= N", info) for protocol, info, _, _ in lines
            if protocol in ("KELO", "KELO image", "KELO test")}
    messages = ";".join(types for _, _, types, _ in lines if types)
    images = ";".join(number for protocol, _, _, number in lines if protocol == "KELO stream" and number)
    return sorted(told), messages.replace(";", ""), images.replace(";", "")


def control(command, body=b"", number=7, status=1):
    return struct.pack(">BBIII", 0xAB, 0, command, number, status) + body


class Dissector(unittest.TestCase):
    capture = None

    def names(self):
        protocol = ROOT / "src/KELOAPI/protocol/kelo_protocol.h"
        registers = header_constants(ROOT / "common/kelo_registers.h", "KELO_REGISTERS")
        self.assertGreater(len(registers), 100)
        self.assertEqual(lua_table("REGISTERS"), registers)
        self.assertEqual(lua_table("COMMANDS"), header_constants(protocol, "VC_PROTOCOL_COMMANDS"))
        self.assertEqual(lua_table("STATUSES"), header_constants(protocol, "VCNL_status_values"))
        self.assertEqual(lua_table("TCP_TYPES"), header_constants(protocol, "TCP_MESSAGE_TYPE"))
        firmware = (ROOT / "src/KELOAPI/firmware/kelo_fw_common.h").read_text()
        words = dict(re.findall(r"(FW_COMMAND_\w+) = (\w+)", firmware))
        self.assertEqual(lua_table("FIRMWARE_COMMANDS"),
                         {name: int(value, 0) for name, value in words.items()})

    def discovery_and_set_ip(self):
        found = rows(self.capture, is_command(1, 2, 3))
        self.assertEqual([row["kelo.command"] for row in found], ["1", "2", "3", "1", "2"])
        self.assertEqual(found[1]["kelo.description"], "Capture camera")
        self.assertEqual(found[1]["kelo.camera_ip"], "127.0.0.11")
        self.assertEqual(found[1]["kelo.camera_subnet"], "255.0.0.0")
        self.assertEqual(found[1]["kelo.link_speed"], "1000")
        self.assertEqual(found[2]["kelo.camera_ip"], "127.0.0.11")
        self.assertEqual(found[2]["kelo.new_ip"], "127.0.0.21")
        self.assertEqual(found[4]["kelo.camera_ip"], "127.0.0.21")

    def registers(self):
        requests = rows(self.capture, is_command(4, 6))
        replies = rows(self.capture, is_command(5, 7))
        self.assertGreater(len(requests), 20)
        self.assertEqual([row["kelo.reply_in"] for row in requests],
                         [row["frame.number"] for row in replies])
        self.assertEqual([row["frame.number"] for row in requests],
                         [row["kelo.request_in"] for row in replies])
        by_register = {row["kelo.register"]: row for row in replies}
        self.assertEqual(by_register["25"]["kelo.value"], "5000")
        refused = {row["kelo.register"]: row["kelo.status"] for row in replies
                   if row["kelo.status"] != "1"}
        self.assertEqual(refused, {"9999": "3", "0": "2"})
        shown = tshark(self.capture, "-Y", "kelo")
        for text in ("Read REG_DEVICETEMPERATURE (64)", "Write REG_EXPOSURETIME (25) = 5000",
                     "Read register (9999): VCS_OUT_OF_RANGE", "Written REG_SENSORWIDTH (0): VCS_ERROR",
                     "Read REG_STREAM1_OPTIONS (276) = 1", "Write REG_CAMERA_USED (323) = 1"):
            self.assertIn(text, shown)

    def memory(self):
        found = rows(self.capture, is_command(8, 9, 10, 11))
        numbers = [(row["kelo.command"], row["kelo.register"], row["kelo.count"],
                    len(row["kelo.value"].split(";")) if row["kelo.value"] else 0) for row in found]
        self.assertEqual(numbers, [("8", "133", "13", 0), ("9", "133", "13", 13),
                                   ("10", "96", "2", 2), ("11", "96", "2", 0),
                                   ("10", "10000", "4", 4), ("11", "10000", "4", 0),
                                   ("10", "10000", "128", 128), ("11", "10000", "128", 0)])
        self.assertEqual(found[1]["kelo.value"].split(";")[4], str(0x7F00000B))  # its address
        self.assertEqual(found[2]["kelo.value"], "10;20")
        self.assertEqual(int(found[4]["kelo.firmware.command"], 0), 0xFFFFFF00)
        self.assertEqual(int(found[6]["kelo.firmware.offset"], 0), 0)

    def images_over_udp(self):
        found = rows(self.capture, is_udp_image)
        port = [row for row in rows(self.capture, is_command(6))
                if row["kelo.register"] == REG_STREAMPORT]
        counts = {}
        for row in found:
            counts[row["kelo_image.number"]] = counts.get(row["kelo_image.number"], 0) + 1
            self.assertEqual(row["kelo_image.stream"], "0")
            self.assertEqual(row["kelo_image.packets"], "3")
            self.assertEqual((row["kelo_image.width"], row["kelo_image.height"]), ("64", "48"))
            self.assertEqual(row["udp.dstport"], port[0]["kelo.value"])
            size = "156" if row["kelo_image.packet"] == "2" else "1458"
            self.assertEqual(row["kelo_image.length"], size)
        self.assertEqual(counts, UDP_IMAGES)
        self.assertEqual([row["kelo_image.number"] for row in found if row["kelo_image.complete"]],
                         ["1", "3", "4"])
        loss = rows(self.capture, has("kelo_image.missing"))
        self.assertEqual([row["kelo_image.number"] for row in loss], ["3"])
        self.assertIn("Image 2: 2 of 3 packets seen", loss[0]["_ws.expert.message"])

    def images_over_tcp(self):
        found = rows(self.capture, has("kelo_stream.stream"))
        self.assertTrue(found[0]["kelo_stream.opening"])
        self.assertFalse(any(row["kelo_stream.opening"] for row in found[1:]))
        types = ";".join(row["kelo_stream.type"] for row in found[1:]).split(";")
        self.assertEqual(types, ["0", "1"] * len(UDP_IMAGES))
        numbers = [number for row in found for number in row["kelo_image.number"].split(";") if number]
        self.assertEqual(numbers, list(UDP_IMAGES))
        lengths = [size for row in found for size in row["kelo_image.length"].split(";") if size]
        self.assertEqual(lengths, [str(TCP_IMAGE_BYTES)] * len(UDP_IMAGES))
        self.assertEqual({number for row in found for number in row["kelo_stream.stream"].split(";")},
                         {"1"})

    def packet_size_test(self):
        asked = rows(self.capture, has("kelo.test_port"))
        came = rows(self.capture, has("kelo_sizetest.size"))
        self.assertEqual([row["kelo.packet_size"] for row in asked], ["1500", "4074", "4074"])
        self.assertEqual([row["kelo_sizetest.size"] for row in came], ["1500"])
        self.assertEqual(came[0]["udp.dstport"], asked[0]["kelo.test_port"])

    def nothing_wrong(self):
        self.assert_sound(tshark(self.capture, "-V"))
        self.assertEqual(rows(self.capture, has("kelo.short", "kelo_image.short", "kelo_stream.short",
                                                "kelo.cut", "kelo_stream.bad_magic",
                                                "kelo_image.bad_packet")), [])
        self.assertEqual(rows(self.capture, lambda row: row["udp.dstport"]
                              and "kelo" not in row["frame.protocols"]), [])

    def preferences(self):
        """A capture without the beginning: the ports are given by hand."""
        ports = rows(self.capture, is_udp_image)[0]["udp.dstport"]
        tcp = rows(self.capture, has("kelo_stream.opening"))[0]["tcp.dstport"]
        later = pathlib.Path(self.folder, "later.pcap")
        subprocess.run(["tshark", "-n", "-r", self.capture, "-Y", "udp.dstport == " + ports +
                        " || tcp.port == " + tcp, "-F", "pcap", "-w", later], check=True,
                       capture_output=True, timeout=60)
        self.assertEqual(rows(later, has("kelo_image.number", "kelo_stream.stream")), [])
        given = tshark(later, "-o", f"kelo.image_ports:{ports}", "-o", f"kelo.tcp_ports:{tcp}")
        self.assertEqual(len(re.findall("KELO image", given)), sum(UDP_IMAGES.values()))
        self.assertEqual(len(re.findall("Stream 1, image", given)), len(UDP_IMAGES))
        decoded = tshark(later, "-d", f"udp.port=={ports},kelo_image")
        self.assertEqual(len(re.findall("KELO image", decoded)), sum(UDP_IMAGES.values()))

    def assert_sound(self, shown):
        """The full text is long: what is wrong with it is told with the lines before it."""
        lines = shown.splitlines()
        wrong = [number for number, line in enumerate(lines)
                 if "Lua Error" in line or "Malformed" in line]
        if wrong:
            self.fail("\n".join(lines[max(0, wrong[0] - 20):wrong[0] + 1]))

    def assert_cut_is_seen(self, shown):
        self.assert_sound(shown)
        self.assertEqual([line for line in shown.splitlines() if "Shorter than" in line], [])
        self.assertTrue("The capture cuts this packet off" in shown)

    def cut_packets(self):
        """Every packet of the session, cut off where a header or a field ends, and within one."""
        frames = read_capture(self.capture)
        cut = pathlib.Path(self.folder, "cut.pcap")
        sizes = (42, 43, 50, 56, 60, 61, 64, 70, 90, 100, 200, 570)
        write_capture(cut, [(frame[:size], len(frame)) for size in sizes for frame in frames])
        self.assert_cut_is_seen(tshark(cut, "-V"))

    def cut_by_editcap(self):
        cut = pathlib.Path(self.folder, "cut.pcap")
        subprocess.run(["editcap", "-F", "pcap", "-s", "90", self.capture, cut], check=True,
                       capture_output=True, timeout=60)
        shown = tshark(cut, "-V")
        self.assert_cut_is_seen(shown)
        self.assertTrue("The capture cuts this message off" in shown)
        self.assertEqual(len(rows(cut, has("kelo.command"))),
                         len(rows(self.capture, has("kelo.command"))))

    def hostile_packets(self):
        chance = random.Random(42)
        frames = []
        for command in range(14):
            body = control(command, chance.randbytes(560))
            frames += [udp_packet(40000, 6061, body[:size]) for size in (*range(1, 90), 574)]
        frames += [udp_packet(40000, 6061, b"\xAB" + chance.randbytes(chance.randrange(600)))
                   for _ in range(200)]
        learn = struct.pack(">II", 257 * 4, 50010)
        frames.append(udp_packet(40000, 6061, control(6, learn)))
        frames += [udp_packet(40001, 50010, b"\xAC" + chance.randbytes(size)) for size in range(60)]
        hostile = pathlib.Path(self.folder, "hostile.pcap")
        write_capture(hostile, [(frame, len(frame)) for frame in frames])
        shown = tshark(hostile, "-V")
        self.assert_sound(shown)
        for text in ("Shorter than its record", "Shorter than an image header", "Unknown command",
                     "More registers than a transfer may have", "The camera refuses",
                     "Packet number beyond the image's end"):
            self.assertTrue(text in shown, text)

    def fresh_capture(self):
        """What the committed capture holds is what library and simulator still do."""
        fresh = pathlib.Path(self.folder, "fresh.pcap")
        subprocess.run([ROOT / "tools/wireshark/make_capture.py", BUILD, fresh], check=True,
                       timeout=100)
        self.assertEqual(story(fresh), story(self.capture))

    def run(self, result=None):
        with tempfile.TemporaryDirectory() as self.folder:
            self.capture = str(ROOT / "tests/data/wireshark/session.pcap")
            return super().run(result)


if __name__ == "__main__":
    ROOT = pathlib.Path(sys.argv[1])
    BUILD = pathlib.Path(sys.argv[2])
    SCRIPT = ROOT / "tools/wireshark/kelo.lua"
    cases = sys.argv[3:]
    if shutil.which("tshark") is None and cases != ["names"]:
        print("skipped: tshark is not installed")
        sys.exit(SKIPPED)
    outcome = unittest.TextTestRunner(verbosity=2).run(unittest.TestSuite(map(Dissector, cases)))
    sys.exit(0 if outcome.wasSuccessful() and outcome.testsRun == len(cases) > 0 else 1)
