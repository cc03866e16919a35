// What asking a camera through the library costs over asking at all.
//
// A camera on a core of its own answers at once. Registers are read, and firmware payloads (memory
// writes of 128 registers) are written, turn by turn in one run, through the library's exported
// functions and by a bare socket with the same datagrams, which is the floor. See ../README.md.
#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "../../tests/support/network_namespace.h"
#include "../support/bench_camera.h"
#include "../support/cpu.h"
#include "../support/library_cameras.h"
#include "../support/peer.h"
#include "../support/spread_json.h"
#include "../support/statistics.h"
#include "bare_client.h"

namespace {

using namespace kelo::bench;

constexpr uint32_t PAYLOAD_REGISTERS = 128;

struct Options {
    int rounds = 7;
    int requests = 5000;
    int camera_core = 1;
    int client_core = 0;
    std::string json;
};

struct Subject {
    const char* name;
    std::function<void()> request;
    std::vector<double> p50_us{};
    std::vector<double> p99_us{};
};

Options ParseOptions(int argc, char** argv) {
    Options options;
    CLI::App app{"Asks a camera through the library and through a bare socket, turn by turn."};
    app.add_option("--rounds", options.rounds, "rounds")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--requests", options.requests, "requests of each kind in a round")
        ->check(CLI::Range(1, 1'000'000))
        ->capture_default_str();
    app.add_option("--camera-core", options.camera_core, "core of the camera")
        ->capture_default_str();
    app.add_option("--client-core", options.client_core, "core of the client process")
        ->capture_default_str();
    app.add_option("--json", options.json, "file for the results");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    return options;
}

void Require(KELO_API_STATUS status) {
    if (status != KELO_STATUS_SUCCESS) {
        throw std::runtime_error("a request through the library failed: " + std::to_string(status));
    }
}

void Measure(Subject& subject, int requests) {
    std::vector<double> times;
    times.reserve(static_cast<size_t>(requests));
    for (int i = 0; i < requests; ++i) {
        const double start = Now();
        subject.request();
        times.push_back((Now() - start) * 1e6);
    }
    subject.p50_us.push_back(Quantile(times, 0.5));
    subject.p99_us.push_back(Quantile(times, 0.99));
}

std::vector<Subject> MakeSubjects(CAM_HANDLE camera, BareClient& bare,
                                  std::array<uint32_t, PAYLOAD_REGISTERS>& payload) {
    return {
        {"register read, library",
         [camera] {
             uint32_t value = 0;
             Require(keloGetRegisterInt(camera, REG_WIDTH, &value));
         }},
        {"register read, bare", [&bare] { bare.ReadRegister(REG_WIDTH); }},
        {"firmware payload, library",
         [camera, &payload] {
             uint32_t count = PAYLOAD_REGISTERS;
             Require(keloWriteMemory(camera, KELO_CMD_FIRMWARE, &count, payload.data()));
         }},
        {"firmware payload, bare",
         [&bare, &payload] {
             bare.WriteMemory(KELO_CMD_FIRMWARE, PAYLOAD_REGISTERS, payload.data());
         }},
    };
}

void Print(const std::vector<Subject>& subjects, const std::vector<double>& probes) {
    std::printf("cache line there and back: %s ns; median (lowest to highest) of the rounds\n\n",
                Text(SpreadOf(probes), 0).c_str());
    std::printf("  %-26s %-24s %s\n", "microseconds", "p50", "p99");
    for (const Subject& subject : subjects) {
        std::printf("  %-26s %-24s %s\n", subject.name, Text(SpreadOf(subject.p50_us), 1).c_str(),
                    Text(SpreadOf(subject.p99_us), 1).c_str());
    }
}

std::vector<double> Ratios(const std::vector<double>& values, const std::vector<double>& to) {
    std::vector<double> ratios;
    for (size_t i = 0; i < values.size(); ++i)
        ratios.push_back(values[i] / to[i]);
    return ratios;
}

void WriteVariant(JsonWriter& json, const char* name, const Subject& subject) {
    json.BeginObject(name);
    WriteSpread(json, "p50_us", subject.p50_us);
    WriteSpread(json, "p99_us", subject.p99_us);
    json.EndObject();
}

// "register read, library" is the row "register read" and the variant "library" there.
void WriteJson(const std::string& path, const std::vector<Subject>& subjects,
               const std::vector<double>& probes) {
    JsonWriter json;
    json.BeginObject().Text("benchmark", "round_trip").BeginArray("rows");
    for (size_t i = 0; i < subjects.size(); i += 2) {
        const std::string name = subjects[i].name;
        json.BeginObject().Text("name", name.substr(0, name.find(',')));
        WriteSpread(json, "probe_before_ns", probes);
        json.BeginObject("variants");
        WriteVariant(json, "library", subjects[i]);
        WriteVariant(json, "bare", subjects[i + 1]);
        json.EndObject().BeginObject("ratios").BeginObject("library/bare");
        WriteSpread(json, "p50_us", Ratios(subjects[i].p50_us, subjects[i + 1].p50_us));
        WriteSpread(json, "p99_us", Ratios(subjects[i].p99_us, subjects[i + 1].p99_us));
        json.EndObject().EndObject().EndObject();
    }
    std::ofstream file(path);
    file << json.EndArray().EndObject().Result() << '\n';
    if (!file) throw std::runtime_error("cannot write " + path);
}

}  // namespace

int main(int argc, char** argv) try {
    const Options options = ParseOptions(argc, argv);
    if (!kelo::test::EnterPrivateNetwork()) {
        std::puts("no private network allowed here: measuring on the machine's own loopback");
    }
    Peer peer(options.camera_core, CameraSetup{},
              [](const BenchCamera&) { return [](auto, auto) {}; });
    PinToCore(options.client_core);
    const LibraryCameras camera;
    BareClient bare;
    std::array<uint32_t, PAYLOAD_REGISTERS> payload{};
    std::vector<Subject> subjects = MakeSubjects(camera.Handle(), bare, payload);
    std::vector<double> probes;
    for (int round = 0; round < options.rounds; ++round) {
        probes.push_back(PlacementProbeNs(options.camera_core, options.client_core));
        for (Subject& subject : subjects)
            Measure(subject, options.requests);
    }
    Print(subjects, probes);
    if (!options.json.empty()) WriteJson(options.json, subjects, probes);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "round_trip: %s\n", error.what());
    return 1;
}
