#pragma once

// What the firmware image file and the payloads that carry it look like. Every word, in the file
// and in a payload, is big-endian.

#include <cstdint>

#include <fcntl.h>
#include <unistd.h>

// These headers define R_OK for access(). Neither can do it again once both have been read.
#undef R_OK

// Where a run stands.
enum TState {
    ST_IDLE = 0,           // no run, or the run is over
    ST_PROG_START = 1,     // the start payload is next
    ST_PROGRAMMING = 2,    // a data payload is next, or the finish payload behind the last one
    ST_READ_PREPARE = 3,   // the payload that asks for read-back is next
    ST_START_READING = 4,  // the camera has been asked for read-back
    ST_READING = 5,        // read-back replies are expected
    ST_DONE = 6,           // a payload was asked for in the middle of the read-back
};

// How one step of a run ended.
enum TResult {
    R_OK = 0,             // go on
    R_END = 1,            // the run is complete
    R_READ = 2,           // go on with reading back
    R_ERROR_TIMEOUT = 3,  // the camera does not answer
    R_ERROR = 4,          // the run has failed
};

// The words of the emblem, the 12 bytes in the image file by which a firmware is recognised.
enum TEmblemItem {
    EMBLEM_ITEM_MAGIC = 0,      // FW_EMBLEM_MAGIC
    EMBLEM_ITEM_IMAGE_LEN = 1,  // bytes of the whole file
    EMBLEM_ITEM_CRC = 2,        // CRC of the whole file with the emblem's bytes taken as 0xFF
    EMBLEM_ITEM_COUNT = 3,
};

constexpr uint32_t FW_EMBLEM_MAGIC = 0x9AE4601F;
constexpr uint32_t FW_EMBLEM_OFFSET = 0x40FFF0;
constexpr uint32_t FW_EMBLEM_SIZE = EMBLEM_ITEM_COUNT * 4;
// What the file's CRC starts at; the result is stored as it is, without the usual inversion.
constexpr uint32_t FW_CRC_START = 0x5478DE90;

// The first word of a payload: one of these commands, or the file offset of the data behind it.
constexpr uint32_t FW_COMMAND_START = 0xFFFFFF00;
constexpr uint32_t FW_COMMAND_FINISH = 0xFFFFFF01;
constexpr uint32_t FW_COMMAND_READ_PREPARE = 0xFFFFFF02;  // followed by the offset to read from

// Seconds that the camera may take to answer a payload.
constexpr int FW_TIMEOUT_SEC = 1;
constexpr int FW_FINISH_TIMEOUT_SEC = 190;  // it answers after it has written its flash
constexpr int FW_READ_PREPARE_TIMEOUT_SEC = 15;

constexpr int FW_MAX_PAYLOAD_LIMIT = 2000;
