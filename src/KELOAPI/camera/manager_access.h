#pragma once

// How the session's bodies use the manager. In a header of its own because the manager's header
// includes the session's.

#include "kelo_camera.h"
#include "kelo_manager.h"

template <typename Result, typename Use>
Result KELOCamera::WithManager(Result otherwise, Use use) {
    if (gate == nullptr) return otherwise;
    const AccessGate::Pass pass(*gate);
    return pass ? use(*Manager) : otherwise;
}

template <typename Use>
void KELOCamera::WithManager(Use use) {
    if (gate == nullptr) return;
    const AccessGate::Pass pass(*gate);
    if (pass) use(*Manager);
}
