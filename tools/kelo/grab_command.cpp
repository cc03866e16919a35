// kelo grab: images into files.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include <unistd.h>

#include "acquisition.h"
#include "camera_identity.h"
#include "camera_selector.h"
#include "commands.h"
#include "image_job.h"
#include "image_writer.h"
#include "json_writer.h"
#include "library_session.h"
#include "text.h"

namespace kelotool {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr CommandText TEXT = {
    "grab", "Write images into files",
    "  kelo grab 10.0.0.21                        (the next image, as image-NUMBER.png)\n"
    "  kelo grab 10.0.0.21 -n 100 -o pictures\n"
    "  kelo grab 10.0.0.21 -n 0 --format raw      (until Ctrl-C)\n"
    "  kelo grab 10.0.0.21 -n 500 --drop-incomplete --json\n"
    "\n"
    "PNG and PGM are for grey images of 8 and 16 bits and for run-length coded ones, which\n"
    "are decoded; other formats are written as they come, and so are all with --format raw.\n"
    "Images with lost packets are named image-NUMBER-incomplete; what is missing is black.\n"
    "\n"
    "Files are written on other threads. When the disk is slower than the camera, images are\n"
    "left out, counted and reported as soon as --queue-mb wait; reception never waits."};

struct Options {
    std::string camera;
    uint64_t count = 1;
    std::string folder = ".";
    unsigned stream = 0;
    FileFormat format = FileFormat::kPng;
    std::string prefix = "image";
    uint32_t wait_ms = 5000;
    bool drop_incomplete = false;
    bool overwrite = false;
    uint32_t queue_mb = 256;
    unsigned threads = 0;
    int compression = 1;
};

enum class End { kCount, kInterrupt, kNoImage, kLost, kFailure };

const char* EndText(End end) {
    switch (end) {
        case End::kCount:
            return "count";
        case End::kInterrupt:
            return "interrupt";
        case End::kNoImage:
            return "no-image";
        case End::kLost:
            return "lost";
        default:
            return "failure";
    }
}

// What was done, for the summary.
struct Result {
    End end = End::kCount;
    EXT_CAM_INFO camera{};
    StreamTotals totals;
    uint64_t taken = 0;               // meant to be saved
    uint64_t left_out = 0;            // of them, because the disk was too slow
    uint64_t incomplete = 0;          // of them
    uint64_t incomplete_dropped = 0;  // not among them
    std::string first_file;
    std::string last_file;
    bool abandoned = false;  // somebody would not wait for the disk
    ImageWriter::Counters written;
    WriteFailure failure;
};

double Megabytes(double bytes) {
    return bytes / 1e6;
}

double PerSecond(uint64_t bytes, std::chrono::nanoseconds time) {
    return time.count() <= 0 ? 0
                             : static_cast<double>(bytes) * 1e9 / static_cast<double>(time.count());
}

// What reaches the disk, in image data, so that it compares with what the camera sends.
double DiskRate(const ImageWriter::Counters& counters) {
    return PerSecond(counters.image_bytes, counters.elapsed);
}

std::string TooSlowText(const ImageWriter::Counters& counters, double camera_rate,
                        FileFormat format) {
    const bool compression_is_slower =
        format == FileFormat::kPng && counters.encoding > counters.writing;
    return Format("%s takes %.1f MB/s, the camera sends %.1f MB/s",
                  compression_is_slower ? "PNG compression" : "the disk",
                  Megabytes(DiskRate(counters)), Megabytes(camera_rate));
}

// One run: takes images from the stream and hands them to the writer. Used by one thread.
class Grab {
public:
    Grab(const Context& context, const Options& options, ImageWriter& writer, Result& result)
        : context_(context),
          options_(options),
          writer_(writer),
          result_(result),
          names_(options.prefix) {}

    void Run(const OpenCamera& camera);

private:
    bool AtEnd(const OpenCamera& camera);
    void DrainOthers(CAM_HANDLE camera) const;
    void Take(const TakenImage& image, CAM_HANDLE camera);
    bool Save(const TakenImage& image, CAM_HANDLE camera);
    void SayOnce(const std::string& key, const std::string& text);
    void ShowProgress();

    const Context& context_;
    const Options& options_;
    ImageWriter& writer_;
    Result& result_;
    ImageNames names_;
    std::vector<uint8_t> others_;  // streams that nobody wants
    Clock::time_point latest_ = Clock::now();
    Clock::time_point shown_ = Clock::now();
    std::map<std::string, bool> said_;
};

void Grab::Run(const OpenCamera& camera) {
    const auto streams = UsedStreams(camera.Handle());
    for (const uint8_t stream : streams) {
        if (stream != options_.stream) others_.push_back(stream);
    }
    if (others_.size() == streams.size()) {
        std::string list;
        for (const uint8_t stream : streams)
            list += Format(list.empty() ? "%u" : ", %u", stream);
        throw CommandError(EXIT_USAGE,
                           Format("the camera does not send stream %u", options_.stream),
                           "Choose with --stream among: " + list);
    }
    const Acquisition acquisition(camera);
    latest_ = Clock::now();
    while (!AtEnd(camera)) {
        constexpr int LOOK_AROUND_MS = 100;
        const TakenImage image(camera.Handle(), static_cast<uint8_t>(options_.stream),
                               LOOK_AROUND_MS);
        if (image) Take(image, camera.Handle());
        DrainOthers(camera.Handle());
        ShowProgress();
    }
}

bool Grab::AtEnd(const OpenCamera& camera) {
    const auto end = [&](End reason) {
        result_.end = reason;
        return true;
    };
    if (writer_.Failure()) return end(End::kFailure);
    if (options_.count != 0 && result_.taken >= options_.count) return end(End::kCount);
    if (context_.interrupt.Requested()) return end(End::kInterrupt);
    if (camera.Lost()) return end(End::kLost);
    if (Clock::now() - latest_ > milliseconds(options_.wait_ms)) return end(End::kNoImage);
    return false;
}

// The library keeps finished images until somebody takes them.
void Grab::DrainOthers(CAM_HANDLE camera) const {
    for (const uint8_t stream : others_)
        keloClearBuffer(camera, stream);
}

void Grab::Take(const TakenImage& image, CAM_HANDLE camera) {
    latest_ = Clock::now();
    result_.totals.Add(image.Info(), latest_);
    if (IsIncomplete(image.Info()) && options_.drop_incomplete) {
        ++result_.incomplete_dropped;
        return;
    }
    ++result_.taken;
    if (Save(image, camera)) return;
    ++result_.left_out;
    SayOnce("slow",
            "kelo: images are left out: " +
                TooSlowText(writer_.Now(), result_.totals.bytes_per_second(), options_.format));
}

bool Grab::Save(const TakenImage& image, CAM_HANDLE camera) {
    const ImagePlan plan = PlanImage(image.Info(), options_.format);
    auto buffer = writer_.Borrow(BufferBytes(plan));
    if (!buffer) return false;
    if (!plan.note.empty()) SayOnce(plan.note, "kelo: written as raw data: " + plan.note);
    const bool whole = FillBuffer(image, plan, camera, *buffer);
    const bool incomplete = IsIncomplete(image.Info()) || !whole;
    if (incomplete) ++result_.incomplete;
    const std::string name = names_.Next(image.Info().imageNumber, incomplete, plan.format);
    if (result_.first_file.empty()) result_.first_file = name;
    result_.last_file = name;
    writer_.Submit({.path = std::filesystem::path(options_.folder) / name,
                    .format = plan.format,
                    .width = image.Info().imageWidth,
                    .height = image.Info().imageHeight,
                    .bits = plan.bits,
                    .pixels_offset = plan.pixels_offset,
                    .data = std::move(*buffer)});
    return true;
}

void Grab::SayOnce(const std::string& key, const std::string& text) {
    if (!said_.try_emplace(key, true).second) return;
    context_.Say(text);
}

void Grab::ShowProgress() {
    if (context_.json || isatty(fileno(context_.err)) == 0) return;
    if (Clock::now() - shown_ < milliseconds(500)) return;
    shown_ = Clock::now();
    const auto written = writer_.Now();
    std::fprintf(context_.err, "\r%llu images, %.1f images/s, %.1f MB/s, %.1f MB wait\x1b[K",
                 static_cast<unsigned long long>(result_.taken), result_.totals.images_per_second(),
                 Megabytes(result_.totals.bytes_per_second()),
                 Megabytes(static_cast<double>(written.queue_bytes)));
    std::fflush(context_.err);
}

// ---- The summary
// ---------------------------------------------------------------------------------

unsigned long long Print(uint64_t number) {
    return number;
}

void PrintText(const Context& context, const Options& options, const Result& result) {
    std::FILE* const out = context.out;
    const StreamStatistics& last = result.totals.last();
    std::fprintf(out, "%llu of %llu images written to %s", Print(result.written.images),
                 Print(result.taken), options.folder.c_str());
    if (result.written.images == 1) std::fprintf(out, ": %s", result.first_file.c_str());
    if (result.written.images > 1) {
        std::fprintf(out, ": %s to %s", result.first_file.c_str(), result.last_file.c_str());
    }
    std::fprintf(out, "\n");
    if (result.totals.images() > 1) {
        std::fprintf(out, "%.1f images/s, %.1f MB/s in %.1f s; ", result.totals.images_per_second(),
                     Megabytes(result.totals.bytes_per_second()), result.totals.seconds());
    }
    std::fprintf(out, "%llu packets (%llu bytes) lost, %llu images skipped\n",
                 Print(last.missingPackets), Print(last.bytesLost), Print(last.imagesSkipped));
    if (result.incomplete > 0) {
        std::fprintf(out, "%llu incomplete images: look for \"-incomplete\" in the names\n",
                     Print(result.incomplete));
    }
    if (result.incomplete_dropped > 0) {
        std::fprintf(out, "%llu incomplete images dropped\n", Print(result.incomplete_dropped));
    }
}

void PrintJson(const Context& context, const Options& options, const Result& result) {
    const StreamTotals& totals = result.totals;
    JsonWriter json;
    json.BeginObject();
    WriteIdentity(json, result.camera, Interfaces());
    json.Member("stream", options.stream);
    json.Member("ended_by", EndText(result.end));
    json.Member("folder", options.folder);
    json.Member("first_file", result.first_file);
    json.Member("last_file", result.last_file);
    json.Member("images_taken", result.taken);
    json.Member("images_written", result.written.images);
    json.Member("images_left_out", result.left_out);
    json.Member("images_incomplete", result.incomplete);
    json.Member("images_incomplete_dropped", result.incomplete_dropped);
    json.Member("images_skipped", uint64_t{totals.last().imagesSkipped});
    json.Member("packets_lost", uint64_t{totals.last().missingPackets});
    json.Member("bytes_lost", uint64_t{totals.last().bytesLost});
    json.Member("bytes_received", totals.bytes());
    json.Member("seconds", totals.seconds());
    json.Member("images_per_second", totals.images_per_second());
    json.Member("bytes_per_second", totals.bytes_per_second());
    json.Member("file_bytes", result.written.file_bytes);
    json.Member("disk_bytes_per_second", DiskRate(result.written));
    json.EndObject();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
}

CommandError NotWritten(const Result& result) {
    const uint64_t count = result.taken - result.left_out - result.written.images;
    std::string advice = "Choose another folder with -o.";
    if (result.failure.error == EEXIST) {
        advice = "Replace files that exist with --overwrite, or choose another folder with -o.";
    } else if (result.failure.error == ENOSPC || result.failure.error == EDQUOT) {
        advice = "The disk is full: make room, or choose another folder with -o.";
    }
    return {EXIT_LOCAL,
            Format("%llu image%s not written: ", Print(count), count == 1 ? " was" : "s were") +
                result.failure.text,
            advice};
}

// What the run means for the exit code; throws when it is an error.
int Judge(const Options& options, const Result& result) {
    if (result.failure) throw NotWritten(result);
    if (result.end == End::kLost) {
        throw CommandError(EXIT_LOST, "the camera does not answer any more",
                           "Check its cable and power; `kelo list` tells when it is back.");
    }
    if (result.end == End::kNoImage) {
        throw CommandError(EXIT_LOST, Format("no image came for %u ms", options.wait_ms),
                           "A camera that waits for a trigger sends none: `kelo get CAMERA "
                           "REG_TRIGGERMODE` (0: none). `kelo doctor CAMERA` looks for what keeps "
                           "images away; --wait waits longer.");
    }
    if (result.left_out > 0) {
        throw CommandError(
            EXIT_LOCAL,
            Format("%llu of %llu images were left out: ", Print(result.left_out),
                   Print(result.taken)) +
                TooSlowText(result.written, result.totals.bytes_per_second(), options.format),
            options.format == FileFormat::kPng
                ? "--format pgm or raw needs no compression; a larger --queue-mb bridges longer."
                : "Choose a faster disk with -o; a larger --queue-mb bridges longer.");
    }
    const bool all = options.count == 0 || result.taken >= options.count;
    return all && !result.abandoned ? EXIT_OK : EXIT_INTERRUPTED;
}

// ---- The run
// -------------------------------------------------------------------------------------

void MakeFolder(const std::string& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    std::string reason = error ? error.message() : "";
    if (!error && access(folder.c_str(), W_OK | X_OK) != 0) reason = std::strerror(errno);
    if (reason.empty()) return;
    throw CommandError(EXIT_LOCAL, "the folder " + folder + " is no use: " + reason,
                       "Choose another one with -o.");
}

// Waits for the disk; Ctrl-C while it waits leaves the rest out.
void Finish(const Context& context, ImageWriter& writer, Result& result) {
    const int seen = context.interrupt.Count();
    bool said = false;
    while (!writer.WaitIdle(milliseconds(100))) {
        if (context.interrupt.Count() > seen) {
            result.abandoned = true;
            break;
        }
        if (!said) {
            const auto waiting = writer.Now().queue_images;
            context.Say(waiting == 1
                            ? "kelo: 1 image waits to be written; Ctrl-C leaves it out"
                            : Format("kelo: %llu images wait to be written; Ctrl-C leaves them out",
                                     Print(waiting)));
        }
        said = true;
    }
    result.written = writer.Now();
    result.failure = writer.Failure();
}

void Receive(const Context& context, const Options& options, ImageWriter& writer, Result& result) {
    const Library library(context);
    result.camera = SelectCamera(context, options.camera);
    const OpenCamera camera(result.camera);
    Grab(context, options, writer, result).Run(camera);
}

int Run(const Context& context, const Options& options) {
    MakeFolder(options.folder);
    const unsigned cores = std::max(1U, std::thread::hardware_concurrency());
    ImageWriter writer({.threads = options.threads != 0 ? options.threads : std::min(cores, 8U),
                        .queue_bytes_max = uint64_t{options.queue_mb} << 20,
                        .overwrite = options.overwrite,
                        .png_compression = options.compression});
    Result result;
    Receive(context, options, writer, result);
    if (!context.json && isatty(fileno(context.err)) != 0) std::fprintf(context.err, "\r\x1b[K");
    Finish(context, writer, result);
    if (context.json) {
        PrintJson(context, options, result);
    } else {
        PrintText(context, options, result);
    }
    if (result.abandoned) {
        // A thread may hang in the write that nobody wants to wait for.
        context.Say(
            Format("kelo: %llu images were not written", Print(result.written.queue_images)));
        std::fflush(context.out);
        _exit(EXIT_INTERRUPTED);
    }
    return Judge(options, result);
}

void AddOptions(CLI::App& command, Options& options) {
    static const std::map<std::string, FileFormat> FORMATS = {
        {"png", FileFormat::kPng}, {"pgm", FileFormat::kPgm}, {"raw", FileFormat::kRaw}};
    command.add_option("CAMERA", options.camera, CAMERA_HELP)->required()->type_name("");
    command.add_option("-n,--count", options.count, "Images; 0: until Ctrl-C")
        ->capture_default_str()
        ->type_name("N");
    command
        .add_option("-o,--output", options.folder, "Folder of the files; made if it is not there")
        ->capture_default_str()
        ->type_name("DIR");
    command.add_option("--stream", options.stream, "Stream of the camera, from 0")
        ->capture_default_str()
        ->type_name("S")
        ->check(CLI::Range(0, STREAMS_MAX - 1).description(""));
    command.add_option("--format", options.format, "png, pgm or raw")
        ->default_str("png")
        ->type_name("FORMAT")
        ->transform(CLI::CheckedTransformer(FORMATS).description(""));
    command.add_option("--prefix", options.prefix, "What file names begin with")
        ->capture_default_str()
        ->type_name("TEXT");
    command.add_option("--wait", options.wait_ms, "Give up when no image comes for so long")
        ->capture_default_str()
        ->type_name("MS")
        ->check(CLI::Range(1, 86400000).description(""));
    command.add_flag("--drop-incomplete", options.drop_incomplete,
                     "Do not write images with lost packets, nor count them");
    command.add_flag("--overwrite", options.overwrite, "Replace files that exist");
}

void AddTuning(CLI::App& command, Options& options) {
    command.add_option("--compression", options.compression, "Of PNG, 0 (none) to 9 (slow)")
        ->capture_default_str()
        ->type_name("LEVEL")
        ->check(CLI::Range(0, 9).description(""));
    command.add_option("--threads", options.threads, "Threads that write; 0: as many as cores")
        ->capture_default_str()
        ->type_name("N")
        ->check(CLI::Range(0, 64).description(""));
    command.add_option("--queue-mb", options.queue_mb, "Memory for images that wait for the disk")
        ->capture_default_str()
        ->type_name("MB")
        ->check(CLI::Range(1, 1 << 20).description(""));
}

}  // namespace

void AddGrabCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command =
        AddCommand(app, context, TEXT, [&context, options] { return Run(context, *options); });
    AddOptions(command, *options);
    AddTuning(command, *options);
}

}  // namespace kelotool
