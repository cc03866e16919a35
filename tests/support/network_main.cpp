// main() of the tests that need a network of their own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "network_namespace.h"

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests)) kelo::test::EnterPrivateNetwork();
    return RUN_ALL_TESTS();
}
