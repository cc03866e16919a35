#include "fault_fixture.h"

namespace kelo::test {
namespace {

class StreamNetwork : public FaultTest {};

TEST_F(StreamNetwork, AllImagesOfAQuietNetworkArriveWhole) {
    kelosim::Camera& camera = StartOne(With({ChartStream(5, 100)}));
    RepeatUntilInTime([&] {
        const size_t before = log.Text().size();
        camera.ClearRequests();
        const CAM_HANDLE handle = OpenAndStart(camera);
        std::vector<Image> images(5);
        for (Image& image : images)
            image = Take(handle);
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        if (CountStarts(camera) != 1 || AnImageWasCutShort(before)) return false;
        for (uint32_t i = 0; i < 5; ++i) {
            EXPECT_EQ(images[i].number, i + 1);
            EXPECT_EQ(images[i].data, camera.config().streams[0].Frame(i + 1));
        }
        return true;
    });
}

}  // namespace
}  // namespace kelo::test
