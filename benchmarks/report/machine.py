"""The machine that was measured, as far as figures depend on it."""

import os
import pathlib
import platform
import subprocess


def _first_line(command):
    try:
        return subprocess.run(command, capture_output=True, text=True,
                              check=True).stdout.splitlines()[0].strip()
    except (OSError, subprocess.CalledProcessError, IndexError):
        return "unknown"


def _field(file, name):
    for line in pathlib.Path(file).read_text().splitlines():
        key, _, value = line.partition(":")
        if key.strip() == name:
            return value.strip()
    return "unknown"


def describe():
    """A dictionary of short texts."""
    return {
        "processor": _field("/proc/cpuinfo", "model name"),
        "cores": str(os.cpu_count()),
        "virtual": "yes" if "hypervisor" in _field("/proc/cpuinfo", "flags").split() else "no",
        "memory": _field("/proc/meminfo", "MemTotal"),
        "kernel": platform.release(),
        "compiler": _first_line([os.environ.get("CXX", "g++"), "--version"]),
        "receive buffer limit": pathlib.Path("/proc/sys/net/core/rmem_max").read_text().strip(),
        "run as root": "yes" if os.geteuid() == 0 else "no",
        "commit": _first_line(["git", "describe", "--always", "--dirty"]),
    }
