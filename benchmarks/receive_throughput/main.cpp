// What receiving images through the library costs over receiving them at all.
//
// A sender on a core of its own sends images of 1 MiB over loopback, in datagrams as large as a
// packet of 9000 bytes carries. They are received, turn by turn in one run, by the library's
// exported functions and by a bare receive loop; the loop is the floor. See ../README.md.
#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "../../tests/support/network_namespace.h"
#include "../support/bench_camera.h"
#include "../support/cpu.h"
#include "../support/statistics.h"
#include "image_sender.h"
#include "kelo_registers.h"
#include "receivers.h"

namespace {

using namespace kelo::bench;

struct Options {
    int rounds = 7;
    uint32_t images = 1000;
    double paced_mb_per_second = 500;
    int sender_core = 1;
    int receiver_core = 0;
};

enum Pace { FULL_SPEED, PACED, PACE_COUNT };

struct Round {
    RunResult runs[PACE_COUNT][2];  // by pace and receiver
    double probe_before = 0;
    double probe_after = 0;
};

Options ParseOptions(int argc, char** argv) {
    Options options;
    CLI::App app{"Receives images through the library and through a bare loop, turn by turn."};
    app.add_option("--rounds", options.rounds, "rounds; each has one run per receiver and pace")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--images", options.images, "images of 1 MiB per run")
        ->check(CLI::Range(1u, 1'000'000u))
        ->capture_default_str();
    app.add_option("--paced", options.paced_mb_per_second, "MB/s of the paced runs")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--sender-core", options.sender_core, "core of the sender")
        ->capture_default_str();
    app.add_option("--receiver-core", options.receiver_core, "core of the receiving process")
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    return options;
}

OrderHandler MakeSender(const BenchCamera& camera) {
    auto sender = std::make_shared<ImageSender>(IMAGE_SIZE);
    return [sender, &camera](std::span<const std::byte> bytes, std::span<std::byte> answer) {
        SendOrder order{};
        std::memcpy(&order, bytes.data(), std::min(sizeof order, bytes.size()));
        // Port 0 stands for the one that the library told the camera.
        if (order.port == 0) order.port = static_cast<uint16_t>(camera.Register(REG_STREAMPORT));
        const double seconds = sender->Send(order);
        std::memcpy(answer.data(), &seconds, sizeof seconds);
    };
}

Round RunRound(const Options& options, Peer& peer,
               const std::array<std::unique_ptr<Receiver>, 2>& receivers) {
    Round round;
    round.probe_before = PlacementProbeNs(options.sender_core, options.receiver_core);
    for (int pace = 0; pace < PACE_COUNT; ++pace) {
        const double rate = pace == PACED ? options.paced_mb_per_second * 1e6 : 0;
        for (size_t i = 0; i < receivers.size(); ++i) {
            round.runs[pace][i] = receivers[i]->Run(peer, options.images, rate);
        }
    }
    round.probe_after = PlacementProbeNs(options.sender_core, options.receiver_core);
    return round;
}

// The two virtual cores were moved nearer or farther under the round.
bool Disturbed(const Round& round) {
    const double ratio = round.probe_after / round.probe_before;
    return ratio > 1.5 || ratio < 1 / 1.5;
}

template <typename Value>
Spread SpreadOver(const std::vector<Round>& rounds, Value value) {
    std::vector<double> values;
    values.reserve(rounds.size());
    for (const Round& round : rounds)
        values.push_back(value(round));
    return SpreadOf(values);
}

double CpuPerGb(const RunResult& run) {
    return run.bytes == 0 ? 0 : run.cpu_seconds / static_cast<double>(run.bytes) * 1e9;
}

void PrintReceiver(const char* name, const std::vector<Round>& rounds, int pace, size_t receiver) {
    const auto over = [&](auto value) {
        return SpreadOver(rounds, [&](const Round& r) { return value(r.runs[pace][receiver]); });
    };
    const Spread rate =
        over([](const RunResult& r) { return static_cast<double>(r.bytes) / r.seconds / 1e6; });
    const Spread packets =
        over([](const RunResult& r) { return static_cast<double>(r.datagrams) / r.seconds / 1e3; });
    const Spread lost = over([](const RunResult& r) {
        const double sent = static_cast<double>(r.images_sent) * DatagramsPerImage(IMAGE_SIZE);
        return 100 - 100 * static_cast<double>(r.datagrams) / sent;
    });
    const Spread images_lost = over(
        [](const RunResult& r) { return static_cast<double>(r.images_sent - r.whole_images); });
    std::printf("  %-8s %-24s %-22s %-20s %-18s %s\n", name, Text(rate, 0).c_str(),
                Text(packets, 1).c_str(), Text(lost, 2).c_str(), Text(images_lost, 0).c_str(),
                Text(over(CpuPerGb), 3).c_str());
}

void PrintPace(const char* title, const std::vector<Round>& rounds, int pace) {
    std::printf("\n%s\n  %-8s %-24s %-22s %-20s %-18s %s\n", title, "", "MB/s", "1000 packets/s",
                "packets lost, %", "images lost", "CPU s/GB");
    PrintReceiver("library", rounds, pace, 0);
    PrintReceiver("bare", rounds, pace, 1);
    const Spread ratio = SpreadOver(rounds, [pace](const Round& round) {
        return CpuPerGb(round.runs[pace][0]) / CpuPerGb(round.runs[pace][1]);
    });
    std::printf("  library / bare, CPU per GB, round by round: %s\n", Text(ratio, 2).c_str());
}

void Print(const Options& options, const std::vector<Round>& rounds) {
    std::vector<Round> kept;
    for (const Round& round : rounds) {
        if (!Disturbed(round)) kept.push_back(round);
    }
    if (kept.empty()) kept = rounds;
    std::printf(
        "%zu of %zu rounds kept (cache line there and back: %s ns); median (lowest to "
        "highest)\n",
        kept.size(), rounds.size(),
        Text(SpreadOver(kept, [](const Round& r) { return r.probe_before; }), 0).c_str());
    PrintPace("As fast as the sender can:", kept, FULL_SPEED);
    const std::string paced =
        "Paced at " + std::to_string(static_cast<int>(options.paced_mb_per_second)) + " MB/s:";
    PrintPace(paced.c_str(), kept, PACED);
}

}  // namespace

int main(int argc, char** argv) try {
    const Options options = ParseOptions(argc, argv);
    if (!kelo::test::EnterPrivateNetwork()) {
        std::puts("no private network allowed here: measuring on the machine's own loopback");
    }
    Peer peer(options.sender_core, IMAGE_SIZE, MakeSender);
    PinToCore(options.receiver_core);
    const std::array<std::unique_ptr<Receiver>, 2> receivers = {MakeLibraryReceiver(),
                                                                MakeBareReceiver()};
    std::vector<Round> rounds;
    RunRound(options, peer, receivers);  // warms caches and buffers up; not counted
    for (int i = 0; i < options.rounds; ++i) {
        rounds.push_back(RunRound(options, peer, receivers));
        std::fprintf(stderr, "round %d of %d\n", i + 1, options.rounds);
    }
    Print(options, rounds);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "receive_throughput: %s\n", error.what());
    return 1;
}
