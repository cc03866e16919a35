#include "image_file.h"

#include <csetjmp>
#include <stdexcept>

#include <png.h>

#include "text.h"

namespace kelotool {
namespace {

void Append(png_structp png, png_bytep bytes, size_t count) {
    auto* const file = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
    // What is thrown must not cross the compressor's frames, which are C.
    try {
        file->insert(file->end(), bytes, bytes + count);
    } catch (...) {
        png_error(png, "no memory");
    }
}

void Flush(png_structp) {}

void KeepMessage(png_structp png, png_const_charp message) {
    *static_cast<std::string*>(png_get_error_ptr(png)) = message;
    png_longjmp(png, 1);
}

void IgnoreWarning(png_structp, png_const_charp) {}

// The compressor leaves by longjmp: nothing in here has a destructor.
bool WriteRows(png_structp png, png_infop info, const Picture& picture, int compression) {
    if (setjmp(png_jmpbuf(png)) != 0) return false;
    png_set_compression_level(png, compression);
    // Neighbours in a camera's picture are alike; the other filters cost more than they save.
    png_set_filter(png, PNG_FILTER_TYPE_BASE, compression == 0 ? PNG_FILTER_NONE : PNG_FILTER_SUB);
    png_set_IHDR(png, info, picture.width, picture.height, picture.bits, PNG_COLOR_TYPE_GRAY,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    if (picture.bits == 16) png_set_swap(png);
    const size_t row_bytes = size_t{picture.width} * (picture.bits == 16 ? 2 : 1);
    for (uint32_t row = 0; row < picture.height; ++row) {
        png_write_row(png, picture.pixels.data() + row * row_bytes);
    }
    png_write_end(png, nullptr);
    return true;
}

}  // namespace

const char* Extension(FileFormat format) {
    switch (format) {
        case FileFormat::kPng:
            return "png";
        case FileFormat::kPgm:
            return "pgm";
        default:
            return "raw";
    }
}

void EncodePng(const Picture& picture, int compression, std::vector<uint8_t>& file) {
    file.clear();
    std::string message = "no memory";
    png_structp png =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, &message, &KeepMessage, &IgnoreWarning);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    bool written = false;
    if (info != nullptr) {
        png_set_write_fn(png, &file, &Append, &Flush);
        written = WriteRows(png, info, picture, compression);
    }
    png_destroy_write_struct(&png, &info);
    if (!written) throw std::runtime_error("PNG: " + message);
}

void EncodePgm(const Picture& picture, std::vector<uint8_t>& file) {
    const std::string header = Format("P5\n%u %u\n%u\n", picture.width, picture.height,
                                      picture.bits == 16 ? 65535U : 255U);
    file.assign(header.begin(), header.end());
    const size_t begin = file.size();
    file.insert(file.end(), picture.pixels.begin(), picture.pixels.end());
    if (picture.bits != 16) return;
    // The most significant byte comes first in these files.
    for (size_t i = begin; i + 1 < file.size(); i += 2)
        std::swap(file[i], file[i + 1]);
}

}  // namespace kelotool
