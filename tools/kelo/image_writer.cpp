#include "image_writer.h"

#include <cerrno>
#include <cstring>
#include <exception>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelotool {
namespace {

WriteFailure Refused(const std::string& path, int error) {
    return {error, path + ": " + std::strerror(error)};
}

bool WriteAll(int file, const std::vector<uint8_t>& contents) {
    for (size_t done = 0; done < contents.size();) {
        const ssize_t count = write(file, contents.data() + done, contents.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        done += static_cast<size_t>(count);
    }
    return true;
}

// Half a file helps nobody. What is no file of ours (a device, a pipe) stays.
void RemoveFile(int file, const std::string& path) {
    struct stat status {};
    if (fstat(file, &status) == 0 && S_ISREG(status.st_mode)) unlink(path.c_str());
}

}  // namespace

WriteFailure WriteWholeFile(const std::string& path, const std::vector<uint8_t>& contents,
                            bool overwrite) {
    const int how = O_WRONLY | O_CREAT | O_CLOEXEC | (overwrite ? O_TRUNC : O_EXCL);
    const int file = open(path.c_str(), how, 0666);
    if (file < 0) return Refused(path, errno);
    WriteFailure failure;
    if (!WriteAll(file, contents)) {
        failure = Refused(path, errno);
        RemoveFile(file, path);
    }
    // Network file systems tell of a full disk here.
    if (close(file) != 0 && !failure) {
        failure = Refused(path, errno);
        unlink(path.c_str());
    }
    return failure;
}

ImageWriter::ImageWriter(const Options& options) : options_(options) {
    for (unsigned i = 0; i < options.threads; ++i) {
        threads_.emplace_back([this] { Run(); });
        pthread_setname_np(threads_.back().native_handle(), "kelo-write");
    }
}

ImageWriter::~ImageWriter() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
        jobs_.clear();
    }
    job_came_.notify_all();
    for (std::thread& thread : threads_)
        thread.join();
}

std::optional<std::vector<uint8_t>> ImageWriter::Borrow(size_t bytes) {
    std::vector<uint8_t> buffer;
    {
        const std::lock_guard lock(mutex_);
        if (borrowed_bytes_ != 0 && borrowed_bytes_ + bytes > options_.queue_bytes_max) {
            return std::nullopt;
        }
        borrowed_bytes_ += bytes;
        if (!spare_.empty()) {
            buffer = std::move(spare_.back());
            spare_.pop_back();
        }
    }
    buffer.resize(bytes);
    return buffer;
}

void ImageWriter::GiveBack(std::vector<uint8_t> buffer) {
    const std::lock_guard lock(mutex_);
    borrowed_bytes_ -= buffer.size();
    spare_.push_back(std::move(buffer));
}

void ImageWriter::Submit(WriteJob job) {
    {
        const std::lock_guard lock(mutex_);
        if (!begin_) begin_ = Clock::now();
        counters_.queue_bytes += job.data.size();
        ++counters_.queue_images;
        jobs_.push_back(std::move(job));
    }
    job_came_.notify_one();
}

bool ImageWriter::WaitIdle(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return idle_.wait_for(lock, limit, [this] { return counters_.queue_images == 0; });
}

ImageWriter::Counters ImageWriter::Now() const {
    const std::lock_guard lock(mutex_);
    Counters now = counters_;
    if (begin_) now.elapsed = Clock::now() - *begin_;
    return now;
}

WriteFailure ImageWriter::Failure() const {
    const std::lock_guard lock(mutex_);
    return failure_;
}

void ImageWriter::Run() {
    Scratch scratch;
    for (WriteJob job; Next(job);) {
        const bool written = !Failure() && Write(job, scratch);
        Done(job, written, scratch);
    }
}

bool ImageWriter::Next(WriteJob& job) {
    std::unique_lock lock(mutex_);
    job_came_.wait(lock, [this] { return stop_ || !jobs_.empty(); });
    if (stop_) return false;
    job = std::move(jobs_.front());
    jobs_.pop_front();
    return true;
}

bool ImageWriter::Write(const WriteJob& job, Scratch& scratch) const {
    scratch.failure = {};
    const auto begin = Clock::now();
    try {
        Picture picture{.width = job.width, .height = job.height, .bits = job.bits};
        if (job.format != FileFormat::kRaw) {
            picture.pixels = std::span(job.data).subspan(job.pixels_offset, picture.Bytes());
        }
        if (job.format == FileFormat::kPng) {
            EncodePng(picture, options_.png_compression, scratch.file);
        } else if (job.format == FileFormat::kPgm) {
            EncodePgm(picture, scratch.file);
        }
        const auto encoded = Clock::now();
        scratch.failure = WriteWholeFile(
            job.path, job.format == FileFormat::kRaw ? job.data : scratch.file, options_.overwrite);
        scratch.encoding = encoded - begin;
        scratch.writing = Clock::now() - encoded;
    } catch (const std::exception& error) {
        scratch.failure = {0, job.path + ": " + error.what()};
    }
    return !scratch.failure;
}

void ImageWriter::Done(WriteJob& job, bool written, const Scratch& scratch) {
    const std::lock_guard lock(mutex_);
    counters_.queue_bytes -= job.data.size();
    --counters_.queue_images;
    borrowed_bytes_ -= job.data.size();
    if (written) {
        ++counters_.images;
        counters_.image_bytes += job.data.size();
        counters_.file_bytes +=
            job.format == FileFormat::kRaw ? job.data.size() : scratch.file.size();
        counters_.encoding += scratch.encoding;
        counters_.writing += scratch.writing;
    } else {
        ++counters_.images_lost;
        if (!failure_) failure_ = scratch.failure;
    }
    spare_.push_back(std::move(job.data));
    if (counters_.queue_images == 0) idle_.notify_all();
}

}  // namespace kelotool
