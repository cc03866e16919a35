#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelo_api.h"

namespace kelo::bench {

// The library started, and the benchmark's cameras found and opened through its exported
// functions. Throws std::runtime_error where a step fails.
class LibraryCameras {
public:
    // Addresses in host order; the others follow the first.
    explicit LibraryCameras(uint32_t first_address = 0x7F000001, uint32_t count = 1);
    ~LibraryCameras();
    LibraryCameras(const LibraryCameras&) = delete;
    LibraryCameras& operator=(const LibraryCameras&) = delete;

    CAM_HANDLE Handle(size_t camera = 0) const { return handles_[camera]; }
    const std::vector<CAM_HANDLE>& Handles() const { return handles_; }

private:
    void Find(uint32_t first_address);
    void Open();

    std::vector<CAM_HANDLE> handles_;
};

}  // namespace kelo::bench
