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
    // For commands that end when they have found what they name: a time that no machine stands
    // still for.
    static std::vector<std::string> Patiently(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--timeout", "4000"});
        return arguments;
    }
    // For commands that listen for the whole time: briefly at first, and when the result does not
    // hold because the machine stood still, for longer.
    template <typename Holds>
    static Result Search(std::vector<std::string> arguments, const Holds& holds) {
        arguments.insert(arguments.end(), {"--timeout", "150"});
        const Result quick = Kelo(arguments);
        if (holds(quick)) return quick;
        arguments.back() = "4000";
        return Kelo(arguments);
    }
    static Result Search(const std::vector<std::string>& arguments) {
        return Search(arguments, [](const Result& run) { return run.exit_code == 0; });
    }

    kelosim::Simulator simulator;
};

}  // namespace kelo::test
