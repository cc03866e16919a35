// An application thread looks at an image while its camera is given up by the library: the thread
// cannot know, so the image's memory stays. Under AddressSanitizer a read too late ends the test.

#include <functional>

#include "system_fixture.h"

namespace kelo::test {
namespace {

struct Loss {
    const char* name;
    bool tcp;
    std::function<void(kelosim::Camera&, CAM_HANDLE)> happen;  // returns when the camera is closed
};

void GoSilent(kelosim::Camera& camera, CAM_HANDLE) {
    camera.PowerOff();
    EXPECT_TRUE(WaitFor([] { return CloseEvents::count == 1; }, seconds(60)));
}

void VanishFromDiscovery(kelosim::Camera& camera, CAM_HANDLE handle) {
    camera.UpdateFaults([](kelosim::Faults& faults) { faults.ignore_discovery = true; });
    // An answer to an earlier discovery may still count for the next one.
    EXPECT_TRUE(WaitFor([&] {
        CAM_HANDLE found = 0;
        keloDiscover(&found, 1, 50);
        return found != handle;
    }));
    EXPECT_TRUE(WaitFor([] { return CloseEvents::count == 1; }, seconds(60)));
}

void Move(kelosim::Camera& camera, CAM_HANDLE handle) {
    EXPECT_EQ(keloSetCameraIP(handle, camera.address() + 100, 0xFF000000), KELO_STATUS_SUCCESS);
    EXPECT_TRUE(WaitFor([] { return CloseEvents::count == 1; }, seconds(60)));
}

class ImageInHandTest : public SystemTest, public testing::WithParamInterface<Loss> {
protected:
    kelosim::Camera& StartStreaming() {
        kelosim::CameraConfig config = With({ChartStream(0, 100)});
        config.streams[0].over_tcp = GetParam().tcp;
        if (std::string(GetParam().name) == "Silence") config.heartbeat_timeout_ms = 300;
        kelosim::Camera& camera = StartOne(config);
        handle = OpenAndStart(camera);
        return camera;
    }
    // With others behind it in the queue.
    IMAGE_BUFFER_HANDLE TakeOne() const {
        EXPECT_TRUE(WaitFor([&] { return keloGetPendingImageCount(handle, 0) >= 3; }));
        return keloGetNextImage(handle, 0);
    }

    CAM_HANDLE handle = 0;
};

TEST_P(ImageInHandTest, StaysReadableUntilItIsPopped) {
    kelosim::Camera& camera = StartStreaming();
    const IMAGE_BUFFER_HANDLE image = TakeOne();
    ASSERT_NE(image, nullptr);
    const std::vector<uint8_t> before = DataOf(image);
    const uint32_t number = keloGetImageNumber(image);

    GetParam().happen(camera, handle);

    EXPECT_EQ(keloGetNextImage(handle, 0), nullptr);
    EXPECT_EQ(DataOf(image), before);
    EXPECT_EQ(keloGetImageNumber(image), number);
    keloPopImage(handle, 0, image);
    // No second time, and nothing that was never left behind.
    keloPopImage(handle, 0, image);
    EXPECT_FALSE(
        log.Contains("PopImage: corresponding image buffer was not found, popimage failed"));
}

TEST_P(ImageInHandTest, MayBeForgottenByTheApplication) {
    kelosim::Camera& camera = StartStreaming();
    ASSERT_NE(TakeOne(), nullptr);
    GetParam().happen(camera, handle);
    EXPECT_EQ(keloRelease(), KELO_STATUS_SUCCESS);
    EXPECT_FALSE(log.Contains("was not freed"));
}

INSTANTIATE_TEST_SUITE_P(At, ImageInHandTest,
                         testing::Values(Loss{"Silence", false, GoSilent},
                                         Loss{"ADiscovery", false, VanishFromDiscovery},
                                         Loss{"ADiscoveryOverTcp", true, VanishFromDiscovery},
                                         Loss{"ANewAddress", false, Move},
                                         Loss{"ANewAddressOverTcp", true, Move}),
                         [](const auto& instance) { return std::string(instance.param.name); });

}  // namespace
}  // namespace kelo::test
