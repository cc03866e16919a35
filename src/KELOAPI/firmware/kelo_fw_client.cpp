#include "kelo_fw_client.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "SigpipeBlock.h"
#include "crc32.h"
#include "utils.h"

namespace {

constexpr uint32_t kPieceSize = 0x100000;
constexpr int kAddressSize = 4;
constexpr int kReplyHeaderSize = 8;

// The model behind the progress: a payload every 2 ms, then the camera's work on its flash.
constexpr int kPayloadsPerSecond = 500;
constexpr uint64_t kFlashWorkSec = FW_FINISH_TIMEOUT_SEC;
constexpr uint64_t kNsPerSec = 1000000000;

uint32_t LoadWord(const uint8_t* bytes) {
    uint32_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    return kelo_ntohl(word);
}

void StoreWord(uint8_t* bytes, uint32_t word) {
    word = kelo_htonl(word);
    std::memcpy(bytes, &word, sizeof(word));
}

}  // namespace

void TKeloFWClient::TContent::Add(const uint8_t* bytes, size_t count) {
    Length += count;
    Crc = kelo_crc32(Crc, bytes, static_cast<uint32_t>(count));
}

// Reads an image file once from its start to its end and judges it.
class TKeloFWClient::TImageReader {
public:
    TImageReader(FILE* file, uint32_t emblemOffset)
        : file_(file), emblem_offset_(emblemOffset), piece_(kPieceSize) {
        emblem_.fill(0xFFFFFFFF);
    }

    // Returns what the file holds. Throws if it is no valid image.
    TContent ReadAndCheck() {
        // Nothing makes a file valid that is longer than its length item can tell, so not all of
        // it needs to be read.
        const bool tooLong = SizeOf(file_) > std::numeric_limits<uint32_t>::max();
        while (ReadPiece() && !(tooLong && content_.Length > emblem_offset_)) {
        }
        if (emblem_[EMBLEM_ITEM_MAGIC] != FW_EMBLEM_MAGIC) {
            throw std::runtime_error("The file has no valid magic");
        }
        if (tooLong || content_.Length != emblem_[EMBLEM_ITEM_IMAGE_LEN]) {
            throw std::runtime_error("The file does not have the right length");
        }
        if (emblem_[EMBLEM_ITEM_CRC] != masked_crc_) {
            throw std::runtime_error("The file has no valid crc");
        }
        return content_;
    }

private:
    // Whether another piece may follow.
    bool ReadPiece() {
        const size_t count = fread(piece_.data(), 1, piece_.size(), file_);
        if (ferror(file_) != 0) throw std::runtime_error("while reading for checking");
        if (count == 0) return false;
        const uint64_t start = content_.Length;
        content_.Add(piece_.data(), count);
        TakeEmblem(start, count);
        masked_crc_ = kelo_crc32(masked_crc_, piece_.data(), static_cast<uint32_t>(count));
        // A device may have no end.
        return count == piece_.size() && content_.Length <= std::numeric_limits<uint32_t>::max();
    }

    // Moves the emblem out of the piece if it lies there.
    void TakeEmblem(uint64_t start, size_t count) {
        if (emblem_offset_ < start || emblem_offset_ - start >= kPieceSize) return;
        const uint64_t offset = emblem_offset_ - start;
        if (offset + FW_EMBLEM_SIZE > kPieceSize) {
            throw std::runtime_error(
                "the emblem falls on the boundary of MAX; try changing MAX or move the emblem...");
        }
        // What the file does not reach is left over from the piece before.
        if (offset + FW_EMBLEM_SIZE > count) return;
        for (size_t item = 0; item < emblem_.size(); ++item) {
            emblem_[item] = LoadWord(&piece_[offset + item * 4]);
        }
        std::fill_n(piece_.begin() + static_cast<ptrdiff_t>(offset), FW_EMBLEM_SIZE, uint8_t{0xFF});
    }

    FILE* file_;
    uint64_t emblem_offset_;
    std::vector<uint8_t> piece_;
    std::array<uint32_t, EMBLEM_ITEM_COUNT> emblem_{};
    uint32_t masked_crc_ = FW_CRC_START;
    TContent content_;
};

uint32_t TKeloFWClient::GetTimeSec() {
    return static_cast<uint32_t>(vc_get_time_msec() / 1000);
}

TKeloFWClient::TKeloFWClient(int maxPayload, TClock clock) : MaxPayload(maxPayload), Clock(clock) {
    if (maxPayload > FW_MAX_PAYLOAD_LIMIT) throw std::runtime_error("max payload too high");
}

TKeloFWClient::~TKeloFWClient() = default;

TKeloFWClient::FilePtr TKeloFWClient::OpenFile(const std::string& path) {
    // Without O_NONBLOCK, opening a named pipe would wait for its other end; reading may wait.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) throw std::runtime_error("fopen failed");
    fcntl(fd, F_SETFL, 0);
    FilePtr file(fdopen(fd, "rb"));
    if (file == nullptr) {
        close(fd);
        throw std::runtime_error("fopen failed");
    }
    return file;
}

uint64_t TKeloFWClient::SizeOf(FILE* file) {
    struct stat status {};
    return fstat(fileno(file), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

void TKeloFWClient::StartProgramming(const std::string& path, uint32_t emblemOffset) {
    File.reset();
    FilePtr file = OpenFile(path);
    BeginProgress(SizeOf(file.get()));
    const TContent checked = TImageReader(file.get(), emblemOffset).ReadAndCheck();
    if (fseeko(file.get(), 0, SEEK_SET) != 0) {
        throw std::runtime_error("The file can not be rewind");
    }
    File = std::move(file);
    SetFileSize(checked.Length);
    Checked = checked;
    Sent = TContent();
    StaleReply = false;
    State = ST_PROG_START;
    CurrentAddress = 0;
    UpdateProgress(0);
}

void TKeloFWClient::StartReading(uint32_t address) {
    State = ST_READ_PREPARE;
    CurrentAddress = address;
}

void TKeloFWClient::BeginProgress(uint64_t fileSize) {
    const std::lock_guard lock(ProgressMutex);
    FileSize = static_cast<uint32_t>(fileSize);
    FileSizeDone = 0;
    ProgressStartTime = Clock();
    ProgressDone = false;
    ProgressStatus = R_OK;
    LargestPercent = 0;
    AbortionAllowed = true;
}

// The file may have grown between the look at its size and the last byte of the check.
void TKeloFWClient::SetFileSize(uint64_t fileSize) {
    const std::lock_guard lock(ProgressMutex);
    FileSize = static_cast<uint32_t>(fileSize);
}

TResult TKeloFWClient::GetNextPayload(void* buf, int& length, int& timeoutSec) {
    switch (State) {
        case ST_IDLE:
            File.reset();
            return R_END;
        case ST_PROG_START:
            State = ST_PROGRAMMING;
            timeoutSec = FW_TIMEOUT_SEC;
            return PutWords(buf, {FW_COMMAND_START}, length);
        case ST_PROGRAMMING:
            return PutData(buf, length, timeoutSec);
        case ST_READ_PREPARE:
            return PutReadPrepare(buf, length, timeoutSec);
        case ST_START_READING:
            State = ST_READING;
            return R_READ;
        case ST_READING:
            State = ST_DONE;
            return R_READ;
        case ST_DONE:
            State = ST_IDLE;
            return R_OK;
    }
    File.reset();
    return R_ERROR;
}

// The zeros behind a short payload matter: the camera is sent more of the buffer than the payload.
TResult TKeloFWClient::PutWords(void* buf, std::initializer_list<uint32_t> words,
                                int& length) const {
    const int size = static_cast<int>(words.size()) * 4;
    if (size > MaxPayload) return R_ERROR;
    std::memset(buf, 0, static_cast<size_t>(MaxPayload));
    auto* bytes = static_cast<uint8_t*>(buf);
    for (const uint32_t word : words) {
        StoreWord(bytes, word);
        bytes += 4;
    }
    length = size;
    return R_OK;
}

TResult TKeloFWClient::PutData(void* buf, int& length, int& timeoutSec) {
    if (File == nullptr || PutWords(buf, {CurrentAddress}, length) != R_OK) return R_ERROR;
    uint8_t* data = static_cast<uint8_t*>(buf) + kAddressSize;
    size_t count = 0;
    if (feof(File.get()) == 0) {
        count = fread(data, 1, static_cast<size_t>(MaxPayload - kAddressSize), File.get());
    }
    if (ferror(File.get()) != 0) {
        File.reset();
        return R_ERROR;
    }
    if (count == 0) return PutFinish(buf, length, timeoutSec);
    Sent.Add(data, count);
    length = kAddressSize + static_cast<int>(count);
    timeoutSec = FW_TIMEOUT_SEC;
    CurrentAddress += static_cast<uint32_t>(count);
    UpdateProgress(static_cast<int>(CurrentAddress));
    return R_OK;
}

TResult TKeloFWClient::PutFinish(void* buf, int& length, int& timeoutSec) {
    // The camera still has its old firmware; it must not start on one that nobody has checked.
    if (Sent != Checked) {
        kelo::Log("The file has changed while it was sent\n");
        File.reset();
        return R_ERROR;
    }
    kelo::Log("ST_PROG_FINISH\n");
    UpdateProgress(static_cast<int>(FileSize));
    PutWords(buf, {FW_COMMAND_FINISH}, length);
    timeoutSec = FW_FINISH_TIMEOUT_SEC;
    State = ST_READ_PREPARE;
    kelo::Log("Setting state to ST_READ_PREPARE, payload length %d B, estimated timeout %d s\n",
              length, timeoutSec);
    AbortionAllowed = false;
    return R_OK;
}

TResult TKeloFWClient::PutReadPrepare(void* buf, int& length, int& timeoutSec) {
    kelo::Log("ST_READ_PREPARE\n");
    if (PutWords(buf, {FW_COMMAND_READ_PREPARE, 0}, length) != R_OK) return R_ERROR;
    CurrentAddress = 0;
    timeoutSec = FW_READ_PREPARE_TIMEOUT_SEC;
    kelo::Log("Setting state to ST_START_READING, estimated timeout 15 s, payload length 8 B\n");
    State = ST_START_READING;
    return R_OK;
}

TResult TKeloFWClient::ExtractReadData(const void* reply, int replyLength, const void*& data,
                                       uint32_t& address, int& count) {
    StaleReply = false;
    if (State != ST_READING || replyLength < kReplyHeaderSize) return R_ERROR;
    const auto* bytes = static_cast<const uint8_t*>(reply);
    uint32_t replyAddress = LoadWord(bytes);
    // A progress mark that the next one overwrites; it is no log line.
    {
        const kelo::SigpipeBlock output_may_be_gone;
        printf("\rFW:0x%X ", replyAddress);
    }
    const TResult placed = PlaceReply(replyAddress);
    if (placed != R_OK) return placed;
    const uint32_t size = LoadWord(bytes + 4);
    if (size > static_cast<uint32_t>(replyLength - kReplyHeaderSize)) return R_ERROR;
    data = bytes + kReplyHeaderSize;
    address = replyAddress;
    count = static_cast<int>(size);
    CurrentAddress += size;
    return R_OK;
}

// Compares the address of a reply with the one that is expected, and puts a stale one right.
TResult TKeloFWClient::PlaceReply(uint32_t& address) {
    if (address == CurrentAddress) return R_OK;
    if (address < CurrentAddress) {
        kelo::Log("BUG OVERIDE: FW: ExtractReadData:  CurrentAddress 0x%X\n", CurrentAddress);
        address = CurrentAddress;
        StaleReply = true;
        return R_OK;
    }
    if (CurrentAddress == 0) {
        kelo::Log("Old firmware on camera: readback not supported\n");
        File.reset();
        State = ST_IDLE;
        return R_END;
    }
    kelo::Log("BUG FATAL: FW: ExtractReadData:  CurrentAddress 0x%X\n", CurrentAddress);
    return R_ERROR;
}

TResult TKeloFWClient::CheckReadData(const void* data, uint32_t address, int count) {
    if (State != ST_READING || count < 0 || count > static_cast<int>(kPieceSize)) return R_ERROR;
    if (StaleReply) return R_OK;
    if (File == nullptr || fseeko(File.get(), address, SEEK_SET) != 0) {
        kelo::Log("CheckReadData fsetpos failed\n");
        return R_ERROR;
    }
    std::vector<uint8_t> expected(static_cast<size_t>(count));
    expected.resize(fread(expected.data(), 1, expected.size(), File.get()));
    const bool atEnd = expected.size() < static_cast<size_t>(count);
    if (atEnd) kelo::Log("CheckReadData: EOF\n");
    // The camera reads the emblem's area back as erased. A piece that begins at the emblem is
    // compared as it is: cameras are not known to answer in such pieces.
    const uint64_t end = uint64_t{address} + expected.size();
    if (address < FW_EMBLEM_OFFSET && end > FW_EMBLEM_OFFSET) {
        const auto emblem = expected.begin() + (FW_EMBLEM_OFFSET - address);
        std::fill_n(emblem, std::min<ptrdiff_t>(FW_EMBLEM_SIZE, expected.end() - emblem),
                    uint8_t{0xFF});
    }
    if (!std::equal(expected.begin(), expected.end(), static_cast<const uint8_t*>(data))) {
        kelo::Log("CheckReadData: verification failed at addr 0x%X\n", address);
        return R_ERROR;
    }
    if (!atEnd) return R_OK;
    File.reset();
    State = ST_IDLE;
    return R_END;
}

void TKeloFWClient::UpdateProgress(int bytesDone) {
    const std::lock_guard lock(ProgressMutex);
    if (State == ST_IDLE) {
        ProgressDone = true;
        return;
    }
    const auto done = static_cast<uint32_t>(bytesDone);
    if (FileSizeDone < FileSize && done == FileSize) FlashWorkStartTime = Clock();
    FileSizeDone = done;
}

void TKeloFWClient::SetProgressError(TResult result) {
    const std::lock_guard lock(ProgressMutex);
    ProgressStatus = result;
}

TResult TKeloFWClient::GetProgress(int* percent) {
    const std::lock_guard lock(ProgressMutex);
    if (ProgressStatus == R_ERROR_TIMEOUT || ProgressStatus == R_ERROR) {
        *percent = 0;
        return ProgressStatus;
    }
    const int estimate = ProgressDone ? 100 : static_cast<int>(EstimatePercent());
    // The wall clock may be set back during a run.
    LargestPercent = std::max(LargestPercent, estimate);
    *percent = LargestPercent;
    return R_OK;
}

uint64_t TKeloFWClient::EstimatePercent() const {
    const auto bytesPerSec = static_cast<uint64_t>(std::max(MaxPayload, 1)) * kPayloadsPerSecond;
    const uint64_t nsPerByte = kNsPerSec / bytesPerSec;
    const uint64_t sendSec = FileSize * nsPerByte / kNsPerSec;
    const uint64_t total = std::max<uint64_t>(sendSec + kFlashWorkSec, 1);
    if (FileSizeDone < FileSize) return FileSizeDone * nsPerByte / kNsPerSec * 100 / total;
    const uint32_t now = Clock();
    const uint64_t flashSec = now > FlashWorkStartTime ? now - FlashWorkStartTime : 0;
    return std::min<uint64_t>(sendSec * 100 / total + flashSec * 100 / kFlashWorkSec, 99);
}
