// Decodes run-length coded images of a laser line and tells where the line is.
//   profile [IMAGES]
#include <cstdlib>
#include <iostream>

#include "kelo.hpp"

namespace {

// The row of the brightest pixel of a column.
std::size_t LineAt(const std::vector<std::uint8_t>& pixels, std::size_t width, std::size_t column) {
    std::size_t brightest = column;
    for (std::size_t i = column; i < pixels.size(); i += width) {
        if (pixels[i] > pixels[brightest]) brightest = i;
    }
    return brightest / width;
}

}  // namespace

int main(int argc, char** argv) try {
    int images = argc > 1 ? std::atoi(argv[1]) : 10;
    kelo::Library::log(false);
    const kelo::Library library;
    const kelo::Camera camera = library.open(library.discover().at(0));
    const kelo::Acquisition acquisition = camera.start();
    // One vector for all images: it keeps its memory.
    std::vector<std::uint8_t> pixels;
    for (const kelo::Image& image : camera.stream(0, std::chrono::seconds(2))) {
        if (!image.decode(pixels).whole()) {
            std::cout << "image " << image.number() << " is damaged\n";
            continue;
        }
        const std::size_t width = image.width();
        std::cout << "image " << image.number() << ": " << image.data().size() << " bytes, line at "
                  << LineAt(pixels, width, width / 4) << ' ' << LineAt(pixels, width, width / 2)
                  << ' ' << LineAt(pixels, width, width * 3 / 4) << '\n';
        if (--images == 0) break;
    }
    return images == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
