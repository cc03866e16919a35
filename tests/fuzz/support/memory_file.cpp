#include "memory_file.h"

#include <sys/mman.h>
#include <unistd.h>

#include "fuzz.h"

namespace kelo::fuzz {

MemoryFile::MemoryFile() : file_(memfd_create("firmware", MFD_CLOEXEC)) {
    Require(file_.IsOpen(), "a file in memory");
}

void MemoryFile::Set(std::span<const uint8_t> content) {
    Resize(0);
    Append(0, content);
}

void MemoryFile::Append(size_t offset, std::span<const uint8_t> content) {
    const ssize_t written =
        pwrite(file_.Get(), content.data(), content.size(), static_cast<off_t>(offset));
    Require(written == static_cast<ssize_t>(content.size()), "the file in memory can be written");
}

void MemoryFile::Overwrite(size_t offset, uint8_t byte) {
    Require(pwrite(file_.Get(), &byte, 1, static_cast<off_t>(offset)) == 1, "a changed byte");
}

void MemoryFile::Resize(size_t size) {
    Require(ftruncate(file_.Get(), static_cast<off_t>(size)) == 0, "a changed size");
}

}  // namespace kelo::fuzz
