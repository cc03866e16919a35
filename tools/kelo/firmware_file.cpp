#include "firmware_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

#include <sys/stat.h>

#include "command.h"
#include "crc32.h"
#include "text.h"

namespace kelotool {
namespace {

// The emblem by which an image is recognised: three big-endian words. The checksum is that of the
// whole file with the emblem's bytes taken as 0xFF.
constexpr uint64_t EMBLEM_OFFSET = 0x40FFF0;
constexpr size_t EMBLEM_SIZE = 12;
constexpr uint32_t EMBLEM_MAGIC = 0x9AE4601F;
constexpr uint32_t CRC_START = 0x5478DE90;
constexpr uint64_t SIZE_MAX_BYTES = 256u << 20;

[[noreturn]] void Refuse(const std::string& path, const std::string& why) {
    throw CommandError(EXIT_LOCAL, Printable(path) + ": " + why,
                       "The camera was not touched. Take the file that the camera's maker gives "
                       "out, unpacked and unchanged.");
}

uint32_t WordAt(const std::vector<uint8_t>& bytes, uint64_t offset) {
    uint32_t word = 0;
    for (uint64_t i = 0; i < 4; ++i)
        word = word << 8 | bytes[offset + i];
    return word;
}

std::vector<uint8_t> ReadFile(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) Refuse(path, std::strerror(errno));
    // Reading a pipe might never end.
    if (!S_ISREG(status.st_mode)) Refuse(path, "this is no file");
    const auto size = static_cast<uint64_t>(status.st_size);
    if (size > SIZE_MAX_BYTES) Refuse(path, "far too large for a firmware");
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file) Refuse(path, std::strerror(errno));
    std::vector<uint8_t> bytes(size);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
    if (static_cast<uint64_t>(file.gcount()) != size) Refuse(path, "it cannot be read whole");
    return bytes;
}

}  // namespace

uint64_t CheckFirmwareFile(const std::string& path) {
    std::vector<uint8_t> bytes = ReadFile(path);
    if (bytes.size() < EMBLEM_OFFSET + EMBLEM_SIZE) {
        Refuse(path, Format("no firmware for these cameras: %zu bytes are too few", bytes.size()));
    }
    if (WordAt(bytes, EMBLEM_OFFSET) != EMBLEM_MAGIC) {
        Refuse(path, "no firmware for these cameras: its mark is not there");
    }
    const uint32_t length = WordAt(bytes, EMBLEM_OFFSET + 4);
    if (length != bytes.size()) {
        Refuse(path, Format("damaged: it has %zu bytes and should have %u", bytes.size(), length));
    }
    const uint32_t expected = WordAt(bytes, EMBLEM_OFFSET + 8);
    std::fill_n(bytes.begin() + EMBLEM_OFFSET, EMBLEM_SIZE, uint8_t{0xFF});
    const uint32_t crc = kelo_crc32(CRC_START, bytes.data(), static_cast<uint32_t>(bytes.size()));
    if (crc != expected) Refuse(path, "damaged: its checksum is wrong");
    return bytes.size();
}

}  // namespace kelotool
