// Takes images from a camera that may be switched off, reboot or change its address meanwhile.
//   reconnect [IMAGES]
#include <cstdlib>
#include <iostream>

#include "kelo.hpp"

namespace {

void Tell(const kelo::Gap& gap) {
    std::cout << (gap.reconnected ? "reconnected" : "images lost") << ": image "
              << gap.number_before << ", then " << gap.number_after << " after "
              << std::chrono::duration_cast<std::chrono::milliseconds>(gap.duration).count()
              << " ms; missed: ";
    if (gap.images_missed) {
        std::cout << *gap.images_missed;
    } else {
        std::cout << "unknown, the camera counts anew";
    }
    std::cout << std::endl;
}

void Configure(kelo::Camera& camera) {
    std::cout << "opened " << camera.info().address.text() << std::endl;
    camera.set(kelo::reg::exposure_time, 2000);
    // On a thread of the library.
    camera.on_close([](CAM_HANDLE) { std::cout << "the camera is lost" << std::endl; });
}

}  // namespace

int main(int argc, char** argv) try {
    int images = argc > 1 ? std::atoi(argv[1]) : 1000;
    kelo::Library::log(false);
    const kelo::Library library;
    kelo::ResilientOptions options;
    options.configure = Configure;
    options.on_gap = Tell;
    // The MAC address is what a camera keeps.
    kelo::ResilientSession session(library, library.discover().at(0).mac, options);
    for (const kelo::Image& image : session.stream(0, std::chrono::seconds(60))) {
        if (image.number() % 10 == 0) std::cout << "image " << image.number() << std::endl;
        if (--images == 0) break;
    }
    return images == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
