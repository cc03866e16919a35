#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "image_file.h"

namespace kelotool {

// One image on its way into a file.
struct WriteJob {
    std::string path;
    FileFormat format = FileFormat::kRaw;
    // Of a picture; a raw file is the data as it is.
    uint32_t width = 0;
    uint32_t height = 0;
    int bits = 8;
    size_t pixels_offset = 0;  // where the pixels begin in the data
    std::vector<uint8_t> data;
};

// Why there is no file.
struct WriteFailure {
    int error = 0;  // errno; 0 when it was not the system that refused
    std::string text;

    explicit operator bool() const { return !text.empty(); }
};

// Writes images into files on threads of its own, so that whoever receives them never waits for a
// disk. What waits to be written is bounded in bytes: when the bound is reached, no buffer is given
// out, and the caller leaves the image out.
//
// Owned by one thread, which calls every function; the threads that write live as long as the
// object. Every buffer that was borrowed is submitted or given back.
//
// The first failure of a file (a full disk, say) is kept and nothing more is written.
class ImageWriter {
public:
    struct Options {
        unsigned threads = 2;
        uint64_t queue_bytes_max = 256U << 20;
        bool overwrite = false;
        int png_compression = 1;
    };
    struct Counters {
        uint64_t images = 0;                  // that have become files
        uint64_t image_bytes = 0;             // of them, as they came
        uint64_t file_bytes = 0;              // of them, as they were written
        uint64_t images_lost = 0;             // submitted, but not written, because of a failure
        uint64_t queue_bytes = 0;             // waiting or under way now
        uint64_t queue_images = 0;            // the same
        std::chrono::nanoseconds encoding{};  // all threads' time together
        std::chrono::nanoseconds writing{};   // the same
        // Since the first image that could be written.
        std::chrono::nanoseconds elapsed{};
    };

    explicit ImageWriter(const Options& options);
    // Throws away what has not been written.
    ~ImageWriter();
    ImageWriter(const ImageWriter&) = delete;
    ImageWriter& operator=(const ImageWriter&) = delete;

    // A buffer of that size, of unknown contents. None when the bound is reached; an image that is
    // larger than the bound gets one when nothing else waits.
    std::optional<std::vector<uint8_t>> Borrow(size_t bytes);
    // The job's data is the borrowed buffer.
    void Submit(WriteJob job);
    void GiveBack(std::vector<uint8_t> buffer);

    // Waits until all is written, or until the time is over; true when all is.
    bool WaitIdle(std::chrono::milliseconds limit);
    Counters Now() const;
    // What failed first; no text when nothing did.
    WriteFailure Failure() const;

private:
    using Clock = std::chrono::steady_clock;
    // What a thread needs for one file after the other.
    struct Scratch {
        std::vector<uint8_t> file;
        std::chrono::nanoseconds encoding{};
        std::chrono::nanoseconds writing{};
        WriteFailure failure;
    };

    void Run();
    bool Next(WriteJob& job);
    bool Write(const WriteJob& job, Scratch& scratch) const;
    void Done(WriteJob& job, bool written, const Scratch& scratch);

    const Options options_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::condition_variable job_came_;
    std::condition_variable idle_;
    std::deque<WriteJob> jobs_;
    std::vector<std::vector<uint8_t>>
        spare_;  // to be used again: fresh pages cost more than copies
    Counters counters_;
    uint64_t borrowed_bytes_ = 0;
    std::optional<Clock::time_point> begin_;
    WriteFailure failure_;
    bool stop_ = false;

    std::vector<std::thread> threads_;
};

// Writes a file at one go and removes it again when that fails. An existing one is an error unless
// it may be overwritten.
WriteFailure WriteWholeFile(const std::string& path, const std::vector<uint8_t>& contents,
                            bool overwrite);

}  // namespace kelotool
