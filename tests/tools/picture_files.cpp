#include "picture_files.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <png.h>

namespace kelo::test {
namespace {

// Reads as the file has it: no gamma, no change of depth.
DecodedPicture ReadRows(png_structp png, png_infop info, FILE* file) {
    png_init_io(png, file);
    png_read_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
    DecodedPicture picture{.width = png_get_image_width(png, info),
                           .height = png_get_image_height(png, info),
                           .bits = png_get_bit_depth(png, info)};
    if (png_get_color_type(png, info) != PNG_COLOR_TYPE_GRAY) return {};
    png_bytepp rows = png_get_rows(png, info);
    for (uint32_t y = 0; y < picture.height; ++y) {
        for (uint32_t x = 0; x < picture.width; ++x) {
            const png_bytep row = rows[y];
            picture.pixels.push_back(picture.bits == 16
                                         ? static_cast<uint16_t>(row[2 * x] << 8 | row[2 * x + 1])
                                         : row[x]);
        }
    }
    return picture;
}

}  // namespace

std::vector<uint8_t> ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

DecodedPicture ReadPng(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "rbe");
    if (file == nullptr) return {};
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    DecodedPicture picture;
    // Damaged files end the test's process: none is expected.
    picture = ReadRows(png, info, file);
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    return picture;
}

DecodedPicture ReadPgm(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string magic;
    uint32_t most = 0;
    DecodedPicture picture;
    file >> magic >> picture.width >> picture.height >> most;
    file.get();
    if (!file || magic != "P5") return {};
    picture.bits = most > 255 ? 16 : 8;
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
    if (picture.bits == 8) {
        picture.pixels.assign(bytes.begin(), bytes.end());
        return picture;
    }
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        picture.pixels.push_back(static_cast<uint16_t>(bytes[i] << 8 | bytes[i + 1]));
    return picture;
}

std::vector<uint16_t> Pixels8(const std::vector<uint8_t>& data, size_t begin) {
    return {data.begin() + static_cast<ptrdiff_t>(begin), data.end()};
}

std::vector<uint16_t> Pixels16(const std::vector<uint8_t>& data, size_t begin) {
    std::vector<uint16_t> pixels;
    for (size_t i = begin; i + 1 < data.size(); i += 2)
        pixels.push_back(static_cast<uint16_t>(data[i + 1] << 8 | data[i]));
    return pixels;
}

std::vector<std::string> Names(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace kelo::test
