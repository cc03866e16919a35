// Takes images from every camera at the same time, on a thread for each.
//   several_cameras [IMAGES]
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <thread>

#include "kelo.hpp"

namespace {

constexpr std::chrono::seconds kPatience(3);

// What a thread leaves behind; errors are values here, because nobody could catch them.
std::string Grab(const kelo::Library& library, const kelo::CameraInfo& info, unsigned wanted) {
    std::ostringstream line;
    line << info.address.text() << ": ";
    const kelo::Result<kelo::Camera> camera = library.try_open(info);
    if (!camera) return line.str() + camera.failure().text();
    const kelo::Result<kelo::Acquisition> acquisition = camera->try_start();
    if (!acquisition) return line.str() + acquisition.failure().text();

    unsigned images = 0;
    std::uint64_t bytes = 0;
    std::uint64_t bytes_lost = 0;
    kelo::ImageRange stream = camera->try_stream(0, kPatience);
    for (const kelo::Image& image : stream) {
        bytes += image.data().size();
        bytes_lost += image.bytes_lost();
        if (++images == wanted) break;
    }
    if (stream.failure()) return line.str() + stream.failure()->text();
    line << images << " images, " << bytes << " bytes, " << bytes_lost << " of them lost";
    return line.str();
}

}  // namespace

int main(int argc, char** argv) try {
    const auto images = static_cast<unsigned>(argc > 1 ? std::atoi(argv[1]) : 100);
    kelo::Library::log(false);
    const kelo::Library library;
    const std::vector<kelo::CameraInfo> cameras = library.discover();
    std::vector<std::string> reports(cameras.size());
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < cameras.size(); ++i)
        threads.emplace_back([&, i] { reports[i] = Grab(library, cameras[i], images); });
    for (std::thread& thread : threads)
        thread.join();
    for (const std::string& report : reports)
        std::cout << report << '\n';
    return cameras.empty() ? 1 : 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
