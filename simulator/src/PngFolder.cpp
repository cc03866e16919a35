#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include <png.h>

#include "kelosim/image_source.h"

namespace kelosim {
namespace {

struct Picture {
    uint16_t width = 0;
    uint16_t height = 0;
    std::vector<uint8_t> pixels;
};

[[noreturn]] void Fail(const std::filesystem::path& file, const std::string& reason) {
    throw std::runtime_error(file.string() + ": " + reason);
}

Picture ReadPng(const std::filesystem::path& file) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&image, file.c_str()) == 0) Fail(file, image.message);
    if (image.width > 0xFFFF || image.height > 0xFFFF) {
        png_image_free(&image);
        Fail(file, "the picture is larger than 65535 by 65535 pixels");
    }
    image.format = PNG_FORMAT_GRAY;
    Picture picture{static_cast<uint16_t>(image.width), static_cast<uint16_t>(image.height), {}};
    picture.pixels.resize(PNG_IMAGE_SIZE(image));
    // Transparent pixels show black.
    const png_color background{};
    if (png_image_finish_read(&image, &background, picture.pixels.data(), 0, nullptr) == 0) {
        Fail(file, image.message);
    }
    return picture;
}

std::vector<std::filesystem::path> PngFiles(const std::string& folder) {
    std::error_code error;
    std::vector<std::filesystem::path> files;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        if (it->path().extension() == ".png") files.push_back(it->path());
    }
    if (error) Fail(folder, error.message());
    if (files.empty()) Fail(folder, "there is no PNG file in this folder");
    std::sort(files.begin(), files.end());
    return files;
}

class PngFolder : public ImageSource {
public:
    explicit PngFolder(const std::string& folder) {
        for (const std::filesystem::path& file : PngFiles(folder)) {
            pictures_.push_back(ReadPng(file));
            const Picture& first = pictures_.front();
            const Picture& last = pictures_.back();
            if (last.width != first.width || last.height != first.height) {
                Fail(file, "the picture's size differs from that of the folder's first");
            }
        }
    }

    uint8_t Format() const override { return kFormatGrey8; }
    uint16_t Width() const override { return pictures_.front().width; }
    uint16_t Height() const override { return pictures_.front().height; }
    uint32_t MaxSize() const override {
        return static_cast<uint32_t>(pictures_.front().pixels.size());
    }
    void Render(uint32_t number, std::vector<uint8_t>& out) const override {
        const std::vector<uint8_t>& pixels = pictures_[number % pictures_.size()].pixels;
        out.insert(out.end(), pixels.begin(), pixels.end());
    }

private:
    std::vector<Picture> pictures_;
};

}  // namespace

ImageSourcePtr MakePngFolder(const std::string& folder) {
    return std::make_shared<PngFolder>(folder);
}

}  // namespace kelosim
