// Three simulated cameras and the library in one show: discovery, a table of the cameras, 100
// pictures from each at the same time with every byte compared, some of them as PNG files, and new
// firmware for one camera. Exits with 0 only if no picture was lost or changed and nothing failed.
#include <atomic>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

#include "../../tests/support/network_namespace.h"
#include "camera_table.h"
#include "cameras.h"
#include "firmware_act.h"
#include "grabber.h"
#include "library.h"
#include "live_view.h"
#include "picture.h"

namespace demo {
namespace {

const std::filesystem::path OUTPUT = "demo-output";

using Grabbers = std::vector<std::unique_ptr<Grabber>>;

// Those that are ours, in the order of `cameras`; where the machine allows no private network,
// others may have answered, too.
std::vector<EXT_CAM_INFO> FindCameras(const std::vector<kelosim::CameraConfig>& cameras) {
    std::printf("\nLooking for cameras; the numbered lines are the library's log\n");
    const std::vector<EXT_CAM_INFO> found = Discover(500);
    PrintCameraTable(found);
    std::vector<EXT_CAM_INFO> ours;
    for (const auto& camera : cameras) {
        const EXT_CAM_INFO* info = FindByAddress(found, camera.address);
        if (info == nullptr) {
            throw std::runtime_error(AddressText(camera.address) + " did not answer the discovery");
        }
        ours.push_back(*info);
    }
    return ours;
}

// Runs all grabbers side by side, each in a thread of its own, and shows how far they are.
void GrabFromAll(const Grabbers& grabbers, LiveView& view) {
    std::atomic<size_t> running = grabbers.size();
    std::vector<std::thread> threads;
    for (const auto& grabber : grabbers) {
        threads.emplace_back([&grabber, &running] {
            grabber->Run();
            --running;
        });
    }
    while (running > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        view.Print();
    }
    for (auto& thread : threads)
        thread.join();
    view.Print();
}

void WritePictures(const Grabbers& grabbers) {
    std::vector<Picture> all;
    for (size_t camera = 0; camera < grabbers.size(); ++camera) {
        for (const Grabber::Sample& sample : grabbers[camera]->Samples()) {
            char name[64];
            std::snprintf(name, sizeof name, "camera%zu-image%03u.png", camera + 1, sample.number);
            WritePng(OUTPUT / name, sample.picture);
            all.push_back(sample.picture);
        }
    }
    constexpr uint32_t THUMBNAIL_WIDTH = 320;
    const auto columns = static_cast<uint32_t>(Grabber::SampleNumbers().size());
    WritePng(OUTPUT / "contact-sheet.png", ContactSheet(all, columns, THUMBNAIL_WIDTH));
    std::printf("\n%zu pictures and contact-sheet.png are in %s/\n", all.size(), OUTPUT.c_str());
}

// Throws if any camera's images were not what it sent.
void GrabAct(const std::vector<EXT_CAM_INFO>& infos,
             const std::vector<kelosim::CameraConfig>& cameras) {
    std::vector<std::unique_ptr<OpenCamera>> open;
    Grabbers grabbers;
    std::vector<LiveView::Row> rows;
    for (size_t i = 0; i < infos.size(); ++i) {
        // A copy: the record is packed, so nothing may refer to its fields.
        const CAM_HANDLE handle = infos[i].camera_handle;
        open.push_back(std::make_unique<OpenCamera>(handle));
        PrintOpenCamera(infos[i]);
        grabbers.push_back(std::make_unique<Grabber>(handle, cameras[i]));
        rows.push_back({AddressText(infos[i].camera_ip), grabbers.back().get()});
    }
    std::printf("\nGrabbing %u images from each, comparing every byte\n", IMAGES_PER_CAMERA);
    LiveView view(std::move(rows));
    GrabFromAll(grabbers, view);
    WritePictures(grabbers);
    for (const auto& grabber : grabbers) {
        if (!grabber->Failure().empty()) throw std::runtime_error(grabber->Failure());
    }
}

void Run() {
    std::filesystem::create_directories(OUTPUT);
    if (kelo::test::EnterPrivateNetwork()) {
        std::puts("Three simulated cameras in a private network");
    } else {
        std::puts("No private network allowed here: three simulated cameras on 127.0.0.0/8");
    }
    const std::vector<kelosim::CameraConfig> cameras = DemoCameras();
    const CameraProcess process(cameras, OUTPUT / "cameras.log");
    const Library library;
    const std::vector<EXT_CAM_INFO> infos = FindCameras(cameras);
    // From here on the program's own lines say what happens.
    keloLogging(0);
    GrabAct(infos, cameras);
    std::puts("All cameras are closed again");
    ProgramFirmware(infos[0], OUTPUT / "firmware.bin");
}

}  // namespace
}  // namespace demo

int main() try {
    demo::Run();
    std::puts("\nEvery image came, and every byte of it was as sent.");
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "\nkelo_demo: %s\n", error.what());
    return 1;
}
