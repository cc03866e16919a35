#pragma once

namespace kelotool {

// How the command ends, for scripts; docs/kelo-command.md lists them.
enum ExitCode {
    EXIT_OK = 0,
    EXIT_FAILED = 1,     // what none of the others describes
    EXIT_USAGE = 2,      // the command line is wrong; nothing was done
    EXIT_NO_CAMERA = 3,  // no camera, or more than one, is what was named
    EXIT_REFUSED = 4,    // the camera answered, but refused
    EXIT_LOST = 5,       // the camera does not answer, or does not any more
    EXIT_LOCAL = 6,      // this machine: a file, the disk, a permission, the output
    EXIT_INTERRUPTED = 130
};

}  // namespace kelotool
