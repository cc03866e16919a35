#include "live_view.h"

#include <cstdio>
#include <utility>

#include <unistd.h>

#include "cameras.h"

namespace demo {

LiveView::LiveView(std::vector<Row> rows)
    : rows_(std::move(rows)), on_terminal_(isatty(STDOUT_FILENO) != 0) {}

void LiveView::Print() {
    if (printed_ && on_terminal_) std::printf("\033[%zuA", rows_.size());
    if (printed_ && !on_terminal_) std::printf("\n");
    printed_ = true;
    for (const Row& row : rows_) {
        const Grabber::Progress now = row.grabber->Now();
        std::printf("  %-15s  %3u of %u images  %6.1f images/s  %6.1f MB/s  %u lost\n",
                    row.name.c_str(), now.images, IMAGES_PER_CAMERA, now.images_per_second,
                    now.megabytes_per_second, now.images_lost);
    }
    std::fflush(stdout);
}

}  // namespace demo
