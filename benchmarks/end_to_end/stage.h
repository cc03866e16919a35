#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "../support/peer.h"
#include "network_path.h"
#include "rows.h"
#include "worker.h"

namespace kelo::bench {

struct Cores {
    int sender = 1;
    int receiver = 0;
};

// A run, and what else went on meanwhile.
struct Run {
    RunResult result;
    // Share of the two cores' time that others took, and more than which spoils a run.
    double foreign_share = 0;
    static constexpr double FOREIGN_SHARE_MAX = 0.1;
};

// Everything that a row needs: the networks, the cameras' process and one process per variant.
// A process makes only one in its life, because it moves into the networks.
class Stage {
public:
    // Throws std::runtime_error with what stands in the way.
    Stage(const Row& row, const Cores& cores);
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    size_t Variants() const { return workers_.size(); }
    // meanwhile is called with the receiving process once the run has begun.
    Run RunVariant(size_t variant, double seconds, double bytes_per_second, uint32_t images = 0,
                   const std::function<void(pid_t)>& meanwhile = {});

    const NetworkPath& Path() const { return path_; }

private:
    Order MakeOrder(double seconds, double bytes_per_second, uint32_t images) const;
    double Busy() const;

    const Row row_;
    const Cores cores_;
    NetworkPath path_;
    std::unique_ptr<Peer> cameras_;
    std::vector<Worker> workers_;
};

}  // namespace kelo::bench
