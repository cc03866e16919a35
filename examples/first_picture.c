/* Takes one 8-bit picture with the first camera that answers and writes it to picture.pgm. */
#include <stdio.h>

#include "kelo_api.h"

int main(void) {
    CAM_HANDLE camera = 0;
    BufferInfo* image = NULL;
    if (keloInit() == 0 && keloDiscover(&camera, 1, 500) == 1 &&
        keloOpenCamera(camera, NULL) == 0 && keloStartImageAcquisition(camera) == 0) {
        image = keloGetNextImageTimeout(camera, 0, 2000);
    }
    if (image != NULL) {
        unsigned size = (unsigned)image->imageWidth * image->imageHeight;
        FILE* file = fopen("picture.pgm", "wb");
        if (file != NULL && size <= image->bufferLength) {
            fprintf(file, "P5 %d %d 255\n", image->imageWidth, image->imageHeight);
            fwrite(keloGetImageData(image), 1, size, file);
        }
        if (file != NULL) fclose(file);
        keloPopImage(camera, 0, image);
    }
    keloCloseCamera(camera);
    keloRelease();
    return image != NULL ? 0 : 1;
}
