// Starts and ends the library, and prints its version. Sends nothing.
#include <iostream>

#include <kelo_api.h>

int main() {
    const int version = keloGetVersion();
    keloLogging(0);
    if (keloInit() != KELO_STATUS_SUCCESS) {
        return 1;
    }
    keloRelease();
    std::cout << (version >> 24) << '.' << (version >> 16 & 0xff) << '.' << (version & 0xffff)
              << '\n';
    return 0;
}
