// Sets a camera up by its registers and triggers one image after the other by software.
//   trigger [IMAGES]
#include <cstdlib>
#include <iostream>

#include "kelo.hpp"

namespace reg = kelo::reg;

int main(int argc, char** argv) try {
    const int images = argc > 1 ? std::atoi(argv[1]) : 5;
    kelo::Library::log(false);
    const kelo::Library library;
    const kelo::Camera camera = library.open(library.discover().at(0));

    std::cout << "sensor: " << camera.get(reg::sensor_width) << " x "
              << camera.get(reg::sensor_height) << ", at " << camera.get(reg::curr_ip_addr_0).text()
              << '\n';
    // What a camera makes of a value is what comes back.
    std::cout << "exposure time: " << camera.set(reg::exposure_time, 2000) << '\n';
    if (const auto value = camera.try_get(9999); !value) {
        std::cout << value.failure().text() << '\n';
    }

    const std::uint32_t mode_before = camera.get(reg::trigger_mode);
    camera.set(reg::trigger_mode, 1);
    {
        const kelo::Acquisition acquisition = camera.start();
        for (int i = 0; i < images; ++i) {
            camera.execute(reg::trigger_software);
            const kelo::Image image = camera.next(0, std::chrono::seconds(2)).value();
            std::cout << "image " << image.number() << ": " << image.pixels().size() << " bytes\n";
        }
    }
    camera.set(reg::trigger_mode, mode_before);
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
