"""The pictures of docs/performance.md."""

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402  (the backend is chosen before)

# The same file from the same figures.
matplotlib.rcParams["svg.hashsalt"] = "kelo"
matplotlib.rcParams["font.size"] = 9

# Variants of a row keep their colours in all pictures.
COLOURS = {"plain": "#c44e52", "blocking": "#dd8452", "drop": "#8c8c8c", "floor": "#55a868",
           "moderated": "#937860", "library": "#4c72b0", "iperf-like": "#8172b3"}

RECEPTION = [("blast-1500-merged", "full blast\n1500, merged"),
             ("blast-1500-unmerged", "full blast\n1500"),
             ("blast-9000-merged", "full blast\n9000, merged"),
             ("blast-9000-unmerged", "full blast\n9000"),
             ("paced-125-1500", "125 MB/s\n1500"),
             ("paced-1250-9000", "1.25 GB/s\n9000"),
             ("paced-1250-1500-burst8", "1.25 GB/s\n1500, by 8")]


def _bar(axes, x, width, spread, variant):
    axes.bar(x, spread.median, width, color=COLOURS[variant], label=variant,
             yerr=_below_and_above(spread), error_kw={"linewidth": 0.6})


# Where the axis is logarithmic: a bar would have no length there.
def _point(axes, x, _width, spread, variant):
    axes.errorbar(x, spread.median, color=COLOURS[variant], label=variant,
                  yerr=_below_and_above(spread), fmt="o", markersize=5, elinewidth=0.9)


def _below_and_above(spread):
    return [[spread.median - spread.lowest], [spread.highest - spread.median]]


def _compare(axes, results, rows, column, variants, mark=_bar):
    width = 0.8 / len(variants)
    for i, variant in enumerate(variants):
        for x, (row, _) in enumerate(rows):
            spread = results.value(row, variant, column)
            if spread is not None:
                mark(axes, x + (i + 0.5) * width - 0.4, width, spread, variant)
    axes.set_xticks(range(len(rows)), [label for _, label in rows])
    axes.spines[["top", "right"]].set_visible(False)
    # Above the axes: there is always something tall where it would lie inside.
    marks = dict(zip(*reversed(axes.get_legend_handles_labels())))
    axes.legend(marks.values(), marks.keys(), frameon=False, ncols=len(variants),
                loc="lower left", bbox_to_anchor=(0, 1))


def _save(figure, file):
    figure.tight_layout()
    figure.savefig(file, metadata={"Date": None})
    plt.close(figure)


def cost_of_a_packet(results, file):
    figure, axes = plt.subplots(figsize=(9, 3.6))
    _compare(axes, results, RECEPTION, "thread_ns_per_packet",
             ["plain", "blocking", "drop", "floor", "library"])
    axes.set_ylabel("receiving thread, ns per packet")
    _save(figure, file)


def latency(results, file):
    rows = [row for row in RECEPTION if row[0].startswith("paced")]
    figure, both = plt.subplots(1, 2, figsize=(9, 3.2), sharex=True)
    for axes, column, title in zip(both, ("latency_p50_us", "latency_p99_us"), ("p50", "p99")):
        _compare(axes, results, rows, column, ["plain", "blocking", "library"], _point)
        axes.set_yscale("log")
        axes.set_ylabel(f"last datagram to image, {title}, µs")
    _save(figure, file)


def many_cameras(results, file):
    rows = [("many-1", "1 camera"), ("many-4", "4 cameras"), ("many-16", "16 cameras")]
    figure, axes = plt.subplots(figsize=(6, 3))
    _compare(axes, results, rows, "thread_ns_per_packet", ["plain", "floor", "library"])
    axes.set_ylabel("receiving thread, ns per packet")
    _save(figure, file)


def draw_all(results, folder):
    folder.mkdir(parents=True, exist_ok=True)
    cost_of_a_packet(results, folder / "cost-of-a-packet.svg")
    latency(results, folder / "latency.svg")
    many_cameras(results, folder / "many-cameras.svg")
