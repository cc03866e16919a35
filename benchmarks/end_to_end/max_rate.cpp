#include "max_rate.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "../support/cpu.h"
#include "../support/json_writer.h"
#include "../support/spread_json.h"

namespace kelo::bench {
namespace {

constexpr int STEPS = 7;
constexpr double BLAST_SECONDS = 0.5;
// What other work of the machine does to one try is not the receiver's: a rate is too high when
// packets are lost at it twice, not counting tries that were visibly disturbed.
constexpr int LOSSY_TRIES = 2;
constexpr int TRIES_MAX = 4;

struct Search {
    double full_blast = 0;  // bytes/s that the sender can offer
    double lossless = 0;    // highest rate without loss so far
    double lossy = 0;       // lowest rate with loss so far; 0: none
    std::vector<double> tried;

    // 0 stands for full blast.
    double Next() const {
        if (tried.empty()) return 0;
        return lossy == 0 ? full_blast : (lossless + lossy) / 2;
    }
    bool Done() const { return !tried.empty() && lossy == 0; }
};

class MaxRate {
public:
    MaxRate(const Row& row, const RunOptions& options)
        : row_(row),
          options_(options),
          stage_(row, options.cores),
          searches_(row.variants.size()) {}

    const std::vector<Search>& Run() {
        for (size_t i = 0; i < searches_.size(); ++i)
            searches_[i].full_blast = OfferedAtFullBlast(i);
        for (int step = 0; step < STEPS; ++step) {
            for (size_t i = 0; i < searches_.size(); ++i) {
                if (!searches_[i].Done()) Step(i);
            }
            std::fprintf(stderr, "%s: step %d of %d\n", row_.name.c_str(), step + 1, STEPS);
        }
        return searches_;
    }
    const std::string& Note() const { return stage_.Path().Note(); }

private:
    double OfferedAtFullBlast(size_t variant) {
        const Sent sent = stage_.RunVariant(variant, BLAST_SECONDS, 0).result.sent;
        return static_cast<double>(sent.bytes) / sent.seconds;
    }

    void Step(size_t variant) {
        Search& search = searches_[variant];
        const double rate = search.Next();
        double offered = 0;
        const bool lossless = HoldsRate(variant, rate, offered);
        search.tried.push_back(offered);
        if (lossless) {
            search.lossless = std::max(search.lossless, offered);
        } else {
            search.lossy = search.lossy == 0 ? offered : std::min(search.lossy, offered);
        }
    }

    bool HoldsRate(size_t variant, double rate, double& offered) {
        int lossy = 0;
        for (int i = 0; i < TRIES_MAX && lossy < LOSSY_TRIES; ++i) {
            const auto run = stage_.RunVariant(variant, options_.hold_seconds, rate);
            const RunResult& result = run.result;
            offered = static_cast<double>(result.sent.bytes) / result.sent.seconds;
            if (result.datagrams == result.sent.datagrams) return true;
            if (run.foreign_share <= kelo::bench::Run::FOREIGN_SHARE_MAX) ++lossy;
        }
        return false;
    }

    const Row row_;
    const RunOptions options_;
    Stage stage_;
    std::vector<Search> searches_;
};

void Print(const Row& row, const std::vector<Search>& searches, double hold_seconds) {
    std::printf("\n%s: %s\n  held for %.3g s, to within %.2g %%; lost twice counts as lost\n",
                row.name.c_str(), row.title.c_str(), hold_seconds, 100.0 / (1 << (STEPS - 1)));
    for (size_t i = 0; i < searches.size(); ++i) {
        const Search& search = searches[i];
        std::printf("  %-12s %6.0f MB/s %8.0f packets/s%s\n", row.variants[i].c_str(),
                    search.lossless / 1e6, search.lossless / row.traffic.PayloadSize(),
                    search.lossy == 0 ? ", as much as the sender can" : "");
    }
    for (size_t i = 1; i < searches.size(); ++i) {
        std::printf("  %s / %s: %.2f\n", row.variants[0].c_str(), row.variants[i].c_str(),
                    searches[0].lossless / searches[i].lossless);
    }
    std::fflush(stdout);
}

void WriteVariants(JsonWriter& json, const Row& row, const std::vector<Search>& searches) {
    json.BeginObject("variants");
    for (size_t i = 0; i < searches.size(); ++i) {
        const Search& search = searches[i];
        json.BeginObject(row.variants[i]);
        WriteSpread(json, "lossless_mb_per_s", {search.lossless / 1e6});
        WriteSpread(json, "full_blast_mb_per_s", {search.full_blast / 1e6});
        json.Bool("limited_by_sender", search.lossy == 0).BeginArray("tried_mb_per_s");
        for (const double rate : search.tried)
            json.Number({}, rate / 1e6);
        json.EndArray().EndObject();
    }
    json.EndObject();
}

void WriteRatios(JsonWriter& json, const Row& row, const std::vector<Search>& searches) {
    json.BeginObject("ratios");
    for (size_t i = 0; i < searches.size(); ++i) {
        for (size_t to = 0; to < searches.size(); ++to) {
            if (i == to) continue;
            json.BeginObject(row.variants[i] + "/" + row.variants[to]);
            WriteSpread(json, "lossless_mb_per_s", {searches[i].lossless / searches[to].lossless});
            json.EndObject();
        }
    }
    json.EndObject();
}

}  // namespace

std::string RunMaxRate(const Row& row, const RunOptions& options) {
    const double probe_before = PlacementProbeNs(options.cores.sender, options.cores.receiver);
    MaxRate search(row, options);
    const std::vector<Search>& searches = search.Run();
    Print(row, searches, options.hold_seconds);
    JsonWriter json;
    json.BeginObject().Text("name", row.name).Text("title", row.title);
    json.BeginArray("notes");
    if (!search.Note().empty()) json.Text({}, search.Note());
    json.EndArray();
    json.Number("hold_seconds", options.hold_seconds)
        .Number("probe_before_ns", probe_before)
        .Number("probe_after_ns", PlacementProbeNs(options.cores.sender, options.cores.receiver));
    WriteVariants(json, row, searches);
    WriteRatios(json, row, searches);
    return json.EndObject().Result();
}

}  // namespace kelo::bench
