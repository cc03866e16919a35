#include <thread>

#include "image_check.h"
#include "kelo_registers.h"
#include "soak.h"

namespace kelo::soak {
namespace {

constexpr uint32_t kLossyCamera = 3;  // many small packets
constexpr uint32_t kTcpCamera = 2;

Order Images(Soak& soak, uint32_t rate) {
    return {.seed = soak.Seed(), .images = 10 + soak.Chance(30), .rate = static_cast<double>(rate)};
}

void Stream(Soak& soak) {
    std::vector<uint32_t> cameras;
    for (uint32_t camera = 0; camera < soak.CameraCount(); ++camera) {
        if (soak.Chance(2) == 0) cameras.push_back(camera);
    }
    if (cameras.empty()) cameras.push_back(soak.Chance(soak.CameraCount()));
    ExpectEveryImage(soak, cameras, Images(soak, 20 + soak.Chance(30)));
}

void Reorder(Soak& soak) {
    Order order = Images(soak, 40);
    order.reorder = 0.1;
    order.delay = 0.05;
    ExpectEveryImage(soak, {kLossyCamera}, order);
}

// Takes images until nothing more can come.
Answer TakeWhatComes(Soak& soak, uint32_t camera, StreamReader& reader) {
    constexpr int kQuietMax = 30;
    int quiet = 0;
    Answer answer;
    while (quiet < kQuietMax) {
        if (reader.TakeOne(100)) continue;
        answer = soak.Status(camera);
        if (answer.acquiring) continue;
        if (reader.Bytes() == answer.bytes[0]) break;
        ++quiet;
    }
    return answer;
}

StreamReader StartLossy(Soak& soak, Order order) {
    order.kind = Order::Kind::kPrepare;
    order.camera = kLossyCamera;
    soak.Do(order);
    const kelosim::CameraConfig& config = soak.Configs()[kLossyCamera];
    const CAM_HANDLE handle = soak.Find(config);
    soak.Open(handle);
    soak.Succeeds(keloStartImageAcquisition(handle), "start of the acquisition");
    return {soak, handle, 0, config.streams[0]};
}

// As many packets are counted missing as the camera did not send.
void Lose(Soak& soak) {
    constexpr double kRates[] = {0.001, 0.01, 0.1};
    Order order = Images(soak, 40);
    order.drop = kRates[soak.Chance(3)];
    StreamReader reader = StartLossy(soak, order);
    const Answer answer = TakeWhatComes(soak, kLossyCamera, reader);
    if (answer.starts > 1) soak.InTimeOrWrong("the start was sent again", 200000);
    if (reader.MissingPackets() != answer.packets_dropped[0] || reader.Images() != order.images) {
        const std::string text = std::to_string(reader.MissingPackets()) + " packets missing in " +
                                 std::to_string(reader.Images()) + " images, " +
                                 std::to_string(answer.packets_dropped[0]) + " not sent in " +
                                 std::to_string(order.images);
        if (reader.Bytes() == answer.bytes[0] && reader.Images() > reader.Seen().size()) {
            throw Disturbed(text + ", but one was cut by the timer");
        }
        soak.InTimeOrWrong(text);
    }
    soak.Close(soak.Find(soak.Configs()[kLossyCamera]));
}

// A packet that comes again behind its image makes an image of its own; every one comes whole, too.
void Duplicate(Soak& soak) {
    Order order = Images(soak, 40);
    order.duplicate = 0.05;
    StreamReader reader = StartLossy(soak, order);
    while (reader.Whole().size() < order.images && reader.TakeOne(20000)) {
    }
    if (reader.Whole().size() != order.images) {
        soak.InTimeOrWrong(std::to_string(reader.Whole().size()) + " of " +
                           std::to_string(order.images) + " images whole among duplicates");
    }
    const CAM_HANDLE handle = soak.Find(soak.Configs()[kLossyCamera]);
    keloClearBuffer(handle, 0);
    soak.Close(handle);
}

void Hostile(Soak& soak) {
    const uint64_t seed = soak.Seed();
    ExpectEveryImage(soak, {soak.Chance(2)}, Images(soak, 40), [&](CAM_HANDLE handle) {
        const uint32_t image_port = soak.Read(handle, REG_STREAMPORT);
        const uint16_t control_port = soak.Status(0).client_port;
        for (uint64_t burst = 0; burst < 3; ++burst) {
            soak.Do({.kind = Order::Kind::kHostile,
                     .camera = 0,
                     .value = 100,
                     .seed = seed + burst,
                     .ports = {control_port, static_cast<uint16_t>(image_port)}});
            soak.Read(handle, REG_WIDTH);
        }
    });
}

// An application that takes nothing: every image waits, and clearing gives their memory to the next
// ones.
void Backlog(Soak& soak) {
    Order order{.kind = Order::Kind::kPrepare, .camera = 0, .images = 60, .rate = 200};
    const CAM_HANDLE handle = soak.Find(soak.Configs()[0]);
    uint64_t heap_kb_first = 0;
    for (int round = 0; round < 3; ++round) {
        soak.Do(order);
        if (round == 0) soak.Open(handle);
        soak.Succeeds(keloStartImageAcquisition(handle), "start of the acquisition");
        const bool came = WaitFor(
            [&] { return keloGetPendingImageCount(handle, 0) >= static_cast<int>(order.images); });
        const Answer answer = soak.Status(0);
        const bool cut = soak.Log().find("completed (forcefully by timer") != std::string::npos;
        if (cut || answer.starts > 1) soak.InTimeOrWrong("the backlog is not as many images");
        soak.ExpectInTime(came, "images of the backlog are missing");
        Check(keloGetPendingImageCount(handle, 0) == static_cast<int>(order.images), "a backlog");
        StreamReader reader(soak, handle, 0, soak.Configs()[0].streams[0]);
        Check(reader.TakeOne(0) && reader.Whole().count(1) == 1, "the backlog's oldest image");
        keloClearBuffer(handle, 0);
        Check(keloGetPendingImageCount(handle, 0) == 0, "images are left behind keloClearBuffer");
        Check(keloGetNextImage(handle, 0) == nullptr, "an image behind keloClearBuffer");
        const uint64_t heap_kb = MeasureUsage().heap_kb;
        if (round == 0) heap_kb_first = heap_kb;
        // Less than a tenth of what a backlog takes.
        Check(heap_kb < heap_kb_first + 400, "a backlog's memory is not used again");
    }
    soak.Close(handle);
}

// Closing wakes who waits for an image.
void CloseUnderAWait(Soak& soak) {
    soak.Do({.kind = Order::Kind::kPrepare, .camera = kTcpCamera, .images = 1, .rate = 100});
    const kelosim::CameraConfig& config = soak.Configs()[kTcpCamera];
    const CAM_HANDLE handle = soak.Find(config);
    soak.Open(handle);
    soak.Succeeds(keloStartImageAcquisition(handle), "start of the acquisition");
    StreamReader reader(soak, handle, 0, config.streams[0]);
    soak.ExpectInTime(reader.TakeOne(20000), "the only image does not come");
    std::atomic<int> woken{0};
    std::thread waiter([&] {
        const bool none = keloGetNextImageTimeout(handle, 0, 100000) == nullptr;
        woken = none ? 1 : 2;
    });
    const auto begin = std::chrono::steady_clock::now();
    soak.Chance(2) == 0 ? keloCloseCamera(handle) : keloRelease();
    waiter.join();
    const bool soon = std::chrono::steady_clock::now() - begin < std::chrono::seconds(30);
    const bool again = woken == 2 && soak.Status(kTcpCamera).starts > 1;
    keloInit();
    if (again) soak.InTimeOrWrong("a wait ends with an image of a second start");
    Check(woken == 1, "a wait for an image ends with one that was never sent");
    soak.ExpectInTime(soon, "closing does not wake who waits");
}

// A connection that ends within an image costs that image; the next start connects again.
void BreakConnection(Soak& soak) {
    const uint32_t last = 2 + soak.Chance(5);
    soak.Do({.kind = Order::Kind::kPrepare,
             .camera = kTcpCamera,
             .images = 20,
             .rate = 50,
             .tcp_close_image = last,
             .tcp_close_after = soak.Chance(8000)});
    const kelosim::CameraConfig& config = soak.Configs()[kTcpCamera];
    const CAM_HANDLE handle = soak.Find(config);
    soak.Open(handle);
    soak.Succeeds(keloStartImageAcquisition(handle), "start of the acquisition");
    StreamReader reader(soak, handle, 0, config.streams[0]);
    while (reader.Images() + 1 < last && reader.TakeOne(20000)) {
    }
    soak.ExpectInTime(reader.Images() + 1 == last, "images in front of a broken connection");
    soak.ExpectInTime(reader.InOrder(), "images out of order");
    soak.Close(handle);
    ExpectEveryImage(soak, {kTcpCamera}, Images(soak, 40));
}

}  // namespace

std::vector<Step> ImageSteps() {
    return {{"stream", Stream, 8},
            {"reorder", Reorder, 3},
            {"lose", Lose, 3},
            {"duplicate", Duplicate, 3},
            {"hostile datagrams", Hostile, 4},
            {"backlog", Backlog, 2},
            {"close under a wait", CloseUnderAWait, 2},
            {"broken connection", BreakConnection, 2}};
}

}  // namespace kelo::soak
