#!/usr/bin/python3
"""Compiles the public headers in a folder that holds nothing else.

Usage: check_public_header.py ROOT LANGUAGE STANDARD COMPILER...
"""

import pathlib
import shutil
import subprocess
import sys
import tempfile

PUBLIC = ("src/KELOAPI/kelo_api.h", "common/crc32.h", "common/kelo_common_defs.h",
          "common/kelo_registers.h", "common/kelo_types.h")
WARNINGS = ("-Wall", "-Wextra", "-Wpedantic", "-Werror")
# What a user's program sees: the records' layouts, the constants, the callback.
PROGRAM = """
#include "kelo_api.h"
#include "kelo_api.h"
static KELO_API_STATUS on_close(CAM_HANDLE camera) {
    return camera != 0 ? KELO_STATUS_SUCCESS : KELO_STATUS_NO_RESPONSE;
}
int use(IMAGE_BUFFER_HANDLE image);
int use(IMAGE_BUFFER_HANDLE image) {
    typedef char info_has_118_bytes[sizeof(EXT_CAM_INFO) == 118 ? 1 : -1];
    typedef char stats_have_20_bytes[sizeof(EXT_CAM_STATS) == 20 ? 1 : -1];
    const BufferInfo* info = (const BufferInfo*)image;
    CAM_HANDLE cameras[2];
    uint32_t value = REG_MTU;
    (void)sizeof(info_has_118_bytes);
    (void)sizeof(stats_have_20_bytes);
    return keloDiscover(cameras, 2, 500) + (int)keloOpenCamera(cameras[0], on_close) +
           (int)keloGetRegisterInt(cameras[0], REG_BUS_ACCESS, &value) + (int)info->imageNumber +
           (int)kelo_crc32(0, keloGetImageData(image), 1);
}
"""


def main(root, language, standard, *compiler):
    with tempfile.TemporaryDirectory() as scratch:
        include = pathlib.Path(scratch, "include")
        include.mkdir()
        for header in PUBLIC:
            shutil.copy(pathlib.Path(root, header), include)
        programs = {"the interface": PROGRAM}
        for header in PUBLIC:
            name = pathlib.Path(header).name
            programs[name] = f'#include "{name}"\nint not_empty(void);\n'
        failures = 0
        for name, text in programs.items():
            source = pathlib.Path(scratch, "program")
            source.write_text(text, encoding="utf-8")
            run = subprocess.run([*compiler, "-x", language, f"-std={standard}", *WARNINGS,
                                  "-fsyntax-only", f"-I{include}", source],
                                 capture_output=True, text=True, check=False)
            if run.returncode != 0:
                print(f"{name} does not compile as {standard}:\n{run.stderr}")
                failures += 1
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
