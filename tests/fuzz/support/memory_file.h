#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "FileDescriptor.h"

namespace kelo::fuzz {

// A file in memory, which others open by its path.
class MemoryFile {
public:
    MemoryFile();

    std::string Path() const { return "/proc/self/fd/" + std::to_string(file_.Get()); }
    void Set(std::span<const uint8_t> content);
    // content from the offset on; what lies between it and the end so far reads as zeros.
    void Append(size_t offset, std::span<const uint8_t> content);
    void Overwrite(size_t offset, uint8_t byte);
    void Resize(size_t size);

private:
    FileDescriptor file_;
};

}  // namespace kelo::fuzz
