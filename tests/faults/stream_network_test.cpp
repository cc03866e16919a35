// Networks and cameras that lose, repeat, reorder and misnumber image packets. The simulated camera
// keeps what it has sent; a simple model of reassembly tells what must come of it, byte for byte.

#include <set>

#include "stream_oracle.h"

namespace kelo::test {
namespace {

using kelosim::Faults;
using kelosim::PacketFault;

constexpr uint32_t kPacketSize = 1500;
constexpr uint32_t kImages = 60;

struct Harm {
    const char* name;
    Faults faults;
    uint32_t images = kImages;
    uint32_t first_number = 1;
    uint32_t image_bytes = 64000;  // 44 packets

    friend void PrintTo(const Harm& harm, std::ostream* out) { *out << ToString(harm.faults); }
};

class StreamNetwork : public FaultTest {
protected:
    static kelosim::CameraConfig ConfigOf(const Harm& harm) {
        kelosim::StreamConfig stream;
        stream.source = kelosim::MakeBytes(harm.image_bytes, 320, 200);
        stream.image_count = harm.images;
        stream.first_image_number = harm.first_number;
        stream.keep_sent = true;
        kelosim::CameraConfig config = With({stream});
        config.path_packet_size = kPacketSize;
        config.faults = harm.faults;
        return config;
    }
    ReassemblyModel ModelOfSent(const kelosim::Camera& camera) {
        return ModelOf(camera.SentDatagrams(0), camera.config().streams[0].MaxFrameSize());
    }
    // Waits until the cameras have sent everything and all images that must come of it are there.
    // False when the machine stood still on the way: a datagram was lost, a start repeated, or an
    // image cut short by the timer that would not have been.
    bool CameInTime(const std::vector<CAM_HANDLE>& handles,
                    const std::vector<ReassemblyModel>& models, size_t lines_before,
                    uint64_t drops_before) {
        std::vector<std::string> forced;
        for (size_t i = 0; i < handles.size(); ++i) {
            const bool there = WaitFor(
                [&] { return Pending(handles[i]) >= models[i].finished.size(); }, seconds(5));
            if (!there || CountStarts(simulator[i]) != 1) return false;
            const auto of_model = ForcedCompletions(models[i].log);
            forced.insert(forced.end(), of_model.begin(), of_model.end());
        }
        auto happened = ForcedCompletions(LinesThatBegin(kReceptionLines, lines_before));
        std::sort(forced.begin(), forced.end());
        std::sort(happened.begin(), happened.end());
        return happened == forced && DropsOfFullBuffers() == drops_before;
    }
    // Acquires from all cameras until it went in time, and compares with their models.
    // check(models) says what else must hold.
    template <typename Check>
    void ExpectWhatTheModelsSay(const Check& check) {
        simulator.Start();
        RepeatUntilInTime([&] {
            const size_t lines_before = log.Lines().size();
            const uint64_t drops_before = DropsOfFullBuffers();
            for (size_t i = 0; i < simulator.size(); ++i)
                simulator[i].ClearRequests();
            const std::vector<CAM_HANDLE> handles = OpenAndStartAll();
            std::vector<ReassemblyModel> models;
            for (size_t i = 0; i < simulator.size(); ++i) {
                EXPECT_TRUE(WaitFor([&] { return !simulator[i].acquiring(); }));
                models.push_back(ModelOfSent(simulator[i]));
            }
            const bool in_time = CameInTime(handles, models, lines_before, drops_before);
            for (size_t i = 0; in_time && i < handles.size(); ++i)
                ExpectImages(handles[i], 0, models[i]);
            if (in_time && handles.size() == 1) {
                EXPECT_EQ(LinesThatBegin(kReceptionLines, lines_before), models[0].log);
            }
            if (in_time) check(models);
            for (const CAM_HANDLE handle : handles)
                EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
            return in_time;
        });
    }
    void ExpectWhatTheModelsSay() {
        ExpectWhatTheModelsSay([](const auto&) {});
    }
};

std::set<std::pair<uint32_t, uint16_t>> DistinctPackets(
    const std::vector<std::vector<uint8_t>>& datagrams) {
    std::set<std::pair<uint32_t, uint16_t>> distinct;
    for (const auto& datagram : datagrams) {
        const ImagePacket packet = ParsePacket(datagram);
        distinct.emplace(packet.image, packet.number);
    }
    return distinct;
}

std::string NameOf(const testing::TestParamInfo<Harm>& test) {
    return test.param.name;
}

Faults Rates(double drop, double duplicate = 0, double delay = 0, double reorder = 0) {
    Faults faults;
    faults.seed = 20;
    faults.drop_rate = drop;
    faults.duplicate_rate = duplicate;
    faults.delay_rate = delay;
    faults.reorder_rate = reorder;
    return faults;
}

Faults Delay(double rate, uint32_t packets) {
    Faults faults = Rates(0, 0, rate);
    faults.delay_packets = packets;
    return faults;
}

// length packets get lost from each of the images' packets on.
Faults Bursts(const std::vector<std::pair<uint32_t, uint16_t>>& begins, uint16_t length) {
    Faults faults;
    for (const auto& [image, packet] : begins) {
        faults.packets.push_back({.kind = PacketFault::Kind::kDrop,
                                  .image = image,
                                  .packet = packet,
                                  .stream = {},
                                  .count = length});
    }
    return faults;
}

Faults WholeImages(const std::vector<uint32_t>& images) {
    Faults faults;
    for (const uint32_t image : images)
        faults.packets.push_back(
            {.kind = PacketFault::Kind::kDrop, .image = image, .packet = {}, .stream = {}});
    return faults;
}

Faults Jumps(std::vector<kelosim::NumberJump> jumps) {
    Faults faults;
    faults.jumps = std::move(jumps);
    return faults;
}

// An image, or every one, claims to have so many packets.
Faults Claims(std::optional<uint32_t> image, uint16_t packets) {
    kelosim::HeaderLie lie;
    lie.image = image;
    lie.all_packets = packets;
    Faults faults;
    faults.headers = {lie};
    return faults;
}

constexpr uint32_t Back(uint32_t by) {
    return 0u - by;
}

// Packets that never come. The model is checked against the simpler truth that each of them is
// counted, as a packet missing in an image or as one of an image of which nothing came.
class Loss : public StreamNetwork, public testing::WithParamInterface<Harm> {};

TEST_P(Loss, CostsExactlyWhatWasLost) {
    const kelosim::Camera& camera = AddCamera(ConfigOf(GetParam()));
    ExpectWhatTheModelsSay([&](const std::vector<ReassemblyModel>& models) {
        const uint32_t per_image = (GetParam().image_bytes + 1457) / 1458;
        const size_t sent = DistinctPackets(camera.SentDatagrams(0)).size();
        const size_t lost = size_t{per_image} * GetParam().images - sent;
        EXPECT_GT(lost, 0u);
        const auto& images = models[0].finished;
        const StreamStatistics& counters = images.back().counters;
        const size_t vanished = GetParam().images - images.size();
        // What the window left behind was sent, but came too late to be of use.
        const uint64_t counted = counters.missingPackets + vanished * per_image;
        EXPECT_GE(counted, lost);
        EXPECT_LE(counted, lost + 5);
        EXPECT_EQ(vanished, counters.imagesSkipped);
        const auto source = camera.config().streams[0];
        for (const ReassemblyModel::Image& image : images) {
            if (image.losses.errorFlag != 0) continue;
            const auto frame = source.Frame(image.number);
            EXPECT_EQ(image.data, std::string(frame.begin(), frame.end()));
        }
    });
}

std::vector<Harm> Losses() {
    std::vector<Harm> rows = {
        Harm{"OnePerMille", Rates(0.001), 100},
        Harm{"OnePercent", Rates(0.01)},
        Harm{"TenPercent", Rates(0.1)},
        Harm{"HalfOfAll", Rates(0.5)},
        Harm{"Bursts", Bursts({{2, 10}, {3, 0}, {7, 30}, {8, 0}, {20, 14}, {21, 0}}, 14)},
        Harm{"ABurstThatTheWindowWaitsFor", Bursts({{2, 100}}, 300), 3, 1, 1000 * 1458},
        Harm{"EveryPacketOfSomeImages", WholeImages({2, 10, 11, 12, 30})}};
#if !defined(KELO_WITH_SANITIZER)
    // A sanitizer slows the camera down so that its silence outlasts the reception's timer.
    rows.push_back({"ABurstLongerThanTheWindow", Bursts({{1, 100}}, 2060), 1, 1, 2200 * 1458});
#endif
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Of, Loss, testing::ValuesIn(Losses()), NameOf);

// Packets that all come, though not once and in order, cost nothing while they come before too much
// else does. A repeated last packet, though, comes when its image is complete already, and begins
// it again: once more, with all the others missing.
class Disorder : public StreamNetwork, public testing::WithParamInterface<Harm> {};

TEST_P(Disorder, WithinTheWindowCostsNothing) {
    const kelosim::Camera& camera = AddCamera(ConfigOf(GetParam()));
    ExpectWhatTheModelsSay([&](const std::vector<ReassemblyModel>& models) {
        const auto sent = camera.SentDatagrams(0);
        bool in_order = true;
        for (size_t i = 1; i < sent.size(); ++i)
            in_order = in_order && std::lexicographical_compare(
                                       sent[i - 1].begin() + 2, sent[i - 1].begin() + 8,
                                       sent[i].begin() + 2, sent[i].begin() + 8);
        EXPECT_FALSE(in_order);
        std::set<uint32_t> whole;
        size_t ghosts = 0;
        for (const ReassemblyModel::Image& image : models[0].finished) {
            if (!whole.insert(image.number).second) {
                ++ghosts;
                EXPECT_EQ(image.losses.missingPackets, image.count - 1);
                continue;
            }
            const auto frame = camera.config().streams[0].Frame(image.number);
            EXPECT_EQ(image.data, std::string(frame.begin(), frame.end()));
            EXPECT_EQ(image.losses.missingPackets, 0);
        }
        EXPECT_EQ(whole.size(), GetParam().images);
        EXPECT_EQ(ghosts > 0, GetParam().faults.duplicate_rate > 0);
    });
}

INSTANTIATE_TEST_SUITE_P(Of, Disorder,
                         testing::Values(Harm{"Duplicates", Rates(0, 0.1)},
                                         Harm{"EveryPacketTwice", Rates(0, 1)},
                                         Harm{"SwappedPackets", Rates(0, 0, 0, 0.2)},
                                         Harm{"ShortDelays", Delay(0.1, 8)},
                                         Harm{"DelaysOverSeveralImages", Delay(0.02, 150)},
                                         Harm{"AllAtOnce", Rates(0, 0.05, 0.05, 0.05)}),
                         NameOf);

// What is only known to follow rules: every packet and image is where the model has it.
class Chaos : public StreamNetwork, public testing::WithParamInterface<Harm> {};

TEST_P(Chaos, GoesAsTheModelSays) {
    AddCamera(ConfigOf(GetParam()));
    ExpectWhatTheModelsSay();
}

INSTANTIATE_TEST_SUITE_P(
    Of, Chaos,
    testing::Values(Harm{"DelaysBeyondWhatTheWindowWaitsFor", Delay(0.01, 700)},
                    Harm{"ImagesThatClaimAllPacketsThereCanBe", Claims({}, 0xFFFF), 5},
                    Harm{"AnImageThatClaimsNoPackets", Claims(3, 0), 5},
                    Harm{"DelaysBeyondTheWindow", Delay(0.005, 2500), 80},
                    Harm{"EverythingAtOnce",
                         [] {
                             Faults faults = Rates(0.05, 0.05, 0.05, 0.05);
                             faults.delay_packets = 500;
                             return faults;
                         }()}),
    NameOf);

// Numbers that do not follow each other. Whatever they are, the images are whole.
class Numbers : public StreamNetwork, public testing::WithParamInterface<Harm> {};

TEST_P(Numbers, LeaveTheImagesWhole) {
    const kelosim::Camera& camera = AddCamera(ConfigOf(GetParam()));
    ExpectWhatTheModelsSay([&](const std::vector<ReassemblyModel>& models) {
        ASSERT_EQ(models[0].finished.size(), GetParam().images);
        uint32_t expected = GetParam().first_number;
        uint64_t skipped = 0;
        for (uint32_t i = 0; i < GetParam().images; ++i, ++expected) {
            for (const kelosim::NumberJump& jump : GetParam().faults.jumps) {
                if (jump.image != GetParam().first_number + i) continue;
                expected += jump.by;
                skipped += jump.by;
            }
            const ReassemblyModel::Image& image = models[0].finished[i];
            EXPECT_EQ(image.number, expected);
            EXPECT_EQ(image.counters.imagesSkipped, skipped);
            const auto frame = camera.config().streams[0].Frame(image.number);
            EXPECT_EQ(image.data, std::string(frame.begin(), frame.end()));
        }
    });
}

INSTANTIATE_TEST_SUITE_P(
    That, Numbers,
    testing::Values(Harm{"JumpForward", Jumps({{5, 10}, {9, 1000000}}), 12},
                    Harm{"JumpBackward", Jumps({{8, Back(3)}, {12, Back(5)}}), 20},
                    Harm{"BeginAgain", Jumps({{21, Back(20)}, {41, Back(20)}})},
                    Harm{"WrapAround", {}, 12, 0xFFFFFFFA},
                    Harm{"JumpAcrossTheEnd", Jumps({{0xFFFFFFF8, 100}}), 12, 0xFFFFFFF0}),
    NameOf);

TEST_F(StreamNetwork, ACameraThatIsStartedAgainBeginsItsNumbersAgain) {
    const Harm whole{"", {}, 5};
    kelosim::Camera& camera = AddCamera(ConfigOf(whole));
    simulator.Start();
    RepeatUntilInTime([&] {
        const size_t before = log.Text().size();
        camera.ClearRequests();
        const CAM_HANDLE handle = OpenAndStart(camera);
        for (int start = 1; start <= 3; ++start) {
            EXPECT_TRUE(WaitFor([&] { return Pending(handle) >= whole.images; }));
            const bool in_time = CountStarts(camera) == start && !AnImageWasCutShort(before);
            if (in_time) ExpectImages(handle, 0, ModelOfSent(camera));
            if (!in_time || start == 3) {
                EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
                return in_time;
            }
            EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
        }
        return false;
    });
}

TEST_F(StreamNetwork, CamerasWithTheSameNumbersAreKeptApart) {
    // The same stream, image and packet numbers at the same time; only the pictures and what gets
    // lost differ.
    Harm harm{"", Rates(0.02, 0.02, 0.02), kImages};
    AddCamera(ConfigOf(harm));
    harm.faults.seed = 21;
    kelosim::CameraConfig other = ConfigOf(harm);
    other.address = kelosim::Ipv4(127, 0, 0, 12);
    other.streams[0].source = kelosim::MakeTestChart8(320, 200);
    AddCamera(other);
    ExpectWhatTheModelsSay([&](const std::vector<ReassemblyModel>& models) {
        EXPECT_EQ(models[0].finished.front().number, models[1].finished.front().number);
        EXPECT_NE(models[0].finished.front().data, models[1].finished.front().data);
    });
}

}  // namespace
}  // namespace kelo::test
