#pragma once

// The library's state, the one manager, and the boundary that no exception crosses. Every exported
// function that needs the manager or a camera goes through one of the helpers here.

#include <memory>

#include "kelo_api.h"
#include "kelo_camera.h"
#include "kelo_manager.h"

namespace kelo {

// Empty before keloInit and after keloRelease. Whoever holds it keeps the manager for that long.
std::shared_ptr<KELOManager> CurrentManager();

// Makes the manager if there is none. Throws what its construction throws.
void CreateManager();

// Takes the manager away from new calls, waits for those that are inside and destroys it.
void DestroyManager();

// Runs an exported function's body; whatever it throws becomes the value otherwise.
template <typename Result, typename Body>
Result Guarded(Result otherwise, Body body) noexcept {
    try {
        return body();
    } catch (...) {
        return otherwise;
    }
}

// The body gets the manager; without one the result is unknown.
template <typename Result, typename Body>
Result WithManager(Result unknown, Body body) noexcept {
    return Guarded(unknown, [&]() -> Result {
        const auto manager = CurrentManager();
        return manager != nullptr ? body(*manager) : unknown;
    });
}

// The body gets the camera, which lives at least until it returns; for a handle that names none
// the result is unknown.
template <typename Result, typename Body>
Result WithCamera(CAM_HANDLE camera_id, Result unknown, Body body) noexcept {
    return WithManager(unknown, [&](KELOManager& manager) -> Result {
        const auto camera = manager.FindHandle(camera_id);
        return camera != nullptr ? body(camera) : unknown;
    });
}

}  // namespace kelo
