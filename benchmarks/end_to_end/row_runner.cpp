#include "row_runner.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>

#include "../support/cpu.h"
#include "max_rate.h"
#include "row_report.h"
#include "stalls.h"

namespace kelo::bench {
namespace {

constexpr double PLACEMENT_CHANGE_MAX = 1.5;
constexpr int STALLS = 20;
// Of a variant in a round.
constexpr int TRIES = 3;

bool Alike(double probe_ns, double other_ns) {
    const double change = other_ns / probe_ns;
    return change < PLACEMENT_CHANGE_MAX && change > 1 / PLACEMENT_CHANGE_MAX;
}

class RoundRunner {
public:
    RoundRunner(const Row& row, const RunOptions& options)
        : row_(row),
          options_(options),
          stage_(row, options.cores),
          stalls_(options.cores.receiver) {}

    RowOutcome Run();

private:
    void RunRounds(RowOutcome& outcome);
    Round RunRound(size_t number);
    void RunVariant(size_t variant, bool first, Round& round);
    kelo::bench::Run RunOnce(size_t variant);
    double RunSeconds() const { return std::max(options_.seconds, row_.seconds_min); }
    double Probe() const {
        return PlacementProbeNs(options_.cores.sender, options_.cores.receiver);
    }
    std::string Disturbance(const Round& round, double probe_ns, const kelo::bench::Run& run) const;

    const Row row_;
    const RunOptions options_;
    Stage stage_;
    const Stalls stalls_;
};

RowOutcome RoundRunner::Run() {
    RowOutcome outcome;
    if (!stage_.Path().Note().empty()) outcome.notes.push_back(stage_.Path().Note());
    if (row_.stall_ms > 0) {
        outcome.notes.push_back(std::string(stalls_.How()) + ", " + std::to_string(STALLS) +
                                " times in a run");
    }
    // Warms caches and buffers up.
    if (!row_.first_run_counts) RunRound(0);
    RunRounds(outcome);
    const RunResult& first = outcome.rounds.front().runs.front().result;
    if (!std::isfinite(first.instructions)) {
        outcome.notes.push_back("instructions are not counted on this machine");
    }
    return outcome;
}

// Rounds that stayed disturbed are made up for, as often as there are rounds at most.
void RoundRunner::RunRounds(RowOutcome& outcome) {
    const int wanted = row_.rounds != 0 ? row_.rounds : options_.rounds;
    const int tries = row_.rounds != 0 ? wanted : 2 * wanted;
    int kept = 0;
    for (int i = 0; i < tries && kept < wanted; ++i) {
        outcome.rounds.push_back(RunRound(static_cast<size_t>(i)));
        const std::string& dropped = outcome.rounds.back().dropped;
        if (dropped.empty()) ++kept;
        std::fprintf(stderr, "%s: round %d, %d of %d kept%s%s\n", row_.name.c_str(), i + 1, kept,
                     wanted, dropped.empty() ? "" : "; disturbed: ", dropped.c_str());
    }
}

// The order moves on from round to round, so that no variant always runs after the same one.
Round RoundRunner::RunRound(size_t number) {
    Round round;
    round.runs.resize(stage_.Variants());
    for (size_t i = 0; i < stage_.Variants(); ++i)
        RunVariant((number + i) % stage_.Variants(), i == 0, round);
    return round;
}

// What was disturbed is run again, so that not the whole round is lost. The first variant tells
// where the cores are; the others must find them there.
void RoundRunner::RunVariant(size_t variant, bool first, Round& round) {
    const bool again = row_.rounds == 0 && round.dropped.empty();
    std::string disturbance;
    for (int i = 0; i < (again ? TRIES : 1); ++i) {
        const double probe = Probe();
        if (first) round.probe_before_ns = probe;
        round.runs[variant] = RunOnce(variant);
        round.probe_after_ns = Probe();
        disturbance = Disturbance(round, probe, round.runs[variant]);
        if (disturbance.empty()) return;
    }
    if (round.dropped.empty()) round.dropped = disturbance;
}

kelo::bench::Run RoundRunner::RunOnce(size_t variant) {
    std::function<void(pid_t)> meanwhile;
    if (row_.stall_ms > 0) {
        meanwhile = [this](pid_t receiver) { stalls_.Inflict(receiver, row_.stall_ms, STALLS); };
    }
    return stage_.RunVariant(variant, RunSeconds(), row_.traffic.bytes_per_second, row_.images,
                             meanwhile);
}

// The two virtual cores were moved nearer or farther, or had other work. Empty: neither.
std::string RoundRunner::Disturbance(const Round& round, double probe_ns,
                                     const kelo::bench::Run& run) const {
    if (!Alike(round.probe_before_ns, probe_ns) ||
        !Alike(round.probe_before_ns, round.probe_after_ns)) {
        return "placement";
    }
    // A stall is other work, on purpose.
    const double stalled = STALLS * row_.stall_ms / 1e3 / (2 * RunSeconds());
    const bool foreign = run.foreign_share > kelo::bench::Run::FOREIGN_SHARE_MAX + stalled;
    return foreign ? "other work" : "";
}

}  // namespace

std::string RunRow(const Row& row, const RunOptions& options) {
    if (row.kind == Row::Kind::MAX_RATE) return RunMaxRate(row, options);
    const RowOutcome outcome = RoundRunner(row, options).Run();
    PrintRow(row, outcome);
    return RowJson(row, outcome);
}

}  // namespace kelo::bench
