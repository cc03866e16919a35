#include "row_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>

#include "../support/json_writer.h"
#include "../support/spread_json.h"
#include "../support/statistics.h"

namespace kelo::bench {
namespace {

constexpr int TITLE_WIDTH = 34;
constexpr int CELL_WIDTH = 26;

using RoundValue = std::function<double(const Round&)>;

std::vector<const Round*> KeptRounds(const std::vector<Round>& rounds) {
    std::vector<const Round*> kept;
    for (const Round& round : rounds) {
        if (round.dropped.empty()) kept.push_back(&round);
    }
    if (!kept.empty()) return kept;
    for (const Round& round : rounds)
        kept.push_back(&round);
    return kept;
}

// Of each kept round that has one.
std::vector<double> Values(const std::vector<const Round*>& rounds, const RoundValue& value) {
    std::vector<double> values;
    for (const Round* round : rounds) {
        const double v = value(*round);
        if (std::isfinite(v)) values.push_back(v);
    }
    return values;
}

RoundValue ValueOf(const Row& row, const Column& column, size_t variant) {
    return
        [&row, &column, variant](const Round& round) { return column.value(row, round, variant); };
}

RoundValue RatioOf(const Row& row, const Column& column, size_t variant, size_t to) {
    return [&row, &column, variant, to](const Round& round) {
        const double divisor = column.value(row, round, to);
        return divisor > 0 ? column.value(row, round, variant) / divisor : NOT_MEASURED;
    };
}

void PrintCell(const std::vector<double>& values, int digits) {
    const std::string text = values.empty() ? "-" : Text(SpreadOf(values), digits);
    std::printf(" %*s", CELL_WIDTH, text.c_str());
}

void PrintLine(const std::string& title, int digits,
               const std::vector<std::vector<double>>& cells) {
    const bool empty =
        std::all_of(cells.begin(), cells.end(), [](const auto& cell) { return cell.empty(); });
    if (empty) return;
    std::printf("  %-*s", TITLE_WIDTH, title.c_str());
    for (const auto& cell : cells)
        PrintCell(cell, digits);
    std::puts("");
}

void PrintValues(const Row& row, const std::vector<const Round*>& kept) {
    for (const Column& column : Columns()) {
        std::vector<std::vector<double>> cells;
        for (size_t i = 0; i < row.variants.size(); ++i)
            cells.push_back(Values(kept, ValueOf(row, column, i)));
        PrintLine(column.title, column.digits, cells);
    }
}

// The first variant beside the others.
void PrintRatios(const Row& row, const std::vector<const Round*>& kept) {
    std::printf("  %s beside the others, round by round:\n", row.variants.front().c_str());
    for (const Column& column : Columns()) {
        if (!column.ratio) continue;
        std::vector<std::vector<double>> cells(1);
        for (size_t i = 1; i < row.variants.size(); ++i)
            cells.push_back(Values(kept, RatioOf(row, column, 0, i)));
        PrintLine(std::string("x ") + column.title, 2, cells);
    }
}

void WriteColumn(JsonWriter& json, const char* key, const std::vector<const Round*>& kept,
                 const RoundValue& value) {
    std::vector<double> values;
    values.reserve(kept.size());
    for (const Round* round : kept)
        values.push_back(value(*round));
    WriteSpread(json, key, values);
}

void WriteVariants(JsonWriter& json, const Row& row, const std::vector<const Round*>& kept) {
    json.BeginObject("variants");
    for (size_t i = 0; i < row.variants.size(); ++i) {
        json.BeginObject(row.variants[i]);
        for (const Column& column : Columns())
            WriteColumn(json, column.key, kept, ValueOf(row, column, i));
        json.EndObject();
    }
    json.EndObject();
}

void WriteRatios(JsonWriter& json, const Row& row, const std::vector<const Round*>& kept) {
    json.BeginObject("ratios");
    for (size_t i = 0; i < row.variants.size(); ++i) {
        for (size_t to = 0; to < row.variants.size(); ++to) {
            if (i == to || row.variants[i] == "unread" || row.variants[to] == "unread") continue;
            json.BeginObject(row.variants[i] + "/" + row.variants[to]);
            for (const Column& column : Columns()) {
                if (column.ratio) WriteColumn(json, column.key, kept, RatioOf(row, column, i, to));
            }
            json.EndObject();
        }
    }
    json.EndObject();
}

void WriteRounds(JsonWriter& json, const std::vector<Round>& rounds) {
    json.BeginArray("rounds");
    for (const Round& round : rounds) {
        json.BeginObject()
            .Number("probe_before_ns", round.probe_before_ns)
            .Number("probe_after_ns", round.probe_after_ns)
            .Text("dropped", round.dropped)
            .EndObject();
    }
    json.EndArray();
}

void WriteHead(JsonWriter& json, const Row& row) {
    json.BeginObject().Text("name", row.name).Text("title", row.title);
    json.BeginObject("traffic")
        .Number("image_bytes", row.traffic.ImageSize())
        .Number("datagram_bytes", row.traffic.tcp ? NOT_MEASURED : row.traffic.datagram_size)
        .Number("cameras", row.traffic.cameras)
        .Number("ordered_mb_per_s", row.traffic.bytes_per_second / 1e6)
        .Number("burst", row.traffic.burst)
        .EndObject();
}

}  // namespace

void PrintRow(const Row& row, const RowOutcome& outcome) {
    const std::vector<const Round*> kept = KeptRounds(outcome.rounds);
    std::printf("\n%s: %s\n", row.name.c_str(), row.title.c_str());
    const auto probe = Values(kept, [](const Round& round) { return round.probe_before_ns; });
    std::printf("  %zu of %zu rounds (cache line there and back: %s ns)%s\n", kept.size(),
                outcome.rounds.size(), Text(SpreadOf(probe), 0).c_str(),
                kept.front()->dropped.empty() ? "" : "; ALL WERE DISTURBED");
    for (const std::string& note : outcome.notes)
        std::printf("  %s\n", note.c_str());
    std::printf("  %-*s", TITLE_WIDTH, "median (lowest to highest)");
    for (const std::string& variant : row.variants)
        std::printf(" %*s", CELL_WIDTH, variant.c_str());
    std::puts("");
    PrintValues(row, kept);
    if (row.variants.size() > 1) PrintRatios(row, kept);
    std::fflush(stdout);
}

std::string RowJson(const Row& row, const RowOutcome& outcome) {
    const std::vector<const Round*> kept = KeptRounds(outcome.rounds);
    JsonWriter json;
    WriteHead(json, row);
    json.BeginArray("notes");
    for (const std::string& note : outcome.notes)
        json.Text({}, note);
    json.EndArray();
    json.Number("rounds_kept",
                kept.front()->dropped.empty() ? static_cast<double>(kept.size()) : 0);
    json.Bool("all_disturbed", !kept.front()->dropped.empty());
    WriteRounds(json, outcome.rounds);
    WriteVariants(json, row, kept);
    WriteRatios(json, row, kept);
    return json.EndObject().Result();
}

std::string SkippedRowJson(const Row& row, const std::string& why) {
    JsonWriter json;
    WriteHead(json, row);
    return json.Text("skipped", why).EndObject().Result();
}

}  // namespace kelo::bench
