#!/usr/bin/python3
"""Shows that check_layers.py accepts what it should and sees each kind of violation."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "check_layers.py"
LIBRARY = "src/KELOAPI"
# One header per layer, each without includes; tests add their own files to these.
SOUND = {
    "common/kelo_types.h": "",
    f"{LIBRARY}/base/utils.h": '#include "kelo_types.h"\n#include <vector>\n',
    f"{LIBRARY}/protocol/kelo_protocol.h": '#include "utils.h"\n',
    f"{LIBRARY}/net/UDPSocket.h": '#include "utils.h"\n',
    f"{LIBRARY}/stream/Receiver.h": '#include "UDPSocket.h"\n#include "kelo_protocol.h"\n',
    f"{LIBRARY}/firmware/client.h": '#include "kelo_types.h"\n',
    f"{LIBRARY}/camera/camera.h": '#include "client.h"\n#include "Receiver.h"\n',
    f"{LIBRARY}/manager/manager.h": '#include "camera.h"\n',
    f"{LIBRARY}/kelo_api.cpp": '#include "manager.h"\n#include "camera/camera.h"\n',
    "simulator/simulated_camera.h": "",
    "tests/support/wait_for.h": "",
}


class CheckLayersTest(unittest.TestCase):
    def check(self, files):
        """Runs the script over a tree of SOUND and these files: its status and lines."""
        with tempfile.TemporaryDirectory() as root:
            for name, text in (SOUND | files).items():
                path = pathlib.Path(root, name)
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text, encoding="utf-8")
            run = subprocess.run([sys.executable, SCRIPT, root], capture_output=True, text=True,
                                 check=False)
        return run.returncode, run.stdout.splitlines()

    def assert_sound(self, files):
        self.assertEqual((0, []), self.check(files))

    def assert_violation(self, files, *expected):
        status, lines = self.check(files)
        self.assertEqual(1, status)
        self.assertEqual(list(expected), lines)

    def test_includes_that_point_downwards_are_accepted(self):
        self.assert_sound({})

    def test_includes_within_a_layer_are_accepted(self):
        self.assert_sound({f"{LIBRARY}/net/NetworkInterfaces.h": '#include "UDPSocket.h"\n'})

    def test_camera_and_manager_may_include_each_other(self):
        self.assert_sound({f"{LIBRARY}/camera/other.cpp": '#include "manager.h"\n'})

    def test_upward_includes_are_violations(self):
        for layer, header, target in (
            ("base", "UDPSocket.h", "net"),
            ("net", "Receiver.h", "stream"),
            ("protocol", "client.h", "firmware"),
            ("stream", "manager.h", "manager"),
            ("firmware", "camera.h", "camera"),
        ):
            with self.subTest(layer=layer):
                self.assert_violation(
                    {f"{LIBRARY}/{layer}/wrong.cpp": f'\n#include <string>\n#include "{header}"\n'},
                    f"{LIBRARY}/{layer}/wrong.cpp:3: {layer} includes "
                    f"{LIBRARY}/{target}/{header}, but {target} is not below {layer}")

    def test_common_may_not_include_the_library(self):
        self.assert_violation(
            {"common/wrong.h": '#include "utils.h"\n'},
            f"common/wrong.h:1: common includes {LIBRARY}/base/utils.h, but base is not below common")

    def test_nothing_may_include_the_api(self):
        self.assert_violation(
            {f"{LIBRARY}/kelo_api.h": "", f"{LIBRARY}/manager/wrong.cpp": '#include "kelo_api.h"\n'},
            f"{LIBRARY}/manager/wrong.cpp:1: manager includes {LIBRARY}/kelo_api.h, "
            "but api is not below manager")

    def test_layers_of_one_rank_may_not_include_each_other(self):
        self.assert_violation(
            {f"{LIBRARY}/net/wrong.cpp": '#include "kelo_protocol.h"\n',
             f"{LIBRARY}/stream/wrong.cpp": '#include "client.h"\n'},
            f"{LIBRARY}/net/wrong.cpp:1: net includes {LIBRARY}/protocol/kelo_protocol.h, "
            "but protocol is not below net",
            f"{LIBRARY}/stream/wrong.cpp:1: stream includes {LIBRARY}/firmware/client.h, "
            "but firmware is not below stream")

    def test_simulator_and_tests_are_out_of_reach(self):
        self.assert_violation(
            {f"{LIBRARY}/camera/wrong.cpp":
                '#include "simulated_camera.h"\n#include "../../../tests/support/wait_for.h"\n'},
            f"{LIBRARY}/camera/wrong.cpp:1: camera includes simulator/simulated_camera.h, "
            "which is outside of the library",
            f"{LIBRARY}/camera/wrong.cpp:2: camera includes tests/support/wait_for.h, "
            "which is outside of the library")

    def test_paths_and_angle_brackets_hide_nothing(self):
        wrong = "includes src/KELOAPI/stream/Receiver.h, but stream is not below base"
        self.assert_violation(
            {f"{LIBRARY}/base/wrong.cpp": '#include "../stream/Receiver.h"\n'
                                          "  #  include <stream/Receiver.h>\n"},
            f"{LIBRARY}/base/wrong.cpp:1: base {wrong}",
            f"{LIBRARY}/base/wrong.cpp:2: base {wrong}")

    def test_comments_are_not_includes(self):
        self.assert_sound({f"{LIBRARY}/base/fine.h": '// #include "manager.h"\n/*\n'
                                                     '#include "manager.h"\n*/\n'})

    def test_lines_behind_a_comment_keep_their_numbers(self):
        self.assert_violation(
            {f"{LIBRARY}/base/wrong.h": '/* one\n   two */\n#include "manager.h"\n'},
            f"{LIBRARY}/base/wrong.h:3: base includes {LIBRARY}/manager/manager.h, "
            "but manager is not below base")

    def test_unknown_headers_are_violations(self):
        self.assert_violation({f"{LIBRARY}/base/wrong.h": '#include "nowhere.h"\n'},
                              f'{LIBRARY}/base/wrong.h:1: "nowhere.h" is no file of this tree')

    def test_generated_headers_are_known(self):
        self.assert_sound({"cmake/build_info.h.in": "",
                           f"{LIBRARY}/library.cpp": '#include "build_info.h"\n'})

    def test_ambiguous_names_are_violations(self):
        self.assert_violation(
            {f"{LIBRARY}/net/utils.h": "", f"{LIBRARY}/stream/wrong.h": '#include "utils.h"\n'},
            f'{LIBRARY}/protocol/kelo_protocol.h:1: "utils.h" is ambiguous: '
            f"{LIBRARY}/base/utils.h, {LIBRARY}/net/utils.h",
            f'{LIBRARY}/stream/wrong.h:1: "utils.h" is ambiguous: '
            f"{LIBRARY}/base/utils.h, {LIBRARY}/net/utils.h")

    def test_folders_that_are_no_layer_are_violations(self):
        self.assert_violation({f"{LIBRARY}/helpers/new.h": ""},
                              f"{LIBRARY}/helpers/new.h:1: helpers is not a known layer")

    def test_a_place_without_the_library_is_an_error(self):
        with tempfile.TemporaryDirectory() as root:
            run = subprocess.run([sys.executable, SCRIPT, root], capture_output=True, text=True,
                                 check=False)
        self.assertEqual(1, run.returncode)
        self.assertIn("there is no library here", run.stderr)


if __name__ == "__main__":
    unittest.main()
