/* Takes one 8-bit picture with the first camera that answers and writes it to picture.pgm. */
#include <stdio.h>

#include "kelo_api.h"

int main(void) {
    CAM_HANDLE camera = 0;
    BufferInfo* image = NULL;
    if (keloInit() == 0 && keloDiscover(&camera, 1, 500) == 1 &&
        keloOpenCamera(camera, NULL) == 0 && keloStartImageAcquisition(camera) == 0)
        image = keloGetNextImageTimeout(camera, 0, 2000);
    size_t size = image == NULL ? 0 : (size_t)image->imageWidth * image->imageHeight, written = 0;
    FILE* file = size > 0 && size <= image->bufferLength ? fopen("picture.pgm", "wb") : NULL;
    if (file != NULL) {
        fprintf(file, "P5 %d %d 255\n", image->imageWidth, image->imageHeight);
        written = fwrite(keloGetImageData(image), 1, size, file);
        fclose(file);
    }
    return keloRelease() != 0 || written == 0;
}
