// kelo stats: how streams come in, live and in the end.

#include <CLI/CLI.hpp>
#include <memory>

#include "camera_identity.h"
#include "camera_selector.h"
#include "commands.h"
#include "json_writer.h"
#include "library_session.h"
#include "stream_watch.h"
#include "table.h"
#include "text.h"

namespace kelotool {
namespace {

using Clock = StreamTotals::Clock;

constexpr CommandText TEXT = {
    "stats", "Watch streams: frame rate, throughput, losses",
    "  kelo stats 10.0.0.21                       (until Ctrl-C)\n"
    "  kelo stats 10.0.0.21 10.0.0.22 --seconds 60\n"
    "  kelo stats 10.0.0.21 --seconds 10 --json\n"
    "\n"
    "Images are taken and thrown away. On a terminal the table is kept up to date; elsewhere\n"
    "there is a line per stream and interval. In the end: totals, and how long it took from one\n"
    "image to the next. With --json there is one object in the end and nothing else."};

struct Options {
    std::vector<std::string> cameras;
    double seconds = 0;
    uint32_t interval_ms = 1000;
};

// What came since it was asked before.
struct Rates {
    double images_per_second = 0;
    double bytes_per_second = 0;
};

// One stream, and what the last look at it showed.
class WatchedStream {
public:
    WatchedStream(const EXT_CAM_INFO& info, const OpenCamera& camera, uint8_t stream)
        : info_(info), camera_(camera), watch_(camera, stream) {}

    const EXT_CAM_INFO& info() const { return info_; }
    bool Lost() const { return camera_.Lost(); }
    uint8_t stream() const { return watch_.stream(); }
    StreamWatch::Reading Now() const { return watch_.Now(); }

    Rates Since(const StreamTotals& totals, Clock::time_point now) {
        const double seconds = std::chrono::duration<double>(now - seen_time_).count();
        const auto images = static_cast<double>(totals.images() - seen_images_);
        const auto bytes = static_cast<double>(totals.bytes() - seen_bytes_);
        seen_images_ = totals.images();
        seen_bytes_ = totals.bytes();
        seen_time_ = now;
        return {images / seconds, bytes / seconds};
    }

private:
    EXT_CAM_INFO info_;
    const OpenCamera& camera_;
    StreamWatch watch_;
    Clock::time_point seen_time_ = Clock::now();
    uint64_t seen_images_ = 0;
    uint64_t seen_bytes_ = 0;
};

using Streams = std::vector<std::unique_ptr<WatchedStream>>;

// A camera that is open and sends. Made and destroyed in this order.
struct RunningCamera {
    explicit RunningCamera(const EXT_CAM_INFO& camera)
        : info(camera), open(camera), streams(UsedStreams(open.Handle())), acquisition(open) {}

    EXT_CAM_INFO info;
    OpenCamera open;
    std::vector<uint8_t> streams;
    Acquisition acquisition;
};

Table EmptyTable() {
    using enum Table::Align;
    return Table({{"CAMERA"},
                  {"STREAM", kRight},
                  {"IMAGES", kRight},
                  {"IMAGES/S", kRight},
                  {"MB/S", kRight},
                  {"LOST PACKETS", kRight},
                  {"LOSS", kRight},
                  {"INCOMPLETE", kRight},
                  {"SKIPPED", kRight},
                  {"PENDING", kRight}});
}

std::string Text(uint64_t number) {
    return std::to_string(number);
}

void AddRow(Table& table, const WatchedStream& stream, const StreamWatch::Reading& reading,
            const Rates& rates) {
    const StreamTotals& totals = reading.totals;
    table.AddRow({AddressText(stream.info().camera_ip), Text(stream.stream()),
                  Text(totals.images()), Format("%.1f", rates.images_per_second),
                  Format("%.2f", rates.bytes_per_second / 1e6), Text(totals.last().missingPackets),
                  Format("%.3f %%", totals.loss() * 100), Text(totals.incomplete()),
                  Text(totals.last().imagesSkipped),
                  stream.Lost() ? "camera lost" : std::to_string(reading.pending)});
}

// ---- Live
// ----------------------------------------------------------------------------------------

// Draws the table over the one before.
class LiveTable {
public:
    explicit LiveTable(std::FILE* out) : out_(out) {}

    void Draw(const std::string& text) {
        std::string screen = lines_ > 0 ? Format("\x1b[%zuA", lines_) : "";
        lines_ = 0;
        for (size_t begin = 0; begin < text.size(); ++lines_) {
            const size_t end = text.find('\n', begin);
            // What is longer than the line before goes over its end, what is shorter leaves a rest.
            screen += text.substr(begin, end - begin) + "\x1b[K\r\n";
            begin = end + 1;
        }
        std::fwrite(screen.data(), 1, screen.size(), out_);
        std::fflush(out_);
    }

private:
    std::FILE* out_;
    size_t lines_ = 0;
};

void PrintLines(std::FILE* out, double seconds, const Streams& streams,
                const Clock::time_point now) {
    for (const auto& stream : streams) {
        const auto reading = stream->Now();
        const StreamTotals& totals = reading.totals;
        const Rates rates = stream->Since(totals, now);
        std::fprintf(out, "%.1f s  %s stream %u: %s images, %.1f images/s, %.2f MB/s, ", seconds,
                     AddressText(stream->info().camera_ip).c_str(), stream->stream(),
                     Text(totals.images()).c_str(), rates.images_per_second,
                     rates.bytes_per_second / 1e6);
        std::fprintf(out, "%s packets lost (%.3f %%), %s images skipped, %d pending%s\n",
                     Text(totals.last().missingPackets).c_str(), totals.loss() * 100,
                     Text(totals.last().imagesSkipped).c_str(), reading.pending,
                     stream->Lost() ? ", camera lost" : "");
    }
    std::fflush(out);
}

std::string LiveText(const Streams& streams, const Clock::time_point now) {
    Table table = EmptyTable();
    for (const auto& stream : streams) {
        const auto reading = stream->Now();
        AddRow(table, *stream, reading, stream->Since(reading.totals, now));
    }
    return table.Text();
}

bool AllLost(const Streams& streams) {
    for (const auto& stream : streams) {
        if (!stream->Lost()) return false;
    }
    return true;
}

// Until the time is over, Ctrl-C, or no camera is left.
void Watch(const Context& context, const Options& options, const Streams& streams) {
    const auto begin = Clock::now();
    const bool live = context.OutIsTerminal();
    LiveTable table(context.out);
    while (!context.interrupt.Requested() && !AllLost(streams)) {
        const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        double wait_ms = options.interval_ms;
        if (options.seconds > 0) wait_ms = std::min(wait_ms, (options.seconds - seconds) * 1000);
        if (wait_ms < 1) break;
        context.interrupt.WaitFor(static_cast<int>(wait_ms));
        if (context.json) continue;
        const auto now = Clock::now();
        if (live) {
            table.Draw(LiveText(streams, now));
        } else {
            PrintLines(context.out, std::chrono::duration<double>(now - begin).count(), streams,
                       now);
        }
    }
}

// ---- The end
// -------------------------------------------------------------------------------------

constexpr size_t HISTOGRAM_ROWS = 16;

void PrintEnd(const Context& context, const Streams& streams) {
    Table table = EmptyTable();
    for (const auto& stream : streams) {
        const auto reading = stream->Now();
        const StreamTotals& totals = reading.totals;
        AddRow(table, *stream, reading, {totals.images_per_second(), totals.bytes_per_second()});
    }
    std::fprintf(context.out, "\nTotals\n%s", table.Text().c_str());
    for (const auto& stream : streams) {
        const IntervalHistogram intervals = stream->Now().intervals;
        if (intervals.count() == 0) continue;
        std::fprintf(context.out,
                     "\nFrom image to image, %s stream %u: mean %.3f ms, half within %.3f, 99 %% "
                     "within %.3f, %.3f to %.3f ms\n%s",
                     AddressText(stream->info().camera_ip).c_str(), stream->stream(),
                     intervals.mean_us() / 1000, intervals.PercentileUs(0.5) / 1000,
                     intervals.PercentileUs(0.99) / 1000, intervals.min_us() / 1000,
                     intervals.max_us() / 1000, intervals.Text(HISTOGRAM_ROWS, 40).c_str());
    }
}

void PutIntervals(JsonWriter& json, const IntervalHistogram& intervals) {
    json.BeginObject("intervals_ms");
    json.Member("count", intervals.count());
    json.Member("min", intervals.min_us() / 1000);
    json.Member("mean", intervals.mean_us() / 1000);
    json.Member("p50", intervals.PercentileUs(0.5) / 1000);
    json.Member("p99", intervals.PercentileUs(0.99) / 1000);
    json.Member("max", intervals.max_us() / 1000);
    json.BeginArray("histogram");
    for (const auto& row : intervals.Rows(HISTOGRAM_ROWS)) {
        json.BeginObject();
        json.Member("from", row.from_us / 1000);
        json.Member("below", row.below_us / 1000);
        json.Member("count", row.count);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
}

void PutStream(JsonWriter& json, const WatchedStream& stream) {
    const auto reading = stream.Now();
    const StreamTotals& totals = reading.totals;
    json.BeginObject();
    WriteIdentity(json, stream.info(), Interfaces());
    json.Member("stream", unsigned{stream.stream()});
    json.Member("camera_lost", stream.Lost());
    json.Member("images", totals.images());
    json.Member("images_incomplete", totals.incomplete());
    json.Member("images_skipped", uint64_t{totals.last().imagesSkipped});
    json.Member("images_per_second", totals.images_per_second());
    json.Member("bytes_received", totals.bytes());
    json.Member("bytes_per_second", totals.bytes_per_second());
    json.Member("packets_lost", uint64_t{totals.last().missingPackets});
    json.Member("bytes_lost", uint64_t{totals.last().bytesLost});
    json.Member("pending", reading.pending);
    json.Member("pending_max", reading.pending_max);
    PutIntervals(json, reading.intervals);
    json.EndObject();
}

void PrintJson(const Context& context, const Streams& streams) {
    JsonWriter json;
    json.BeginObject();
    json.BeginArray("streams");
    for (const auto& stream : streams)
        PutStream(json, *stream);
    json.EndArray();
    json.EndObject();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
}

CommandError LostError(const std::string& addresses) {
    return {EXIT_LOST, "does not answer any more: " + addresses,
            "Check cable and power; `kelo list` tells when it is back."};
}

int Run(const Context& context, const Options& options) {
    const Library library(context);
    std::vector<std::unique_ptr<RunningCamera>> cameras;
    for (const EXT_CAM_INFO& info : SelectCameras(context, options.cameras))
        cameras.push_back(std::make_unique<RunningCamera>(info));
    Streams streams;
    for (const auto& camera : cameras) {
        for (const uint8_t stream : camera->streams)
            streams.push_back(std::make_unique<WatchedStream>(camera->info, camera->open, stream));
    }
    Watch(context, options, streams);
    if (context.json) {
        PrintJson(context, streams);
    } else {
        PrintEnd(context, streams);
    }
    std::string lost;
    for (const auto& camera : cameras) {
        if (camera->open.Lost())
            lost += (lost.empty() ? "" : ", ") + AddressText(camera->info.camera_ip);
    }
    if (!lost.empty()) throw LostError(lost);
    return EXIT_OK;
}

}  // namespace

void AddStatsCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command =
        AddCommand(app, context, TEXT, [&context, options] { return Run(context, *options); });
    command.add_option("CAMERA", options->cameras, CAMERA_HELP)->required()->type_name("...");
    command.add_option("--seconds", options->seconds, "End after so long; 0: at Ctrl-C")
        ->capture_default_str()
        ->type_name("S")
        ->check(CLI::NonNegativeNumber.description(""));
    command.add_option("--interval", options->interval_ms, "From line to line")
        ->capture_default_str()
        ->type_name("MS")
        ->check(CLI::Range(10, 3600000).description(""));
}

}  // namespace kelotool
