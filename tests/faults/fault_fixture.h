#pragma once

#include "system_fixture.h"

namespace kelo::test {

// What the tests of faults have in common; a program that tests faults derives from it.
class FaultTest : public SystemTest {};

}  // namespace kelo::test
