#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>

#include "kelo_fw_common.h"

// Checks a firmware image file, cuts it into the payloads that program a camera, and compares what
// the camera reads back with the file. Does no network traffic: its owner carries the payloads and
// the replies.
//
// Owned by a camera session. One thread at a time drives a run; GetProgress and AbortionAllowed
// may be read by any thread meanwhile. Nothing is shared between clients, so that several cameras
// can be programmed side by side.
//
//  1. The file is opened once per run: what is checked, sent and compared comes from one open file.
//  2. No finish payload is given out unless the bytes sent are the bytes that were checked.
//  3. The progress of a run that does not fail never goes backwards.
class TKeloFWClient {
public:
    using TClock = uint32_t (*)();

    // maxPayload is the size of every buffer given to GetNextPayload, in bytes; clock tells
    // seconds. Throws std::runtime_error if maxPayload is above FW_MAX_PAYLOAD_LIMIT.
    explicit TKeloFWClient(int maxPayload, TClock clock = &GetTimeSec);
    virtual ~TKeloFWClient();
    TKeloFWClient(const TKeloFWClient&) = delete;
    TKeloFWClient& operator=(const TKeloFWClient&) = delete;

    // Checks the whole file and prepares a run. Throws std::runtime_error with a fixed text if the
    // file cannot be read or is no valid image.
    void StartProgramming(const std::string& path, uint32_t emblemOffset);
    // Prepares reading back from an address, without programming before it.
    void StartReading(uint32_t address);
    // For a run that does not come to its end by itself.
    void CloseFileIfNeeded() { File.reset(); }

    // Fills buf with the next payload and with zeros behind it. R_OK: length bytes are to be
    // written to the camera, which may take timeoutSec. R_READ: no payload, read back from now on.
    // R_END: the run is over.
    TResult GetNextPayload(void* buf, int& length, int& timeoutSec);

    // Takes a read-back reply apart. With R_OK data points into the reply: count bytes that the
    // camera holds at address.
    TResult ExtractReadData(const void* reply, int replyLength, const void*& data,
                            uint32_t& address, int& count);
    // Compares what ExtractReadData gave with the file. R_END: equal, and the file ends here.
    TResult CheckReadData(const void* data, uint32_t address, int count);

    // Notes how far sending has come; once the run is over, that it is done.
    void UpdateProgress(int bytesDone);
    void SetProgressError(TResult result);
    // Stores 0 to 100 and returns R_OK, or the error that ended the run.
    TResult GetProgress(int* percent);

    // Whether a write may still be interrupted; not from the finish payload on, which makes the
    // camera write its flash.
    std::atomic<bool> AbortionAllowed{false};

private:
    struct FileCloser {
        void operator()(FILE* file) const { fclose(file); }
    };
    using FilePtr = std::unique_ptr<FILE, FileCloser>;
    // What was read or sent, byte for byte.
    struct TContent {
        uint64_t Length = 0;
        uint32_t Crc = FW_CRC_START;
        void Add(const uint8_t* bytes, size_t count);
        bool operator==(const TContent&) const = default;
    };
    class TImageReader;

    static uint32_t GetTimeSec();
    static FilePtr OpenFile(const std::string& path);
    static uint64_t SizeOf(FILE* file);

    void BeginProgress(uint64_t fileSize);
    void SetFileSize(uint64_t fileSize);
    TResult PutWords(void* buf, std::initializer_list<uint32_t> words, int& length) const;
    TResult PutData(void* buf, int& length, int& timeoutSec);
    TResult PutFinish(void* buf, int& length, int& timeoutSec);
    TResult PutReadPrepare(void* buf, int& length, int& timeoutSec);
    TResult PlaceReply(uint32_t& address);
    uint64_t EstimatePercent() const;

    // Constant after construction.
    const int MaxPayload;
    const TClock Clock;

    // Belong to the thread that drives the run.
    FilePtr File;
    TState State = ST_IDLE;
    uint32_t CurrentAddress = 0;  // next offset to send, or expected in the next reply
    bool StaleReply = false;      // the last reply repeats an earlier address
    TContent Checked;
    TContent Sent;

    // Guarded by ProgressMutex.
    std::mutex ProgressMutex;
    uint32_t FileSize = 0;
    uint32_t FileSizeDone = 0;
    uint32_t ProgressStartTime = 0;
    uint32_t FlashWorkStartTime = 0;
    bool ProgressDone = false;
    TResult ProgressStatus = R_OK;
    int LargestPercent = 0;
};
