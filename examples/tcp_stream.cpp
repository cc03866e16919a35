// Receives a stream over TCP: no packet is lost, however slow the network is.
//   tcp_stream [IMAGES]
#include <cstdlib>
#include <iostream>

#include "kelo.hpp"

int main(int argc, char** argv) try {
    int images = argc > 1 ? std::atoi(argv[1]) : 10;
    kelo::Library::log(false);
    const kelo::Library library;
    const kelo::Camera camera = library.open(library.discover().at(0));

    // Before the start, which connects. Cameras without TCP do not have this register.
    const auto options = kelo::reg::stream(0).options;
    const std::uint32_t before = camera.get(options);
    camera.set(options, before | STREAM_OPTIONS_USE_TCP);
    {
        const kelo::Acquisition acquisition = camera.start();
        for (const kelo::Image& image : camera.stream(0, std::chrono::seconds(2))) {
            std::cout << "image " << image.number() << ": " << image.data().size() << " bytes\n";
            if (--images == 0) break;
        }
    }
    camera.set(options, before);
    return images == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
