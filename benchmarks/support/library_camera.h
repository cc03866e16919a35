#pragma once

#include "kelo_api.h"

namespace kelo::bench {

// The library started, and the benchmark camera found and opened through its exported functions.
// Throws std::runtime_error where a step fails.
class LibraryCamera {
public:
    LibraryCamera();
    ~LibraryCamera();
    LibraryCamera(const LibraryCamera&) = delete;
    LibraryCamera& operator=(const LibraryCamera&) = delete;

    CAM_HANDLE Handle() const { return handle_; }

private:
    void Find();

    CAM_HANDLE handle_ = 0;
};

}  // namespace kelo::bench
