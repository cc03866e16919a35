#include "image_check.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <thread>

namespace kelo::soak {
namespace {

constexpr int kLongWaitMs = 20000;

// An open camera whose acquisition runs, with a reader for each stream.
struct Run {
    uint32_t camera = 0;
    CAM_HANDLE handle = 0;
    std::vector<std::unique_ptr<StreamReader>> readers;
};

Run StartRun(Soak& soak, uint32_t camera, Order order) {
    order.kind = Order::Kind::kPrepare;
    order.camera = camera;
    soak.Do(order);
    const kelosim::CameraConfig& config = soak.Configs()[camera];
    Run run{.camera = camera, .handle = soak.Find(config), .readers = {}};
    soak.Open(run.handle);
    for (size_t s = 0; s < config.streams.size(); ++s) {
        run.readers.push_back(std::make_unique<StreamReader>(
            soak, run.handle, static_cast<uint8_t>(s), config.streams[s]));
    }
    return run;
}

void TakeAll(std::vector<Run>& runs, uint32_t images) {
    std::vector<std::thread> threads;
    std::vector<std::exception_ptr> errors(runs.size() * kelosim::kMaxStreams);
    size_t next = 0;
    for (Run& run : runs) {
        for (const auto& reader : run.readers) {
            threads.emplace_back([&reader, images, &error = errors[next++]] {
                try {
                    while (reader->Whole().size() < images && reader->TakeOne(kLongWaitMs)) {
                    }
                } catch (...) {
                    error = std::current_exception();
                }
            });
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const std::exception_ptr& error : errors) {
        if (error) std::rethrow_exception(error);
    }
}

// Every byte that left the camera came, and some image came in parts: the camera's thread, or the
// receiving one, was held up within it, and the timer rightly completed what there was.
bool WasCut(const StreamReader& reader, const Answer& answer) {
    return reader.Bytes() == answer.bytes[reader.Stream()] &&
           reader.Images() > reader.Seen().size();
}

void Judge(Soak& soak, const Run& run, uint32_t images) {
    const Answer answer = soak.Status(run.camera);
    if (answer.starts > 1) soak.InTimeOrWrong("the start was sent again", 200000);
    for (const auto& reader : run.readers) {
        if (reader->Whole().size() == images && reader->Images() == images && reader->InOrder()) {
            continue;
        }
        const std::string text =
            "camera " + std::to_string(run.camera) + " stream " + std::to_string(reader->Stream()) +
            ": " + std::to_string(reader->Whole().size()) + " of " + std::to_string(images) +
            " images whole, " + std::to_string(reader->Images()) + " in all";
        if (WasCut(*reader, answer)) throw Disturbed(text + ", but one was cut by the timer");
        soak.InTimeOrWrong(text);
    }
}

bool IsZero(const uint8_t* begin, size_t size) {
    return std::all_of(begin, begin + size, [](uint8_t byte) { return byte == 0; });
}

}  // namespace

StreamReader::StreamReader(Soak& soak, CAM_HANDLE handle, uint8_t stream,
                           kelosim::StreamConfig config)
    : soak_(soak), handle_(handle), stream_(stream), config_(std::move(config)) {}

bool StreamReader::TakeOne(int timeout_ms) {
    const auto begin = std::chrono::steady_clock::now();
    const IMAGE_BUFFER_HANDLE image = keloGetNextImageTimeout(handle_, stream_, timeout_ms);
    if (image == nullptr) return false;
    soak_.Samples().Took(Sampler::Latency::kWait, std::chrono::steady_clock::now() - begin);
    Check(keloGetNextImage(handle_, stream_) == image, "an image does not stay until it is popped");
    Judge(image);
    keloPopImage(handle_, stream_, image);
    soak_.Samples().CountImages(1);
    return true;
}

void StreamReader::Judge(IMAGE_BUFFER_HANDLE image) {
    const BufferInfo info = *static_cast<const BufferInfo*>(image);
    const uint32_t number = keloGetImageNumber(image);
    const std::vector<uint8_t> sent = config_.Frame(number);
    Check(info.streamNumber == stream_ && info.imageNumber == number, "an image of another stream");
    Check(
        info.imageWidth == config_.source->Width() && info.imageHeight == config_.source->Height(),
        "an image's width or height");
    Check(info.streamFormat == config_.source->Format() && info.headerSize == config_.header_size,
          "an image's format");
    Check(info.bufferLength >= sent.size(), "an image's buffer is too small");
    ++images_;
    in_order_ = in_order_ && (seen_.empty() || number == *seen_.rbegin() + 1);
    seen_.insert(number);
    missing_packets_ += info.bufferStatistics.missingPackets;
    bytes_ += info.bufferStatistics.bytesReceived;
    if (info.bufferStatistics.missingPackets > 0) {
        JudgeDamaged(info, sent);
        return;
    }
    JudgeWhole(image, info, sent);
    whole_.insert(number);
}

void StreamReader::JudgeWhole(IMAGE_BUFFER_HANDLE image, const BufferInfo& info,
                              const std::vector<uint8_t>& sent) const {
    // A packet that came twice counts twice.
    Check(info.bufferStatistics.bytesReceived >= sent.size(), "a whole image is too short");
    Check(info.bufferStatistics.errorFlag == 0 && keloGetImageBytesLost(image) == 0,
          "a whole image counts losses");
    Check(std::memcmp(keloGetImageData(image), sent.data(), sent.size()) == 0,
          "image " + std::to_string(info.imageNumber) + " is not what the camera sent");
    if (info.streamFormat == kelosim::kFormatRunLength) JudgeDecoded(image, info.imageNumber);
}

// Each packet's place holds what was sent, or zeros, and there are no more of the latter than
// packets were lost.
void StreamReader::JudgeDamaged(const BufferInfo& info, const std::vector<uint8_t>& sent) const {
    Check(info.bufferStatistics.errorFlag == 1, "a damaged image's flag");
    const size_t payload = info.bufferStatistics.bytesLost / info.bufferStatistics.missingPackets;
    // Unknown while only the last packet, which is shorter, has come.
    if (payload == 0 || (sent.size() + payload - 1) / payload != info.allPacketsAmount) return;
    const auto* data = reinterpret_cast<const uint8_t*>(info.buffer);
    size_t lost = 0;
    for (size_t at = 0; at < sent.size(); at += payload) {
        const size_t size = std::min(payload, sent.size() - at);
        if (std::memcmp(data + at, sent.data() + at, size) == 0) continue;
        Check(IsZero(data + at, size), "bytes in a damaged image that the camera did not send");
        ++lost;
    }
    Check(lost <= info.bufferStatistics.missingPackets, "a damaged image counts too few losses");
}

void StreamReader::JudgeDecoded(IMAGE_BUFFER_HANDLE image, uint32_t number) const {
    const uint16_t width = config_.source->Width();
    const uint16_t height = config_.source->Height();
    const int size = width * height;
    std::vector<uint8_t> pixels(static_cast<size_t>(size) + 1);
    int status = 0;
    Check(keloGetNextDecodedImage(handle_, stream_, pixels.data(), config_.header_size, size,
                                  &status) == image,
          "decoding returns another image");
    Check(status == 1, "decoding ends with " + std::to_string(status));
    pixels.pop_back();
    Check(pixels == kelosim::LaserProfilePixels(width, height, number), "decoded pixels");
}

void ExpectEveryImage(Soak& soak, const std::vector<uint32_t>& cameras, Order order,
                      const std::function<void(CAM_HANDLE)>& meanwhile) {
    std::vector<Run> runs;
    for (const uint32_t camera : cameras)
        runs.push_back(StartRun(soak, camera, order));
    for (const Run& run : runs)
        soak.Succeeds(keloStartImageAcquisition(run.handle), "start of the acquisition");
    if (meanwhile) meanwhile(runs.front().handle);
    TakeAll(runs, order.images);
    for (const Run& run : runs) {
        Judge(soak, run, order.images);
        for (const auto& reader : run.readers) {
            Check(keloGetPendingImageCount(run.handle, reader->Stream()) == 0, "images are left");
            Check(keloIsBufferEmpty(run.handle, reader->Stream()) == 1, "the buffer is not empty");
        }
        if (soak.Chance(2) == 0) Check(keloStopImageAcquisition(run.handle) == 0, "stop");
        soak.Close(run.handle);
    }
}

}  // namespace kelo::soak
