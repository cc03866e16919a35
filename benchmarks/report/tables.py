"""The figures as Markdown."""

from targets import all_targets


def _table(head, lines):
    yield "| " + " | ".join(head) + " |"
    yield "|" + "---|" * len(head)
    for line in lines:
        yield "| " + " | ".join(line) + " |"


def machine_line(machine):
    return "; ".join(f"{key}: {value}" for key, value in machine.items())


def target_table(results, baseline):
    """One line per target: what was wanted, what was reached, and what the baseline reached."""
    head = ["work", "figure", "wanted", "measured", "reached"]
    lines = []
    for target in all_targets():
        spread = target.measured(results)
        lines.append([
            target.work, target.what, target.limit_text(),
            spread.text(target.digits) if spread else "not measured",
            "–" if spread is None else "yes" if target.reached(spread) else "**no**",
        ])
        if baseline:
            before = target.measured(baseline)
            lines[-1].append(before.text(target.digits) if before else "–")
    return "\n".join(_table(head + (["baseline"] if baseline else []), lines))


MANY_CAMERAS = [("many-1", "1 camera, 1.25 GB/s, 4 MiB images, 9000-byte packets"),
                ("many-4", "4 cameras, 1.25 GB/s together"),
                ("many-16", "16 cameras, 1.25 GB/s together"),
                ("cameras-640x480-1500", "4 cameras, 1000 images of 640×480 a second each, 1500"),
                ("cameras-640x480-9000", "the same in packets of 9000")]


def camera_table(results):
    """Several cameras at once, for which there is no target but that nothing is lost."""
    lines = []
    for row, work in MANY_CAMERAS:
        cells = [results.value(row, "library", "thread_ns_per_packet"),
                 results.ratio(row, "library/plain", "thread_ns_per_packet"),
                 results.ratio(row, "library/floor", "thread_ns_per_packet"),
                 results.value(row, "library", "packets_lost")]
        if any(cells):
            lines.append([work] + [cell.text(digits) if cell else "–"
                                   for cell, digits in zip(cells, (0, 2, 2, 0))])
    return "\n".join(_table(["cameras", "CPU per packet, ns", "CPU / plain", "CPU / floor",
                             "packets lost"], lines))


def row_table(results, row):
    """All columns of an end-to-end row, a column of the table per variant."""
    data = results.rows[row]
    variants = list(data.get("variants", {}))
    columns = list(dict.fromkeys(c for v in variants for c in data["variants"][v]))
    lines = []
    for column in columns:
        cells = [results.value(row, variant, column) if isinstance(
            data["variants"][variant].get(column), dict) else None for variant in variants]
        if any(cells):
            lines.append([column] + [_number(cell) for cell in cells])
    return "\n".join(_table([row] + variants, lines))


def _number(spread):
    if spread is None:
        return ""
    digits = 0 if abs(spread.median) >= 1000 else 1 if abs(spread.median) >= 10 else 3
    return spread.text(digits)
