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
