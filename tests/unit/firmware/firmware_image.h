#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelo::test {

// Where the emblem lies in an image file, and the shortest file that has one.
constexpr size_t kEmblemOffset = 4259824;
constexpr size_t kEmblemSize = 12;
constexpr size_t kShortestImage = kEmblemOffset + kEmblemSize;

using Bytes = std::vector<uint8_t>;

void StoreBigEndian(Bytes& bytes, size_t offset, uint32_t word);

// A valid image of the given size. One that is too short for its emblem has none.
Bytes MakeImage(size_t size, size_t emblemOffset = kEmblemOffset);

// Puts magic, length and checksum of the present content into the emblem.
void Seal(Bytes& image, size_t emblemOffset = kEmblemOffset);

// A file in a directory of its own; both are gone with the object.
class TempFile {
public:
    explicit TempFile(const Bytes& content);
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const std::string& Path() const { return path_; }
    const std::string& Directory() const { return directory_; }
    // Overwrites a part of the file in place.
    void Write(size_t offset, const Bytes& content) const;
    void Resize(size_t size) const;

private:
    std::string directory_;
    std::string path_;
};

}  // namespace kelo::test
