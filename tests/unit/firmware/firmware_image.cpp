#include "firmware_image.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <stdlib.h>

namespace kelo::test {

namespace {

// The file's checksum, computed bit by bit: independent of the library's table.
uint32_t ImageChecksum(const Bytes& bytes, size_t emblemOffset) {
    uint32_t table[256];
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1) != 0 ? value >> 1 ^ 0xEDB88320u : value >> 1;
        }
        table[i] = value;
    }
    uint32_t crc = 0x5478DE90;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const bool emblem = i >= emblemOffset && i < emblemOffset + kEmblemSize;
        crc = table[(crc ^ (emblem ? 0xFF : bytes[i])) & 0xFF] ^ crc >> 8;
    }
    return crc;
}

}  // namespace

void StoreBigEndian(Bytes& bytes, size_t offset, uint32_t word) {
    for (size_t i = 0; i < 4; ++i)
        bytes.at(offset + i) = static_cast<uint8_t>(word >> (24 - 8 * i));
}

void Seal(Bytes& image, size_t emblemOffset) {
    StoreBigEndian(image, emblemOffset, 0x9AE4601F);
    StoreBigEndian(image, emblemOffset + 4, static_cast<uint32_t>(image.size()));
    StoreBigEndian(image, emblemOffset + 8, ImageChecksum(image, emblemOffset));
}

Bytes MakeImage(size_t size, size_t emblemOffset) {
    Bytes image(size);
    uint32_t state = 1;
    for (uint8_t& byte : image) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(state >> 24);
    }
    if (size >= emblemOffset + kEmblemSize) Seal(image, emblemOffset);
    return image;
}

TempFile::TempFile(const Bytes& content) {
    std::string name = std::filesystem::temp_directory_path() / "kelo-firmware-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
    directory_ = name;
    path_ = directory_ + "/image.bin";
    std::ofstream file(path_, std::ios::binary);
    file.write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    if (!file.flush()) throw std::runtime_error("the temporary file cannot be written");
}

TempFile::~TempFile() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void TempFile::Write(size_t offset, const Bytes& content) const {
    std::fstream file(path_, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    if (!file.flush()) throw std::runtime_error("the temporary file cannot be changed");
}

void TempFile::Resize(size_t size) const {
    std::filesystem::resize_file(path_, size);
}

}  // namespace kelo::test
