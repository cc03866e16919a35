#include "fuzz.h"

#include <cstdio>
#include <cstdlib>

#include "utils.h"

namespace kelo::fuzz {

void Fail(const std::string& text) {
    fprintf(stderr, "FAILED: %s\n", text.c_str());
    abort();
}

}  // namespace kelo::fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    kelo::Logging(false);
    // The firmware's progress mark is printed also while logging is off.
    if (freopen("/dev/null", "w", stdout) == nullptr) kelo::fuzz::Fail("no /dev/null");
    return 0;
}
