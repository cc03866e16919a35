// The classes of kelo.hpp against simulated cameras.

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include <unistd.h>

#include "cpp_fixture.h"
#include "thread_state.h"

namespace kelo::test {
namespace {

template <typename T>
constexpr bool kMovedNotCopied =
    std::is_nothrow_move_constructible_v<T>&& std::is_nothrow_move_assignable_v<T> &&
    !std::is_copy_constructible_v<T> && !std::is_copy_assignable_v<T>;
static_assert(kMovedNotCopied<Camera>);
static_assert(kMovedNotCopied<Acquisition>);
static_assert(kMovedNotCopied<Image>);
static_assert(!std::is_copy_constructible_v<ResilientSession>);
static_assert(std::is_copy_constructible_v<Library>);
static_assert(!std::is_convertible_v<std::uint32_t, Ipv4Address>, "a register is no address");
// A view does not make what is constant writable.
static_assert(!std::is_constructible_v<View<std::uint8_t>, const std::vector<std::uint8_t>&>);
static_assert(std::is_same_v<decltype(std::declval<Camera>().get(reg::reverse_x)), bool>);
static_assert(
    std::is_same_v<decltype(std::declval<Camera>().get(reg::curr_ip_addr_0)), Ipv4Address>);
static_assert(std::is_same_v<decltype(std::declval<Camera>().get(reg::gain.as<float>())), float>);

bool LibraryRuns() {
    int value = 0;
    return keloGetInfoInt("IsMissingFilterDriver", &value) == KELO_STATUS_SUCCESS;
}

TEST(CppLibrary, RunsFromTheFirstUserToTheLast) {
    EXPECT_FALSE(LibraryRuns());
    {
        std::optional<Library> first(std::in_place);
        std::optional<Library> copy(*first);
        Library moved(std::move(*first));
        first.reset();
        copy.reset();
        EXPECT_TRUE(LibraryRuns());
        moved = Library();
        EXPECT_TRUE(LibraryRuns());
        EXPECT_TRUE(Library::try_start());
        EXPECT_TRUE(LibraryRuns());
    }
    EXPECT_FALSE(LibraryRuns());
}

TEST(CppLibrary, TellsItsVersion) {
    char text[6] = {};
    int length = sizeof text;
    ASSERT_EQ(keloGetInfo("VersionString", text, &length), KELO_STATUS_SUCCESS);
    EXPECT_EQ(Library::version(), text);
}

TEST(CppError, SaysWhatFailedWhereAndWhy) {
    const Failure failure{KELO_STATUS_NO_RESPONSE, "keloGetRegisterInt", CAM_HANDLE{0x1234}, 25,
                          nullptr};
    const Error error(failure);
    EXPECT_STREQ(error.what(),
                 "keloGetRegisterInt failed at register 25 for camera 0x00001234: the camera did "
                 "not answer in time (KELO_STATUS_NO_RESPONSE)");
    EXPECT_EQ(error.code(), KELO_STATUS_NO_RESPONSE);
    EXPECT_STREQ(error.function(), "keloGetRegisterInt");
    EXPECT_EQ(error.camera(), CAM_HANDLE{0x1234});
}

TEST(CppResult, IsAValueOrThrows) {
    Result<int> value(5);
    EXPECT_EQ(value.value(), 5);
    EXPECT_EQ(*value, 5);
    EXPECT_EQ(Result<int>(Failure{}).value_or(7), 7);
    EXPECT_THROW((void)Result<int>(Failure{}).value(), Error);
    EXPECT_NO_THROW(Result<void>().value());
    EXPECT_THROW(Result<void>(Failure{}).value(), Error);
}

TEST(CppView, ShowsPartsWithinItsEnd) {
    const std::vector<int> numbers = {1, 2, 3};
    const View<const int> view(numbers);
    EXPECT_EQ(view.data(), numbers.data());
    EXPECT_EQ(view.subview(1).size(), 2u);
    EXPECT_EQ(view.subview(1, 1)[0], 2);
    EXPECT_TRUE(view.subview(4).empty());
    EXPECT_EQ(view.subview(2, 100).size(), 1u);
}

TEST(CppAddresses, AreReadable) {
    EXPECT_EQ(Ipv4Address(192, 168, 1, 5).text(), "192.168.1.5");
    EXPECT_EQ(Ipv4Address(192, 168, 1, 5).value, 0xC0A80105u);
    EXPECT_EQ((MacAddress{{2, 0, 0x7f, 0, 0, 0x0b}}.text()), "02:00:7f:00:00:0b");
}

TEST_F(CppTest, DiscoveryTellsWhoIsThere) {
    kelosim::CameraConfig config = Config();
    config.mac = {2, 1, 2, 3, 4, 5};
    config.description = "Line scanner";
    const CameraInfo info = Find(StartOne(config));
    EXPECT_EQ(info.description, "Line scanner");
    EXPECT_EQ(info.address, Ipv4Address(127, 0, 0, 11));
    EXPECT_EQ(info.subnet_mask, Ipv4Address(255, 0, 0, 0));
    EXPECT_EQ(info.mac.text(), "02:01:02:03:04:05");
    EXPECT_EQ(library.info(info.handle).description, "Line scanner");
}

TEST_F(CppTest, AnUnknownCameraIsAnExceptionOrAValue) {
    const Result<Camera> opened = library.try_open(CAM_HANDLE{77});
    ASSERT_FALSE(opened);
    EXPECT_EQ(opened.failure().code, KELO_STATUS_ERROR);
    EXPECT_STREQ(opened.failure().function, "keloOpenCamera");
    try {
        (void)library.open(CAM_HANDLE{77});
        FAIL() << "opened";
    } catch (const Error& error) {
        EXPECT_EQ(error.what(), opened.failure().text());
        EXPECT_EQ(error.camera(), CAM_HANDLE{77});
    }
}

TEST_F(CppTest, RegistersHaveTypes) {
    kelosim::Camera& simulated = StartOne();
    const Camera camera = Open(simulated);
    EXPECT_EQ(camera.set(reg::exposure_time, 1234), 1234u);
    EXPECT_EQ(simulated.GetRegister(REG_EXPOSURETIME), 1234u);
    EXPECT_TRUE(camera.set(reg::reverse_x, true));
    EXPECT_EQ(camera.get(REG_REVERSEX), 1u);
    EXPECT_EQ(camera.set(reg::gain.as<float>(), -2.5F), -2.5F);
    EXPECT_EQ(simulated.GetRegister(REG_GAIN), 0xC0200000u);
    EXPECT_EQ(camera.get<float>(REG_GAIN), -2.5F);
    EXPECT_EQ(camera.get(reg::curr_ip_addr_0), Ipv4Address(127, 0, 0, 11));
    EXPECT_EQ(camera.get(reg::stream(1).frame_size), camera.get(REG_STREAM1_FRAME_SIZE));
    simulated.ClearRequests();
    camera.execute(reg::trigger_software);
    const auto requests = simulated.Requests();
    EXPECT_TRUE(std::any_of(requests.begin(), requests.end(), [](const auto& request) {
        return request.register_number == REG_TRIGGERSOFTWARE && request.value == 1;
    }));
}

TEST_F(CppTest, ARegisterThatIsNotThereIsNamed) {
    const Camera camera = Open(StartOne());
    const Result<std::uint32_t> value = camera.try_get(9999);
    ASSERT_FALSE(value);
    EXPECT_EQ(value.failure().code, KELO_STATUS_OUT_OF_RANGE);
    EXPECT_EQ(value.failure().register_number, 9999u);
    EXPECT_EQ(value.failure().camera, camera.handle());
    EXPECT_THROW(camera.set(9999, 1), Error);
    EXPECT_THROW(camera.set(reg::sensor_width, 1), Error);
    EXPECT_THROW(camera.execute(Command{9999}), Error);
}

TEST_F(CppTest, MemoryGoesInPieces) {
    kelosim::Camera& simulated = StartOne();
    const Camera camera = Open(simulated);
    std::vector<std::uint32_t> values(200);
    for (std::uint32_t i = 0; i < 200; ++i)
        values[i] = i * 3;
    EXPECT_EQ(camera.write_memory(REG_BAD_PIXEL_LOCATIONS, values), 200u);
    EXPECT_EQ(simulated.GetRegister(REG_BAD_PIXEL_LOCATIONS + 199), 597u);
    EXPECT_EQ(camera.read_memory(REG_BAD_PIXEL_LOCATIONS, 200), values);
    EXPECT_FALSE(camera.try_read_memory(9999, 2));
    EXPECT_FALSE(camera.try_write_memory(9999, values));
}

TEST_F(CppTest, ACameraIsOpenForOneObjectAtATime) {
    kelosim::Camera& simulated = StartOne();
    std::optional<Camera> camera(Open(simulated));
    const CAM_HANDLE handle = camera->handle();
    EXPECT_TRUE(simulated.used());
    EXPECT_FALSE(library.try_open(handle));
    Camera moved(std::move(*camera));
    camera.reset();
    EXPECT_TRUE(moved.is_open());
    EXPECT_TRUE(simulated.used());
    moved.close();
    EXPECT_FALSE(moved.is_open());
    EXPECT_FALSE(moved.lost());
    EXPECT_FALSE(simulated.used());
    { const Camera again = library.open(handle); }
    EXPECT_FALSE(simulated.used());
}

TEST_F(CppTest, ImagesAreTheLibrarysOwnMemory) {
    kelosim::StreamConfig stream = Chart(50, 3);
    stream.header_size = 8;
    kelosim::Camera& simulated = StartOne(Config(stream));
    const Camera camera = Open(simulated);
    const Acquisition acquisition = camera.start();
    std::uint32_t expected = 1;
    while (expected <= 3) {
        const std::optional<Image> image = camera.next(0, kPatience);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->data().data(), keloGetImageData(image->handle()));
        EXPECT_EQ(image->data().data(), keloGetImageData(keloGetNextImage(camera.handle(), 0)));
        EXPECT_EQ(image->pixels().data(), image->data().data() + 8);
        EXPECT_EQ(image->header().size(), 8u);
        EXPECT_EQ(image->number(), expected++);
        EXPECT_EQ(image->width(), 64);
        EXPECT_EQ(image->height(), 48);
        EXPECT_EQ(image->format(), 0x08);
        EXPECT_EQ(image->stream(), 0);
        EXPECT_TRUE(image->whole());
        EXPECT_EQ(image->bytes_lost(), 0u);
        EXPECT_EQ(image->statistics().imagesReceived, image->number());
        EXPECT_EQ(Copy(image->data()), simulated.config().streams[0].Frame(image->number()));
    }
    EXPECT_EQ(camera.pending(0), 0u);
}

TEST_F(CppTest, LostPacketsAreZerosWithinTheData) {
    kelosim::StreamConfig stream = Chart(20, 1);
    stream.source = kelosim::MakeTestChart8(320, 200);
    kelosim::CameraConfig config = Config(stream);
    config.path_packet_size = 1500;
    config.faults.packets = {{kelosim::PacketFault::Kind::kDrop, 1, 3, {}}};
    kelosim::Camera& simulated = StartOne(config);
    const Camera camera = Open(simulated);
    const Acquisition acquisition = camera.start();
    const std::optional<Image> image = camera.next(0, kPatience);
    ASSERT_TRUE(image);
    EXPECT_FALSE(image->whole());
    EXPECT_GT(image->bytes_lost(), 0u);
    const std::vector<uint8_t> sent = simulated.config().streams[0].Frame(1);
    ASSERT_EQ(image->data().size(), sent.size());
    EXPECT_EQ(image->data()[sent.size() - 1], sent.back());
    const std::size_t packet = image->bytes_lost();
    EXPECT_EQ(Copy(image->data().subview(3 * packet, packet)), std::vector<uint8_t>(packet, 0));
}

TEST_F(CppTest, OneImageOfAStreamAtATime) {
    const Camera camera = Open(StartOne(Config(Chart(100, 3))));
    const Acquisition acquisition = camera.start();
    std::optional<Image> first = camera.next(0, kPatience);
    ASSERT_TRUE(first);
    EXPECT_FALSE(camera.try_next(0, milliseconds(0)));
    EXPECT_FALSE(camera.try_clear(0));
    Image kept(std::move(*first));
    first.reset();
    EXPECT_EQ(kept.number(), 1u);
    EXPECT_FALSE(camera.try_next(0, milliseconds(0))) << "moved from, but not given back";
    kept.give_back();
    kept.give_back();
    EXPECT_TRUE(kept.data().empty());
    EXPECT_FALSE(kept.valid());
    std::optional<Image> second = camera.next(0, kPatience);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->number(), 2u) << "the first one was given back once";
    kept = std::move(*second);
    EXPECT_EQ(kept.number(), 2u);
    EXPECT_EQ(second->number(), 0u);
}

TEST_F(CppTest, AnImageOutlivesItsCamera) {
    kelosim::Camera& simulated = StartOne(Config(Chart(50, 1)));
    std::optional<Image> image;
    {
        const Camera camera = Open(simulated);
        const Acquisition acquisition = camera.start();
        image = camera.next(0, kPatience);
        ASSERT_TRUE(image);
    }
    EXPECT_TRUE(simulated.used());
    EXPECT_TRUE(image->valid());
    EXPECT_EQ(Copy(image->data()), simulated.config().streams[0].Frame(1));
    image.reset();
    EXPECT_FALSE(simulated.used());
}

TEST_F(CppTest, ARangeEndsWhenNoImageComesInTime) {
    const Camera camera = Open(StartOne(Config(Chart(100, 4))));
    ImageRange nothing = camera.stream(0, milliseconds(1));
    for (Image& image : nothing)
        FAIL() << image.number() << " came before the start";
    const Acquisition acquisition = camera.start();
    std::vector<std::uint32_t> numbers;
    for (Image& image : camera.stream(0, kPatience)) {
        numbers.push_back(image.number());
        if (image.number() == 4) break;
    }
    EXPECT_EQ(numbers, (std::vector<std::uint32_t>{1, 2, 3, 4}));
    ImageRange rest = camera.try_stream(0, milliseconds(1));
    EXPECT_TRUE(rest.begin() == rest.end());
    EXPECT_FALSE(rest.failure());
}

TEST_F(CppTest, AnAcquisitionStopsAtItsEnd) {
    kelosim::Camera& simulated = StartOne(Config(Chart(100)));
    const Camera camera = Open(simulated);
    std::optional<Acquisition> acquisition(camera.start());
    EXPECT_TRUE(WaitFor([&] { return simulated.acquiring(); }));
    Acquisition moved(std::move(*acquisition));
    acquisition.reset();
    EXPECT_TRUE(simulated.acquiring());
    EXPECT_TRUE(WaitFor([&] { return camera.pending(0) > 0; }));
    moved.stop();
    EXPECT_TRUE(WaitFor([&] { return !simulated.acquiring(); }));
    // What was on its way when the camera stopped may come after the first time.
    EXPECT_TRUE(WaitFor([&] {
        camera.clear(0);
        return camera.pending(0) == 0;
    }));
}

TEST_F(CppTest, ARefusedStartIsAFailure) {
    kelosim::CameraConfig config = Config();
    config.faults.refused_registers = {{REG_USED_STREAMS_MASK, 2}};
    const Camera camera = Open(StartOne(config));
    const Result<Acquisition> acquisition = camera.try_start();
    ASSERT_FALSE(acquisition);
    EXPECT_STREQ(acquisition.failure().function, "keloStartImageAcquisition");
}

TEST_F(CppTest, RunLengthImagesAreDecodedIntoAVector) {
    kelosim::StreamConfig stream = Chart(20, 2);
    stream.source = kelosim::MakeLaserProfile(160, 100);
    const Camera camera = Open(StartOne(Config(stream)));
    const Acquisition acquisition = camera.start();
    std::vector<std::uint8_t> pixels;
    for (std::uint32_t number = 1; number <= 2; ++number) {
        const std::optional<Image> image = camera.next(0, kPatience);
        ASSERT_TRUE(image);
        EXPECT_TRUE(image->run_length_coded());
        EXPECT_TRUE(image->decode(pixels).whole());
        EXPECT_EQ(pixels, kelosim::LaserProfilePixels(160, 100, number));
        EXPECT_TRUE(image->decode(pixels, 8).damaged()) << "more than there is room for";
        EXPECT_EQ(pixels.size(), 8u);
        EXPECT_FALSE(image->try_decode(pixels, std::size_t{1} << 40));
        pixels.assign(20000, 0xEE);
        EXPECT_TRUE(image->decode(pixels, 16010).whole());
        EXPECT_EQ(Copy(Bytes(pixels).subview(16000)), std::vector<uint8_t>(10, 0))
            << "nothing of an earlier picture";
    }
}

TEST_F(CppTest, OtherImagesAreNotDecoded) {
    const Camera camera = Open(StartOne(Config(Chart(20, 1))));
    const Acquisition acquisition = camera.start();
    std::optional<Image> image = camera.next(0, kPatience);
    ASSERT_TRUE(image);
    std::vector<std::uint8_t> pixels;
    EXPECT_FALSE(image->try_decode(pixels));
    image->give_back();
    EXPECT_THROW((void)image->decode(pixels), Error);
}

TEST_F(CppTest, TcpStreamsAreTheSame) {
    kelosim::StreamConfig stream = Chart(50);
    stream.over_tcp = true;
    kelosim::Camera& simulated = StartOne(Config(stream));
    const Camera camera = Open(simulated);
    const Acquisition acquisition = camera.start();
    for (Image& image : camera.stream(0, kPatience)) {
        EXPECT_EQ(Copy(image.data()), simulated.config().streams[0].Frame(image.number()));
        if (image.number() >= 3) break;
    }
}

TEST_F(CppTest, ALostCameraTellsEverybody) {
    kelosim::Camera& simulated = StartOne(Config(Chart(50)));
    std::atomic<CAM_HANDLE> closed{0};
    const Camera camera = Open(simulated, [&](CAM_HANDLE handle) { closed = handle; });
    const Acquisition acquisition = camera.start();
    const std::optional<Image> image = camera.next(0, kPatience);
    ASSERT_TRUE(image);
    Lose(simulated, camera.handle());
    EXPECT_TRUE(WaitFor([&] { return closed == camera.handle(); }));
    EXPECT_TRUE(camera.lost());
    EXPECT_FALSE(camera.is_open());
    EXPECT_FALSE(image->valid());
    EXPECT_THROW(for (Image& late : camera.stream(1, kPatience)) late.give_back(), Error);
    ImageRange range = camera.try_stream(1, kPatience);
    EXPECT_TRUE(range.begin() == range.end());
    ASSERT_TRUE(range.failure());
    EXPECT_EQ(range.failure()->code, KELO_STATUS_NO_RESPONSE);
}

TEST_F(CppTest, AWaitEndsWhenTheCameraIsLost) {
    kelosim::Camera& simulated = StartOne(Config(Chart(20, 1)));
    const Camera camera = Open(simulated);
    const Acquisition acquisition = camera.start();
    ASSERT_TRUE(camera.next(0, kPatience));
    std::thread waiter([&] { EXPECT_FALSE(camera.try_next(0, std::chrono::hours(1000))); });
    Lose(simulated, camera.handle());
    waiter.join();
}

TEST_F(CppTest, TheCloseCallbackMayDestroyItsCamera) {
    kelosim::Camera& simulated = StartOne();
    const CameraInfo info = Find(simulated);
    std::optional<Camera> camera;
    std::atomic<bool> done{false};
    camera.emplace(library.open(info, [&](CAM_HANDLE) {
        camera.reset();
        done = true;
    }));
    Lose(simulated, camera->handle());
    EXPECT_TRUE(WaitFor([&] { return done.load(); }));
    EXPECT_FALSE(camera);
}

TEST_F(CppTest, TheCloseCallbackMayThrow) {
    kelosim::Camera& simulated = StartOne();
    const Camera camera = Open(simulated, [](CAM_HANDLE) { throw 1; });
    Lose(simulated, camera.handle());
    EXPECT_TRUE(WaitFor([&] { return camera.lost(); }));
    EXPECT_TRUE(WaitFor([&] { return log.Contains("Returned from the callback"); }));
}

TEST_F(CppTest, WhoTakesTheCallbackAwayWaitsUntilItHasReturned) {
    kelosim::Camera& simulated = StartOne();
    const pid_t taker = gettid();
    std::atomic<int> state{0};
    std::atomic<bool> being_taken{false};
    Camera camera = Open(simulated, [&](CAM_HANDLE) {
        state = 1;
        // Until whoever takes it waits for this one.
        WaitFor([&] { return being_taken && ThreadState(taker) == 'S'; });
        state = 2;
    });
    Lose(simulated, camera.handle());
    EXPECT_TRUE(WaitFor([&] { return state > 0; }));
    being_taken = true;
    camera.on_close({});
    EXPECT_EQ(state, 2);
}

TEST_F(CppTest, NoCallbackAfterTheCamera) {
    kelosim::Camera& simulated = StartOne(Config(Chart(50)));
    std::atomic<int> calls{0};
    std::optional<Image> image;
    CAM_HANDLE handle = 0;
    {
        const Camera camera = Open(simulated, [&](CAM_HANDLE) { ++calls; });
        const Acquisition acquisition = camera.start();
        handle = camera.handle();
        image = camera.next(0, kPatience);
    }
    ASSERT_TRUE(image);
    EXPECT_TRUE(image->valid());
    library.set_address(handle, Ipv4Address(127, 0, 0, 40), Ipv4Address(255, 0, 0, 0));
    EXPECT_TRUE(WaitFor([&] { return !image->valid(); }));
    EXPECT_TRUE(WaitFor([&] { return log.Contains("Returned from the callback"); }));
    EXPECT_EQ(calls, 0);
}

// The callback of a session that is over comes late, because that of another camera takes long.
TEST_F(CppTest, ALateCallbackIsNotForTheNextSession) {
    kelosim::Camera& slow = simulator.Add(Config());
    kelosim::CameraConfig config = Config();
    config.address = kelosim::Ipv4(127, 0, 0, 12);
    kelosim::Camera& simulated = simulator.Add(config);
    simulator.Start();
    std::atomic<bool> entered{false};
    std::atomic<bool> leave{false};
    const Camera other = Open(slow, [&](CAM_HANDLE) {
        entered = true;
        WaitFor([&] { return leave.load(); }, seconds(60));
    });
    Camera first = Open(simulated);
    Lose(slow, other.handle());
    EXPECT_TRUE(WaitFor([&] { return entered.load(); }));
    Lose(simulated, first.handle());
    first.close();
    const Camera second = Open(simulated);
    leave = true;
    EXPECT_TRUE(WaitFor([&] { return log.Count("Returned from the callback") >= 2; }));
    EXPECT_TRUE(second.is_open());
}

class CppFirmware : public CppTest {
protected:
    ~CppFirmware() override { std::filesystem::remove(path); }
    void Write(kelosim::FirmwareSpoil spoil) const {
        kelosim::WriteFirmwareFile(path,
                                   kelosim::MakeFirmwareImage(kelosim::kMinFirmwareSize, 1, spoil));
    }
    // A camera for a run that takes so long that it is still sending when it is aborted.
    kelosim::Camera& StartSlow() {
        kelosim::CameraConfig config = Config();
        config.faults.reply_delay_ms = 1;
        return StartOne(config);
    }
    const std::string path = std::filesystem::temp_directory_path() /
                             ("kelo-cpp-firmware-" + std::to_string(getpid()) + ".bin");
};

TEST_F(CppFirmware, ABadFileIsAFailure) {
    Write(kelosim::FirmwareSpoil::kCrc);
    const Camera camera = Open(StartOne());
    const Result<void> run = camera.try_program_firmware(path);
    ASSERT_FALSE(run);
    EXPECT_STREQ(run.failure().function, "keloFirmwareProgram");
}

TEST_F(CppFirmware, TheProgressMayAbort) {
    Write(kelosim::FirmwareSpoil::kNone);
    const Camera camera = Open(StartSlow());
    const Result<void> run =
        camera.try_program_firmware(path, [](FirmwareProgress& progress) { progress.abort(); });
    ASSERT_FALSE(run);
    EXPECT_EQ(run.failure().code, KELO_STATUS_ERROR);
    EXPECT_STREQ(run.failure().function, "keloFirmwareGetProgress");
}

TEST_F(CppFirmware, WhatTheProgressThrowsEndsTheRunAndGoesOn) {
    Write(kelosim::FirmwareSpoil::kNone);
    const Camera camera = Open(StartSlow());
    EXPECT_THROW(camera.program_firmware(
                     path, [](FirmwareProgress&) { throw std::runtime_error("enough"); }),
                 std::runtime_error);
    EXPECT_TRUE(log.Contains("FW update FAILED")) << "the run has ended";
}

}  // namespace
}  // namespace kelo::test
