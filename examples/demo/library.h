#pragma once

#include <string>
#include <vector>

#include "kelo_api.h"

namespace demo {

// Throws std::runtime_error that names what failed and the status.
void Require(KELO_API_STATUS status, const std::string& what);

// keloInit and keloRelease.
class Library {
public:
    Library() { Require(keloInit(), "keloInit"); }
    ~Library() { keloRelease(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

// An opened camera, closed at the end.
class OpenCamera {
public:
    explicit OpenCamera(CAM_HANDLE handle);
    ~OpenCamera() { keloCloseCamera(handle_); }
    OpenCamera(const OpenCamera&) = delete;
    OpenCamera& operator=(const OpenCamera&) = delete;

    CAM_HANDLE Handle() const { return handle_; }

private:
    CAM_HANDLE handle_;
};

// Every camera that answers within the time.
std::vector<EXT_CAM_INFO> Discover(uint32_t milliseconds);

// The camera with that address among those; null if it is not there.
const EXT_CAM_INFO* FindByAddress(const std::vector<EXT_CAM_INFO>& cameras, uint32_t address);

std::string AddressText(uint32_t address);

}  // namespace demo
