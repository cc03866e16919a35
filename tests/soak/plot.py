"""Draws the samples of a long run: python3 tests/soak/plot.py SOAK.CSV SOAK.PNG"""

import csv
import sys

import matplotlib

matplotlib.use("agg")
import matplotlib.pyplot as plt  # noqa: E402  (the backend is chosen before)

matplotlib.rcParams["font.size"] = 9

REST = {"marker": ".", "markersize": 4, "linewidth": 1, "color": "#4c72b0", "label": "at rest"}
BUSY = {"linewidth": 0.5, "color": "#c8c8c8", "label": "each second"}


def read(path):
    with open(path, newline="", encoding="ascii") as file:
        rows = [{key: float(value) for key, value in row.items()} for row in csv.DictReader(file)]
    busy = [row for row in rows if row["at_rest"] == 0]
    rest = [row for row in rows if row["at_rest"] == 1]
    if not busy or not rest:
        sys.exit(f"error: {path} holds no samples")
    return busy, rest


def column(rows, name, scale=1.0):
    return [row[name] * scale for row in rows]


def held(axes, busy, rest, name, title, scale=1.0):
    for rows, style in ((busy, BUSY), (rest, REST)):
        axes.plot(column(rows, "seconds", 1 / 60), column(rows, name, scale), **style)
    axes.set_title(title, loc="left")
    axes.set_ylim(bottom=0)


# A line of the file covers what happened since the one before; without a read or a wait it has none.
def latency(axes, rows, prefix, title):
    rows = [row for row in rows if row[f"{prefix}_max_us"] > 0]
    for part, colour in (("p50", "#55a868"), ("p99", "#dd8452"), ("max", "#c44e52")):
        axes.plot(column(rows, "seconds", 1 / 60), column(rows, f"{prefix}_{part}_us", 1e-3), ".",
                  markersize=2, color=colour, label=part)
    axes.set_yscale("log")
    axes.set_title(title, loc="left")


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: plot.py SOAK.CSV SOAK.PNG")
    busy, rest = read(sys.argv[1])
    figure, axes = plt.subplots(3, 2, figsize=(10, 8), sharex=True)
    held(axes[0][0], busy, rest, "resident_kb", "resident memory, MB", 1 / 1024)
    held(axes[0][1], busy, rest, "heap_kb", "heap in use, MB", 1 / 1024)
    held(axes[1][0], busy, rest, "descriptors", "descriptors")
    held(axes[1][1], busy, rest, "threads", "threads")
    latency(axes[2][0], busy + rest, "read", "register reads, ms")
    latency(axes[2][1], busy + rest, "wait", "waits for an image, ms")
    for cell in axes.flat:
        cell.spines[["top", "right"]].set_visible(False)
        cell.legend(frameon=False, ncols=3, fontsize=8)
    for cell in axes[2]:
        cell.set_xlabel("minutes")
    figure.tight_layout()
    figure.savefig(sys.argv[2], dpi=110, metadata={"Software": None})


if __name__ == "__main__":
    main()
