#pragma once

#include "FileDescriptor.h"

namespace kelo::fuzz {

// The camera's end of the connection that the library made last. Not open when there was none.
FileDescriptor TakePeer();

}  // namespace kelo::fuzz
