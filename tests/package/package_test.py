#!/usr/bin/python3
"""What users install: package_test.py ROOT [TEST...], after scripts/package.

Consumers outside the tree are built against an installed copy, against the Debian packages, and
with the sources inside their own project. Needs root for unpacking packages.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv.pop(1)).resolve()
BUILD = ROOT / "build/release"
HERE = ROOT / "tests/package"
VERSION = re.search(r"project\(kelobase VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text())[1]
MAJOR = VERSION.split(".")[0]
LIBRARY = f"libkelobase.so.{VERSION}"
PACKAGES = (f"libkelobase{MAJOR}", "libkelobase-dev", "kelo-tools")


def run(*command, **options):
    """Runs a command and gives its standard output; its whole output is in the failure."""
    command = [str(word) for word in command]
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(command)} failed:\n{done.stdout}")
    return done.stdout


class Scratch(unittest.TestCase):
    """A folder for each test, outside the tree."""

    def setUp(self):
        self.scratch = pathlib.Path(tempfile.mkdtemp(prefix="kelo-package-"))
        self.addCleanup(shutil.rmtree, self.scratch)

    def build_consumers(self, how, *options):
        """Configures, builds and runs both consumers by CMake."""
        build = self.scratch / f"consumer-{how}"
        run("cmake", "-G", "Ninja", "-S", HERE / "consumer", "-B", build, f"-DHOW={how}",
            "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", *options)
        run("cmake", "--build", build)
        for program in ("consumer_c", "consumer_cpp"):
            self.assertEqual(run(build / program, cwd=self.scratch), VERSION + "\n")

    def compile_with_pkg_config(self, folder, library_path, **environment):
        """Compiles and runs both consumers with what pkg-config says of the file in the folder."""
        settings = {**os.environ, **environment, "PKG_CONFIG_LIBDIR": str(folder)}
        self.assertEqual(run("pkg-config", "--modversion", "kelobase", env=settings).strip(), VERSION)
        flags = run("pkg-config", "--cflags", "--libs", "kelobase", env=settings).split()
        for compiler, source in (("cc", "consumer.c"), ("c++", "consumer.cpp")):
            program = self.scratch / f"{compiler}-consumer"
            run(compiler, HERE / "consumer" / source, *flags, "-o", program)
            self.assertEqual(run(program, cwd=self.scratch,
                                 env={**os.environ, "LD_LIBRARY_PATH": str(library_path)}), VERSION + "\n")


class Installed(Scratch):
    def setUp(self):
        super().setUp()
        self.prefix = self.scratch / "installed"
        run("cmake", "--install", BUILD, "--prefix", self.prefix)
        self.libraries = next(self.prefix.rglob(LIBRARY)).parent

    def test_is_found_by_cmake(self):
        self.build_consumers("package", f"-DCMAKE_PREFIX_PATH={self.prefix}")

    def test_is_found_by_pkg_config(self):
        self.compile_with_pkg_config(self.libraries / "pkgconfig", self.libraries)

    def test_can_be_moved(self):
        moved = self.scratch / "else where"
        self.prefix.rename(moved)
        self.build_consumers("package", f"-DCMAKE_PREFIX_PATH={moved}")

    def test_another_major_version_is_refused(self):
        source = self.scratch / "CMakeLists.txt"
        source.write_text("cmake_minimum_required(VERSION 3.25)\nproject(p LANGUAGES CXX)\n"
                          f"find_package(kelobase {int(MAJOR) + 1}.0 REQUIRED)\n")
        with self.assertRaisesRegex(AssertionError, "not compatible|compatible with requested version"):
            run("cmake", "-S", self.scratch, "-B", self.scratch / "b",
                f"-DCMAKE_PREFIX_PATH={self.prefix}")

    def test_has_the_links_of_the_library(self):
        self.assertEqual(os.readlink(self.libraries / "libkelobase.so"), f"libkelobase.so.{MAJOR}")
        self.assertEqual(os.readlink(self.libraries / f"libkelobase.so.{MAJOR}"), LIBRARY)

    def test_names_no_folder_of_the_build(self):
        for file in self.prefix.rglob("*"):
            if file.is_file() and not file.is_symlink():
                self.assertNotIn(str(ROOT).encode(), file.read_bytes(), file)

    def test_has_the_commands_and_their_manual_pages(self):
        for command in ("kelo", "kelo-sim"):
            self.assertIn(VERSION, run(self.prefix / "bin" / command, "--version",
                                       env={**os.environ, "LD_LIBRARY_PATH": str(self.libraries)}))
            self.assertTrue((self.prefix / "share/man/man1" / f"{command}.1.gz").is_file(), command)


class InsideAnotherProject(Scratch):
    def test_by_add_subdirectory(self):
        self.build_consumers("subdirectory", f"-DKELOBASE={ROOT}")

    def test_by_fetch_content(self):
        self.build_consumers("fetch", f"-DKELOBASE={ROOT}")


class Packages(Scratch):
    """Debian's packages, unpacked into an empty root beside this system's list of packages."""

    def setUp(self):
        super().setUp()
        self.files = sorted((BUILD / "packages").glob("*.deb"))
        self.root = self.scratch / "root"
        self.admin = self.scratch / "dpkg"
        self.root.mkdir()
        for folder in ("info", "updates", "triggers"):
            (self.admin / folder).mkdir(parents=True)
        # The dependencies are held against what is installed here.
        status = pathlib.Path("/var/lib/dpkg/status").read_text(encoding="utf-8").split("\n\n")
        kept = [entry for entry in status if not re.match(rf"Package: ({'|'.join(PACKAGES)})\n", entry)]
        (self.admin / "status").write_text("\n\n".join(kept), encoding="utf-8")

    def dpkg(self, *arguments):
        # Scripts and triggers would run in a root that has no shell.
        return run("dpkg", f"--instdir={self.root}", f"--admindir={self.admin}", "--no-triggers",
                   "--force-script-chrootless", f"--log={self.scratch}/dpkg.log", *arguments)

    def left(self):
        return sorted(str(p.relative_to(self.root)) for p in self.root.rglob("*") if not p.is_dir())

    def test_have_debian_names(self):
        architecture = run("dpkg", "--print-architecture").strip()
        self.assertEqual(sorted(f.name for f in self.files),
                         sorted(f"{p}_{VERSION}-1_{architecture}.deb" for p in PACKAGES))

    def test_lintian_finds_no_error(self):
        output = run("lintian", "--allow-root", "--fail-on", "error", *self.files)
        self.assertNotRegex(output, r"(?m)^E:")

    def test_install_and_leave_nothing(self):
        self.dpkg("--install", *self.files)
        unpacked = self.left()
        self.assertIn("usr/bin/kelo", unpacked)
        self.assertIn("usr/include/kelo/kelo_api.h", unpacked)
        self.dpkg("--purge", *PACKAGES)
        self.assertEqual(self.left(), [])

    def test_need_each_other(self):
        tools = [file for file in self.files if file.name.startswith("kelo-tools")]
        with self.assertRaisesRegex(AssertionError, f"depends on libkelobase{MAJOR}"):
            self.dpkg("--install", *tools)

    def test_serve_a_consumer(self):
        self.dpkg("--install", *self.files)
        libraries = next(self.root.rglob(LIBRARY)).parent
        self.compile_with_pkg_config(libraries / "pkgconfig", libraries)
        self.build_consumers("package", f"-DCMAKE_PREFIX_PATH={self.root}/usr")
        self.assertIn(VERSION, run(self.root / "usr/bin/kelo", "--version",
                                   env={**os.environ, "LD_LIBRARY_PATH": str(libraries)}))


class Reproducible(Scratch):
    def test_the_library_is_the_same_from_another_folder(self):
        """A second build, of a copy of the tree, without a compiler cache."""
        copy = self.scratch / "a/longer/path/to the/sources"
        for name in run("git", "-C", ROOT, "ls-files").splitlines():
            (copy / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(ROOT / name, copy / name)
        git = run("git", "-C", ROOT, "rev-parse", "--absolute-git-dir").strip()
        (copy / ".git").write_text(f"gitdir: {git}\n", encoding="utf-8")
        build = self.scratch / "build"
        run("cmake", "-G", "Ninja", "-S", copy, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
            "-DKELO_BUILD_TESTS=OFF", "-DKELO_BUILD_EXAMPLES=OFF",
            env={k: v for k, v in os.environ.items() if "COMPILER_LAUNCHER" not in k})
        run("cmake", "--build", build, "--target", "kelobase")
        first, second = ((folder / "src/KELOAPI" / LIBRARY).read_bytes() for folder in (BUILD, build))
        # A difference shown byte by byte would help nobody.
        self.assertTrue(first == second, "the two libraries differ")


if __name__ == "__main__":
    unittest.main(verbosity=2)
