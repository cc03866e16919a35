#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kelosim/camera.h"

namespace kelosim {

// One line of text about something that happened to a camera, for people to read.
using EventSink = std::function<void(const std::string& line)>;

// Any number of cameras in this process, and the socket that hears the broadcasts meant for them.
//
//   kelosim::Simulator simulator;
//   kelosim::Camera& camera = simulator.Add({});   // 127.0.0.11
//   simulator.Start();
//
// Threads begin in Add and Start: a simulator that is to live in another network namespace is made
// by a thread that is in there for both.
class Simulator {
public:
    // The events come from the cameras' threads, one call at a time.
    explicit Simulator(EventSink on_event = {});
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // Before Start. The camera lives as long as the simulator.
    Camera& Add(const CameraConfig& config);
    // count cameras at the addresses that follow base's, each with the default MAC of its address
    // and its number in its description and serial number.
    void AddMany(int count, const CameraConfig& base = {});

    size_t size() const;
    Camera& operator[](size_t index);

    // Takes the addresses and starts to answer. Throws std::runtime_error that names address and
    // reason (in use, not of this host, not permitted); then nothing runs.
    void Start();
    // Ends all threads and closes all sockets; the cameras' counters and flash stay readable.
    void Stop();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kelosim
