#pragma once

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kelo_process.h"
#include "kelo_registers.h"
#include "kelosim/simulator.h"
#include "network_namespace.h"
#include "wait_for.h"

namespace kelo::test {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// Simulated cameras at 127.0.0.11 and on, for the command to work with.
class ToolTest : public testing::Test {
protected:
    ~ToolTest() override { simulator.Stop(); }

    // No camera gives the command up because the machine stands still for a while.
    static kelosim::CameraConfig Patient(kelosim::CameraConfig config = {}) {
        config.heartbeat_timeout_ms = 100000;
        return config;
    }
    kelosim::Camera& StartOne(const kelosim::CameraConfig& config = {}) {
        kelosim::Camera& camera = simulator.Add(Patient(config));
        simulator.Start();
        return camera;
    }
    // "127.0.0.11", what most commands are told.
    static std::string Address(const kelosim::Camera& camera) {
        return kelosim::Ipv4Text(camera.address());
    }
    // A search's time is what an answer may take; a machine that stands still for longer spoils it.
    // Long enough for that, for commands that find what they name before it is over.
    static std::vector<std::string> Patiently(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--timeout", "4000"});
        return arguments;
    }

    kelosim::Simulator simulator;
};

}  // namespace kelo::test
