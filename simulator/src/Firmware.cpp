#include "kelosim/firmware.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <random>
#include <stdexcept>
#include <system_error>

#include "Wire.h"
#include "crc32.h"

namespace kelosim {
namespace {

void SetEmblem(std::vector<uint8_t>& image, uint32_t magic, uint32_t length, uint32_t crc) {
    std::vector<uint8_t> emblem;
    wire::Writer(emblem).U32(magic).U32(length).U32(crc);
    std::copy(emblem.begin(), emblem.end(), image.begin() + kEmblemOffset);
}

std::vector<uint8_t> RandomBytes(uint32_t size, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<uint8_t> bytes(size);
    uint64_t word = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i % 8 == 0) word = random();
        bytes[i] = static_cast<uint8_t>(word >> (i % 8 * 8));
    }
    return bytes;
}

}  // namespace

std::vector<uint8_t> MakeFirmwareImage(uint32_t size, uint64_t seed, FirmwareSpoil spoil) {
    if (size < kMinFirmwareSize) {
        throw std::invalid_argument("a firmware image has at least " +
                                    std::to_string(kMinFirmwareSize) + " bytes");
    }
    std::vector<uint8_t> image = RandomBytes(size, seed);
    // The checksum is that of the image without its emblem, which is 0xFF then.
    SetEmblem(image, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF);
    const uint32_t crc = kelo_crc32(kEmblemCrcStart, image.data(), size);
    SetEmblem(image, spoil == FirmwareSpoil::kMagic ? kEmblemMagic ^ 1 : kEmblemMagic,
              spoil == FirmwareSpoil::kLength ? size + 1 : size,
              spoil == FirmwareSpoil::kCrc ? crc ^ 1 : crc);
    if (spoil == FirmwareSpoil::kTooShort) image.resize(kEmblemOffset);
    return image;
}

void WriteFirmwareFile(const std::string& path, std::span<const uint8_t> image) {
    struct Close {
        void operator()(FILE* file) const { fclose(file); }
    };
    std::unique_ptr<FILE, Close> file(fopen(path.c_str(), "wb"));
    const bool written = file &&
                         fwrite(image.data(), 1, image.size(), file.get()) == image.size() &&
                         fflush(file.get()) == 0;
    if (!written) {
        throw std::runtime_error("cannot write " + path + ": " +
                                 std::generic_category().message(errno));
    }
}

}  // namespace kelosim
