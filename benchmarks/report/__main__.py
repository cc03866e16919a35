"""Puts the files of the benchmark programs together, compares them with the baseline, and draws.

    python3 benchmarks/report FOLDER [--baseline FILE] [--plots FOLDER] [--document FILE]
        [--new-baseline FILE]

FOLDER holds what the programs wrote with --json; results.json and table.md are added to it. In the
document, the machine and the table of targets replace what stands between the two marks.
"""

import argparse
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent))

BEGIN_MARK = "<!-- figures: written by scripts/bench -->\n"
END_MARK = "<!-- end of figures -->\n"

import machine  # noqa: E402
import plots  # noqa: E402
import tables  # noqa: E402
from results import Results  # noqa: E402


def update(document, text):
    before, _, rest = document.read_text().partition(BEGIN_MARK)
    _, _, after = rest.partition(END_MARK)
    document.write_text(f"{before}{BEGIN_MARK}{text}\n{END_MARK}{after}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--baseline", type=pathlib.Path)
    parser.add_argument("--plots", type=pathlib.Path)
    parser.add_argument("--document", type=pathlib.Path)
    parser.add_argument("--new-baseline", type=pathlib.Path)
    options = parser.parse_args()

    results = Results.gather(options.folder, machine.describe())
    results.save(options.folder / "results.json")
    has_baseline = options.baseline is not None and options.baseline.exists()
    baseline = Results.load(options.baseline) if has_baseline else None

    table = "\n\n".join([
        tables.machine_line(results.data["machine"]),
        tables.target_table(results, baseline),
        *(tables.row_table(results, row) for row in results.rows),
    ])
    (options.folder / "table.md").write_text(table + "\n")
    print(table)
    if options.document:
        update(options.document, "\n\n".join([
            tables.machine_line(results.data["machine"]), tables.target_table(results, None),
            tables.camera_table(results)]))
    if options.new_baseline:
        results.save_baseline(options.new_baseline)
    if options.plots:
        plots.draw_all(results, options.plots)


if __name__ == "__main__":
    main()
