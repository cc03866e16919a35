// Takes one 8-bit picture with the first camera that answers and writes it to picture.pgm.
#include <fstream>
#include <iostream>

#include "kelo.hpp"

int main() try {
    const kelo::Library library;
    const kelo::Camera camera = library.open(library.discover().at(0));
    const kelo::Acquisition acquisition = camera.start();
    const kelo::Image image = camera.next(0, std::chrono::seconds(2)).value();
    std::ofstream file("picture.pgm", std::ios::binary);
    file << "P5 " << image.width() << ' ' << image.height() << " 255\n";
    file.write(reinterpret_cast<const char*>(image.pixels().data()),
               static_cast<std::streamsize>(image.pixels().size()));
    return file.good() ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
