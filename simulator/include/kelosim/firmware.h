#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kelosim {

// Where a firmware image carries its 12-byte emblem: magic, image length, checksum, big-endian.
inline constexpr uint32_t kEmblemOffset = 0x40FFF0;
inline constexpr uint32_t kEmblemSize = 12;
inline constexpr uint32_t kEmblemMagic = 0x9AE4601F;
inline constexpr uint32_t kEmblemCrcStart = 0x5478DE90;
// The smallest image that holds its emblem.
inline constexpr uint32_t kMinFirmwareSize = kEmblemOffset + kEmblemSize;

// How a camera's flash behaves, also where it misbehaves. Changeable while the camera runs.
struct FirmwareConfig {
    // The step at which the camera stops answering.
    enum class Step { kNone, kStart, kData, kFinish, kReadPrepare, kReadBack };

    uint32_t flash_size = 16u << 20;
    uint32_t flash_time_ms = 0;     // between the finish command and its answer
    uint32_t reboot_time_ms = 200;  // out of the network
    uint32_t piece_size = 504;      // data bytes of one read-back reply, 1 to 504
    bool read_back = true;  // false: an old camera, whose first piece is not the flash's start
    std::optional<uint32_t> corrupt_offset;  // reads back with one bit wrong
    Step stop_at = Step::kNone;
    uint32_t stop_from_offset = 0;  // for kData and kReadBack: the offset from which it is dumb
};

// Ways to spoil an image, each for one of the checks that a client makes.
enum class FirmwareSpoil { kNone, kMagic, kLength, kCrc, kTooShort };

// A valid image of the size, filled by chance from the seed, then spoilt. Throws
// std::invalid_argument when the size cannot hold the emblem. kTooShort cuts the image off in front
// of the emblem.
std::vector<uint8_t> MakeFirmwareImage(uint32_t size, uint64_t seed,
                                       FirmwareSpoil spoil = FirmwareSpoil::kNone);

// Writes the bytes of an image to a file. Throws std::runtime_error with the path and the reason.
void WriteFirmwareFile(const std::string& path, std::span<const uint8_t> image);

}  // namespace kelosim
