"""What the library has to reach, each as a ratio within one run or a count, never as a speed."""

from dataclasses import dataclass
from typing import Callable

RECEIVING_THREAD = "thread_ns_per_packet"


@dataclass(frozen=True)
class Target:
    work: str
    what: str
    measured: Callable  # of the results; a Spread, or None where it was not measured
    limit: float
    at_least: bool = False
    every_round: bool = False  # the worst round counts, not the median
    digits: int = 2

    def reached(self, spread):
        if self.every_round:
            value = spread.lowest if self.at_least else spread.highest
        else:
            value = spread.median
        return value >= self.limit if self.at_least else value <= self.limit

    def limit_text(self):
        sign = "≥" if self.at_least else "≤"
        return f"{sign} {self.limit:g}" if self.limit else "0"


def _ratio(work, what, row, pair, limit, column=RECEIVING_THREAD, **more):
    return Target(work, what, lambda r: r.ratio(row, pair, column), limit, **more)


def _count(work, what, row, column, limit=0, **more):
    return Target(work, what, lambda r: r.value(row, "library", column), limit,
                  every_round=True, **more)


def _speed_up(work, what, ours, floor, limit):
    return Target(work, what, lambda r: r.speed_up(ours, floor), limit, at_least=True)


def _blast_1500_merged():
    row, work = "blast-1500-merged", "full blast, 1500-byte packets, merged by the kernel"
    return [
        _ratio(work, "CPU / plain", row, "library/plain", 0.15, digits=3),
        _ratio(work, "packets per second / plain", row, "library/plain", 4.5, "packets_per_s",
               at_least=True),
        _ratio(work, "CPU / drop", row, "library/drop", 0.55),
    ]


def _other_blasts():
    return [
        _ratio("full blast, 1500, not merged", "CPU / plain", "blast-1500-unmerged",
               "library/plain", 0.38),
        _ratio("full blast, 1500, not merged", "CPU / drop", "blast-1500-unmerged",
               "library/drop", 1.25),
        _ratio("full blast, 9000, not merged", "CPU / plain", "blast-9000-unmerged",
               "library/plain", 0.48),
        _ratio("full blast, 9000, merged", "CPU / drop", "blast-9000-merged", "library/drop",
               0.95),
    ]


def _paced():
    rows = [
        ("125 MB/s, 1500, one by one", "paced-125-1500", 0.40),
        ("1.25 GB/s, 9000, one by one", "paced-1250-9000", 0.50),
        ("1.25 GB/s, 1500, bursts of 8", "paced-1250-1500-burst8", 0.40),
    ]
    for work, row, limit in rows:
        yield _ratio(work, "CPU / plain", row, "library/plain", limit)
        yield _count(work, "packets lost", row, "packets_lost", digits=0)


def _latency():
    work = "last datagram sent until the image is delivered"
    blocking = "library/blocking"
    return [
        _ratio(work, "125 MB/s, 1500: p50 / blocking", "paced-125-1500", blocking, 1.25,
               "latency_p50_us"),
        _ratio(work, "125 MB/s, 1500: p99 / blocking", "paced-125-1500", blocking, 2,
               "latency_p99_us"),
        _ratio(work, "1.25 GB/s, 9000: p50 / blocking", "paced-1250-9000", blocking, 2,
               "latency_p50_us"),
        _ratio(work, "1.25 GB/s, 1500, bursts: p50 / blocking", "paced-1250-1500-burst8", blocking,
               2, "latency_p50_us"),
    ]


def _without_loss():
    yield _ratio("whole cost of the receiving host on one core (veth), 1500, full blast",
                 "packets per second / plain", "veth-1500-blast", "library/plain", 4,
                 "packets_per_s", at_least=True)
    for packet in ("1500", "9000"):
        yield Target(f"highest rate without a lost packet, {packet}", "rate / best bare loop",
                     lambda r, row=f"max-rate-{packet}": r.rate_ratio(row), 0.9, at_least=True)
    for stall, rate in (("20ms", "125"), ("4ms", "1000")):
        for packet in ("1500", "9000"):
            yield _count(f"stalls of {stall[:-2]} ms at {rate} MB/s, {packet}", "packets lost",
                         f"stall-{stall}-{rate}-{packet}", "packets_lost", digits=0)
    for packet in ("1500", "9000"):
        yield _count(f"20 starts of a stream at 1 GB/s, {packet}", "images lost",
                     f"start-{packet}", "images_lost", digits=0)
    for packet in ("1500", "9000"):
        yield _count(f"4 cameras, 640×480, 1000 images/s each, {packet}", "packets lost",
                     f"cameras-640x480-{packet}", "packets_lost", digits=0)


def _steady_state():
    for packet in ("9000", "1500"):
        row = f"reassemble in order, packets of {packet}"
        yield Target("images in steady state", f"time / copy of the payloads, {packet}",
                     lambda r, row=row: r.speed_up(f"{row}/copy alone", f"{row}/library"), 1.05)
    yield from [
        _count("images in steady state", "page faults per image", "memory",
               "late_faults_per_image", digits=3),
        _count("memory in steady state", "MiB beyond the images in flight", "memory",
               "peak_beyond_frames_mib", 2, digits=1),
    ]


def _tcp():
    for work, row in (("TCP, full blast", "tcp-blast"), ("TCP, 1.25 GB/s", "tcp-1250")):
        yield _ratio(work, "rate / iperf-like reader", row, "library/iperf-like", 0.95,
                     "received_mb_per_s", at_least=True)
        yield _ratio(work, "CPU / iperf-like reader", row, "library/iperf-like", 1.15,
                     "thread_s_per_gb")


def _control():
    return [
        Target("register read", "p50 / bare ping-pong",
               lambda r: r.round_trip("register read", "p50_us"), 1.4),
        Target("register read", "p99 / bare ping-pong",
               lambda r: r.round_trip("register read", "p99_us"), 1.6),
    ]


def _pieces():
    limits = [("laser line", "avx2", 1.0), ("binary blobs", "avx2", 1.0), ("grey noise", "avx2", 18),
              ("grey noise", "sse2", 11), ("uniform bytes", "avx2", 5)]
    for data, ours, limit in limits:
        yield _speed_up("run-length decoding", f"{data}, {ours.upper()} / plain loop",
                        f"decode {data}/{ours}", f"decode {data}/plain loop", limit)
    yield _speed_up("CRC-32", "speed / one table", "crc-32 of 1 MiB, library",
                    "crc-32 of 1 MiB, one table", 4)


def all_targets():
    return [*_blast_1500_merged(), *_other_blasts(), *_paced(), *_latency(), *_without_loss(),
            *_steady_state(), *_tcp(), *_control(), *_pieces()]
