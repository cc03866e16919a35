#!/usr/bin/python3
"""Compiles kelo.hpp beside the other public headers, in a folder that holds nothing else.

Usage: check_cpp_header.py ROOT STANDARD COMPILER...
"""

import pathlib
import shutil
import subprocess
import sys
import tempfile

PUBLIC = ("src/KELOAPI/kelo.hpp", "src/KELOAPI/kelo_api.h", "common/crc32.h",
          "common/kelo_common_defs.h", "common/kelo_registers.h", "common/kelo_types.h")
WARNINGS = ("-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wold-style-cast", "-Wconversion",
            "-Wcast-qual", "-Wundef", "-Wnon-virtual-dtor", "-Woverloaded-virtual", "-Werror")
# A template is looked at only when it is used.
PROGRAM = """
#include "kelo.hpp"
#include "kelo.hpp"
#if __cplusplus >= 202002L
#include <span>
#endif

enum class Edge : std::uint8_t { kRising, kFalling };

void use(const kelo::CameraInfo& info);
void use(const kelo::CameraInfo& info) {
    kelo::Library library;
    kelo::Camera camera = library.open(info);
    camera.set(kelo::reg::gain.as<float>(), camera.get<float>(REG_GAIN) * 2);
    camera.set(kelo::reg::trigger_activation.as<Edge>(), Edge::kFalling);
    camera.set(kelo::reg::stream(1).options, camera.get(REG_STREAM0_OPTIONS));
    camera.execute(kelo::reg::trigger_software);
    const std::array<std::uint32_t, 2> offsets = {8, 16};
    camera.write_memory(REG_OFFSETX, offsets);
    const kelo::Acquisition acquisition = camera.start();
    std::size_t bytes = 0;
    for (kelo::Image& image : camera.stream(0, std::chrono::seconds(1))) {
        bytes += image.pixels().size();
#if __cplusplus >= 202002L
        const std::span<const std::uint8_t> span = image.data();
        bytes += span.size();
#endif
    }
    kelo::ResilientSession session(library, info.mac);
    if (auto image = session.next(0, std::chrono::milliseconds(10))) bytes += image->data().size();
    if (bytes == 0) throw kelo::Error(kelo::Failure{});
}
"""


def main(root, standard, *compiler):
    with tempfile.TemporaryDirectory() as scratch:
        for header in PUBLIC:
            shutil.copy(pathlib.Path(root, header), scratch)
        source = pathlib.Path(scratch, "program.cpp")
        source.write_text(PROGRAM, encoding="utf-8")
        run = subprocess.run([*compiler, f"-std={standard}", *WARNINGS, "-fsyntax-only", source],
                             capture_output=True, text=True, check=False)
    if run.returncode != 0:
        print(f"kelo.hpp does not compile as {standard}:\n{run.stderr}")
    return run.returncode


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
