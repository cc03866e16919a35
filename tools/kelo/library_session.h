#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "command.h"
#include "kelo_api.h"

namespace kelotool {

// keloInit and keloRelease. One at a time.
class Library {
public:
    explicit Library(const Context& context);
    ~Library() { keloRelease(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

// Every camera that answers within the time.
std::vector<EXT_CAM_INFO> Discover(uint32_t timeout_ms);

// The description, which is 32 bytes of whatever the camera holds.
std::string Description(const EXT_CAM_INFO& camera);
// "NAME at ADDRESS", fit for a terminal.
std::string Title(const EXT_CAM_INFO& camera);

// An opened camera, closed at the end. Throws CommandError when it cannot be opened.
class OpenCamera {
public:
    explicit OpenCamera(const EXT_CAM_INFO& camera);
    ~OpenCamera();
    OpenCamera(const OpenCamera&) = delete;
    OpenCamera& operator=(const OpenCamera&) = delete;

    CAM_HANDLE Handle() const { return handle_; }
    // The library has closed it because it stopped answering.
    bool Lost() const;

private:
    CAM_HANDLE handle_;
};

// Throws what the status means: the camera refused, knows no such thing, or does not answer. `what`
// says what was tried: "reading REG_WIDTH".
void Require(KELO_API_STATUS status, const std::string& what);
const char* StatusText(KELO_API_STATUS status);

}  // namespace kelotool
