/* Starts and ends the library, and prints its version. Sends nothing. */
#include <stdio.h>

#include "kelo_api.h"

int main(void) {
    int version = keloGetVersion();
    keloLogging(0);
    if (keloInit() != KELO_STATUS_SUCCESS) return 1;
    keloRelease();
    printf("%d.%d.%d\n", version >> 24, version >> 16 & 0xff, version & 0xffff);
    return 0;
}
