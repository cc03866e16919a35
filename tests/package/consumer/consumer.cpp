// Starts and ends the library, and prints its version. Sends nothing.
#include <iostream>
#include <kelo.hpp>

int main() {
    kelo::Library::log(false);
    const kelo::Library library;
    std::cout << kelo::Library::version() << '\n';
    return 0;
}
