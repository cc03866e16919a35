// Saves 8-bit images, and decoded run-length coded ones, as image-NUMBER.png. Uses libpng.
//   save_png [IMAGES]
#include <cstdlib>
#include <cstring>
#include <iostream>

#include <png.h>

#include "kelo.hpp"

namespace {

void WritePng(const std::string& path, unsigned width, unsigned height, kelo::Bytes pixels) {
    if (pixels.size() < std::size_t{width} * height) {
        throw std::runtime_error(path + ": there are fewer pixels than the picture has");
    }
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    png.width = width;
    png.height = height;
    png.format = PNG_FORMAT_GRAY;
    if (png_image_write_to_file(&png, path.c_str(), 0, pixels.data(), 0, nullptr) == 0) {
        throw std::runtime_error("cannot write " + path + ": " + png.message);
    }
}

}  // namespace

int main(int argc, char** argv) try {
    int images = argc > 1 ? std::atoi(argv[1]) : 1;
    kelo::Library::log(false);
    const kelo::Library library;
    const kelo::Camera camera = library.open(library.discover().at(0));
    const kelo::Acquisition acquisition = camera.start();
    std::vector<std::uint8_t> decoded;
    for (const kelo::Image& image : camera.stream(0, std::chrono::seconds(2))) {
        kelo::Bytes pixels = image.pixels();
        if (image.run_length_coded()) {
            image.decode(decoded);
            pixels = decoded;
        }
        const std::string path = "image-" + std::to_string(image.number()) + ".png";
        // While this image is held the next ones gather in memory; nothing is lost.
        WritePng(path, image.width(), image.height(), pixels);
        std::cout << path << ": " << image.width() << " x " << image.height() << '\n';
        if (--images == 0) break;
    }
    return images == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
