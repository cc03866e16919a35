"""What a run of the benchmarks left behind, and questions that can be put to it."""

import json
import math
import pathlib
from dataclasses import dataclass


@dataclass(frozen=True)
class Spread:
    """A figure over the rounds of a run."""

    median: float
    lowest: float
    highest: float

    @staticmethod
    def of(values):
        ordered = sorted(values)
        middle = ordered[(len(ordered) - 1) // 2]
        return Spread(middle, ordered[0], ordered[-1])

    @staticmethod
    def single(value):
        return Spread(value, value, value)

    def text(self, digits):
        if self.lowest == self.highest:
            return f"{self.median:.{digits}f}"
        return f"{self.median:.{digits}f} ({self.lowest:.{digits}f} to {self.highest:.{digits}f})"


class Results:
    """The files of the three programs, as one. A question whose answer was not measured gives None."""

    def __init__(self, data):
        self.data = data
        self._rows = {row["name"]: row for row in data.get("end_to_end", {}).get("rows", [])}

    @staticmethod
    def gather(folder, machine):
        """From the files that the programs wrote into the folder."""
        data = {"machine": machine}
        for name in ("end_to_end", "round_trip", "micro"):
            file = pathlib.Path(folder) / f"{name}.json"
            if file.exists():
                data[name] = json.loads(file.read_text())
        return Results(data)

    @staticmethod
    def load(file):
        return Results(json.loads(pathlib.Path(file).read_text()))

    def save(self, file):
        pathlib.Path(file).write_text(json.dumps(self.data, indent=1) + "\n")

    def save_baseline(self, file):
        """Without the single rounds, which nobody compares."""
        kept = ("run_type", "run_name", "repetition_index", "cpu_time")
        data = _without_rounds(self.data)
        data.get("micro", {})["benchmarks"] = [
            {key: entry[key] for key in kept} for entry in data.get("micro", {}).get(
                "benchmarks", []) if entry.get("run_type") == "iteration"]
        pathlib.Path(file).write_text(json.dumps(data, indent=0) + "\n")

    @property
    def rows(self):
        return self._rows

    def value(self, row, variant, column):
        """A column of a variant of an end-to-end row."""
        return _spread(self._rows.get(row, {}).get("variants", {}).get(variant, {}).get(column))

    def ratio(self, row, pair, column):
        """The ratio of two variants, formed within each round; pair is for example library/plain."""
        return _spread(self._rows.get(row, {}).get("ratios", {}).get(pair, {}).get(column))

    def rate_ratio(self, row):
        """The library's highest rate without loss, beside the best of the others."""
        variants = self._rows.get(row, {}).get("variants", {})
        rates = {name: v["lossless_mb_per_s"]["median"] for name, v in variants.items()
                 if v.get("lossless_mb_per_s")}
        others = [rate for name, rate in rates.items() if name not in ("library", "drop")]
        if "library" not in rates or not others:
            return None
        return Spread.single(rates["library"] / max(others))

    def round_trip(self, request, column):
        """Library beside bare, for example of "register read" and "p50_us"."""
        for row in self.data.get("round_trip", {}).get("rows", []):
            if row["name"] == request:
                return _spread(row.get("ratios", {}).get("library/bare", {}).get(column))
        return None

    def micro_times(self, name):
        """Processor time of each repetition of a micro benchmark, in nanoseconds."""
        return [entry["cpu_time"] for entry in self.data.get("micro", {}).get("benchmarks", [])
                if entry.get("run_type") == "iteration" and entry["run_name"] == name]

    def speed_up(self, ours, floor):
        """How many times as fast one micro benchmark is as another, repetition by repetition."""
        pairs = list(zip(self.micro_times(ours), self.micro_times(floor)))
        if not pairs:
            return None
        return Spread.of([theirs / mine for mine, theirs in pairs])


def _without_rounds(data):
    if isinstance(data, dict):
        return {key: _without_rounds(value) for key, value in data.items() if key != "rounds"}
    if isinstance(data, list):
        return [_without_rounds(value) for value in data]
    return round(data, 4) if isinstance(data, float) else data


def _spread(entry):
    if not entry or entry.get("median") is None or math.isnan(entry["median"]):
        return None
    return Spread(entry["median"], entry["lowest"], entry["highest"])
