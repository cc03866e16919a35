// Takes one 8-bit picture with the first camera that answers and writes it to picture.pgm.
#include <fstream>

#include "kelo_api.h"

int main() {
    CAM_HANDLE camera = 0;
    BufferInfo* image = nullptr;
    if (keloInit() == 0 && keloDiscover(&camera, 1, 500) == 1 &&
        keloOpenCamera(camera, nullptr) == 0 && keloStartImageAcquisition(camera) == 0) {
        image = static_cast<BufferInfo*>(keloGetNextImageTimeout(camera, 0, 2000));
    }
    if (image != nullptr) {
        const unsigned size = static_cast<unsigned>(image->imageWidth) * image->imageHeight;
        std::ofstream file("picture.pgm", std::ios::binary);
        file << "P5 " << image->imageWidth << ' ' << image->imageHeight << " 255\n";
        if (size <= image->bufferLength) {
            file.write(reinterpret_cast<const char*>(keloGetImageData(image)), size);
        }
        keloPopImage(camera, 0, image);
    }
    keloCloseCamera(camera);
    keloRelease();
    return image != nullptr ? 0 : 1;
}
