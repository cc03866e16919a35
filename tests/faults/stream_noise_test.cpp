// Strangers who send to the image port while an image is under way. They know the camera's address
// and send in its name, as anybody on the network can.

#include <cstring>
#include <optional>
#include <random>
#include <span>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "process_figures.h"
#include "stream_oracle.h"

namespace kelo::test {
namespace {

constexpr uint32_t kDatagrams = 300;
constexpr uint32_t kFrameBytes = 4000;
constexpr uint16_t kPackets = 10;
// A stream's images under reception are completed when nothing came for this long, at the soonest.
constexpr auto kSilence = milliseconds(100);

// A short form by default; the long one has its own test.
uint32_t Runs() {
    return LongForms() ? 1000 : kSlowness == 1 ? 100 : 20;
}

// Sends datagrams to the image port in a camera's name.
class Impostor {
public:
    Impostor(const kelosim::Camera& camera, uint16_t port)
        : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in from = Ipv4(camera.address(), 0);
        const sockaddr_in to = Ipv4(kelosim::Ipv4(127, 0, 0, 1), port);
        const auto* generic_from = reinterpret_cast<const sockaddr*>(&from);
        const auto* generic_to = reinterpret_cast<const sockaddr*>(&to);
        if (bind(socket_, generic_from, sizeof(from)) != 0 ||
            connect(socket_, generic_to, sizeof(to)) != 0) {
            throw std::runtime_error("no socket in the camera's name");
        }
    }
    ~Impostor() { close(socket_); }
    Impostor(const Impostor&) = delete;
    Impostor& operator=(const Impostor&) = delete;
    void Send(std::span<const std::string> datagrams) const {
        std::vector<iovec> slices;
        for (const std::string& datagram : datagrams)
            slices.push_back({const_cast<char*>(datagram.data()), datagram.size()});
        std::vector<mmsghdr> messages(datagrams.size());
        for (size_t i = 0; i < messages.size(); ++i) {
            messages[i].msg_hdr.msg_iov = &slices[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        for (size_t sent = 0; sent < messages.size();) {
            const int count = sendmmsg(socket_, &messages[sent],
                                       static_cast<unsigned>(messages.size() - sent), 0);
            ASSERT_GT(count, 0);
            sent += static_cast<size_t>(count);
        }
    }

private:
    static sockaddr_in Ipv4(uint32_t address, uint16_t port) {
        sockaddr_in made{};
        made.sin_family = AF_INET;
        made.sin_addr.s_addr = htonl(address);
        made.sin_port = htons(port);
        return made;
    }
    const int socket_;
};

// Noise would drown everything else in the log.
class LoggingOff {
public:
    LoggingOff() { keloLogging(0); }
    ~LoggingOff() { keloLogging(1); }
    LoggingOff(const LoggingOff&) = delete;
    LoggingOff& operator=(const LoggingOff&) = delete;
};

class Chance {
public:
    explicit Chance(uint32_t seed) : random_(seed) {}
    uint32_t Below(uint32_t limit) { return random_() % limit; }
    uint16_t U16() { return static_cast<uint16_t>(random_()); }
    uint32_t U32() { return random_(); }
    std::string Bytes(size_t length) {
        std::string bytes(length, '\0');
        for (size_t i = 0; i < length; i += 4) {
            const uint32_t word = random_();
            std::memcpy(&bytes[i], &word, std::min<size_t>(4, length - i));
        }
        return bytes;
    }

private:
    std::mt19937 random_;
};

// An open stream whose camera sends nothing of its own: the test sends in its name.
class StreamNoise : public FaultTest {
protected:
    StreamNoise() {
        kelosim::StreamConfig stream;
        stream.source = kelosim::MakeBytes(kFrameBytes, 80, 50);
        kelosim::Camera& camera = AddCamera(With({stream}));
        simulator.Start();
        camera.SetRegister(REG_TRIGGERMODE, 1);
        handle_ = OpenAndStart(camera);
        impostor_.emplace(camera, static_cast<uint16_t>(camera.GetRegister(REG_STREAMPORT)));
        model_.Restart();
    }
    // The camera's own next image.
    ImagePacket Next(uint16_t number) {
        ImagePacket packet{.image = image_, .number = number, .count = kPackets};
        packet.stream = 0;
        packet.payload = Chance(image_ * 100 + number).Bytes(kFrameBytes / kPackets);
        return packet;
    }
    void AddNext(uint16_t from, uint16_t to) {
        for (uint16_t number = from; number < to; ++number)
            Add(Next(number));
    }
    void Add(const ImagePacket& packet) {
        model_.Receive(packet);
        datagrams_.push_back(packet.Bytes());
    }
    // Has write() write down what is to be sent, and sends it, until it went without a silence in
    // which the timer could have completed something; then compares what came with the model.
    template <typename Write>
    void Run(const Write& write) {
        RepeatUntilInTime([&] {
            datagrams_.clear();
            write();
            const uint64_t drops_before = DropsOfFullBuffers();
            const Stopwatch watch;
            impostor_->Send(datagrams_);
            const bool all =
                WaitFor([&] { return Pending(handle_) >= model_.finished.size(); }, seconds(2));
            const bool in_time = watch.Elapsed() < kSilence && DropsOfFullBuffers() == drops_before;
            EXPECT_TRUE(all || !in_time);
            if (in_time) {
                ExpectImages(handle_, 0, model_);
                model_.finished.clear();
                model_.log.clear();
            } else {
                BeginAgain();
            }
            ++image_;
            return in_time;
        });
    }
    // Sends whole images until one comes: all that was sent before is through then.
    void Flush() {
        EXPECT_TRUE(WaitFor([&] {
            ++image_;
            std::vector<std::string> whole;
            for (uint16_t number = 0; number < kPackets; ++number)
                whole.push_back(Next(number).Bytes());
            impostor_->Send(whole);
            return WaitFor([&] { return Pending(handle_) > 0 && Take(handle_).number == image_; },
                           seconds(1));
        }));
    }
    void BeginAgain() {
        Flush();
        ASSERT_EQ(keloStartImageAcquisition(handle_), KELO_STATUS_SUCCESS);
        keloClearBuffer(handle_, 0);
        model_ = ReassemblyModel(kFrameBytes);
        model_.Restart();
    }
    // An image whose second half follows what noise() sends; it must come as if there were none.
    template <typename Noise>
    void ExpectAnUndisturbedImage(const Noise& noise) {
        Run([&] {
            AddNext(0, kPackets / 2);
            for (uint32_t i = 0; i < kDatagrams; ++i)
                noise();
            AddNext(kPackets / 2, kPackets);
            EXPECT_EQ(model_.finished.size(), 1u);
            EXPECT_EQ(model_.finished.back().losses.missingPackets, 0);
            EXPECT_EQ(model_.finished.back().losses.bytesReceived, kFrameBytes);
        });
    }

    uint32_t image_ = 1000;
    CAM_HANDLE handle_ = 0;
    std::optional<Impostor> impostor_;
    std::vector<std::string> datagrams_;
    ReassemblyModel model_{kFrameBytes};
};

// Datagrams of any length and content, but those that begin as the stream's own: one in 65536,
// which are what the other tests send.
std::string RandomContent(Chance& chance) {
    std::string datagram = chance.Bytes(chance.Below(100) == 0 ? 20000 : chance.Below(64));
    if (datagram.size() > 1 && datagram[0] == '\xAC' && datagram[1] == '\0') datagram[1] = '\1';
    return datagram;
}

TEST_F(StreamNoise, RandomContentDoesNotDisturbTheImageUnderWay) {
    Chance chance(1);
    const LoggingOff logging_off;
    for (uint32_t run = 0; run < Runs() && !HasFailure(); ++run)
        ExpectAnUndisturbedImage([&] { datagrams_.push_back(RandomContent(chance)); });
}

TEST_F(StreamNoise, RandomContentIsToldLineByLine) {
    const size_t before = log.Lines().size();
    Chance chance(2);
    std::vector<std::string> datagrams(kDatagrams);
    size_t short_ones = 0;
    size_t wrong_ones = 0;
    for (std::string& datagram : datagrams) {
        datagram = RandomContent(chance);
        short_ones += datagram.size() <= 14 ? 1 : 0;
        wrong_ones += datagram.size() > 14 && datagram[0] != '\xAC' ? 1 : 0;
    }
    impostor_->Send(datagrams);
    Run([&] { AddNext(0, kPackets); });
    EXPECT_EQ(LinesThatBegin({"Stream packet too small"}, before).size(), short_ones);
    EXPECT_EQ(LinesThatBegin({"Wrong stream packet magic number."}, before).size(), wrong_ones);
}

// Magic number, stream and image are those of the image under way. What can be told from the
// camera's own is told: packets beyond the image's end, and packets that have come already. (A
// packet of the image that is still to come cannot be told from the camera's own.)
TEST_F(StreamNoise, TheImagesOwnHeaderOverRandomContentDoesNotDisturbIt) {
    Chance chance(3);
    const LoggingOff logging_off;
    for (uint32_t run = 0; run < Runs() && !HasFailure(); ++run) {
        ExpectAnUndisturbedImage([&] {
            ImagePacket packet = Next(0);
            packet.number = chance.Below(2) == 0
                                ? static_cast<uint16_t>(chance.Below(kPackets / 2))
                                : static_cast<uint16_t>(kPackets + chance.Below(65536 - kPackets));
            packet.count = chance.U16();
            packet.width = chance.U16();
            packet.payload = chance.Bytes(1 + chance.Below(200));
            Add(packet);
        });
    }
}

// Magic number and stream are right, image and packet numbers are anything: such a datagram may
// well be the camera's, and may begin an image or complete one. What must come of it is no more and
// no less than the model says.
TEST_F(StreamNoise, ARightHeaderOverRandomContentDoesWhatAnyPacketMay) {
    Chance chance(4);
    const LoggingOff logging_off;
    for (uint32_t run = 0; run < Runs() && !HasFailure(); ++run) {
        Run([&] {
            AddNext(0, kPackets / 2);
            for (uint32_t i = 0; i < kDatagrams; ++i) {
                ImagePacket packet = Next(0);
                const uint32_t kind = chance.Below(8);
                packet.image = kind == 0   ? chance.U32()
                               : kind == 1 ? image_ - chance.Below(3)
                                           : image_ + chance.Below(20);
                const uint32_t packets = chance.Below(4) == 0 ? 200 : 16;
                packet.count = static_cast<uint16_t>(chance.Below(packets));
                packet.number = static_cast<uint16_t>(chance.Below(packets));
                packet.payload = chance.Bytes(1 + chance.Below(500));
                Add(packet);
            }
            AddNext(kPackets / 2, kPackets);
            // The sixth packet that lies beyond the window makes everything before it complete.
            for (int i = 0; i < 6 && !model_.IsIdle(); ++i) {
                ImagePacket far{.image = image_ + 1000, .number = 2999, .count = 3000};
                far.stream = 0;
                Add(far);
            }
            EXPECT_TRUE(model_.IsIdle());
            image_ += 2000;
        });
    }
}

// More than 100,000 datagrams a second at the image port, while a stream goes on. A machine that
// has much else to do sends them more slowly; the figure tells.
class StreamFlood : public FaultTest {
protected:
    static constexpr uint32_t kPerSecond = 110000 / kSlowness;

    // For a second. Returns the rate.
    static double Flood(Impostor& impostor, Chance& chance) {
        std::vector<std::string> datagrams(1000);
        for (std::string& datagram : datagrams)
            datagram = RandomContent(chance).substr(0, 100);
        const auto begin = steady_clock::now();
        constexpr uint32_t kAtOnce = 100;
        for (uint32_t i = 0; i < kPerSecond; i += kAtOnce) {
            std::this_thread::sleep_until(
                begin + std::chrono::microseconds(uint64_t{i} * 1000000 / kPerSecond));
            impostor.Send(std::span(datagrams).subspan(i % datagrams.size(), kAtOnce));
        }
        const std::chrono::duration<double> took = steady_clock::now() - begin;
        return kPerSecond / took.count();
    }
};

TEST_F(StreamFlood, CostsAStreamNothingThatTheBufferCanHold) {
    constexpr uint32_t kImages = 100;
    kelosim::Camera& camera = StartOne(With({ChartStream(kImages, 100)}));
    const auto stream = camera.config().streams[0];
    RepeatUntilInTime([&] {
        camera.ClearRequests();
        const size_t log_before = log.Text().size();
        const uint64_t drops_before = DropsOfFullBuffers();
        const CAM_HANDLE handle = OpenAndStart(camera);
        Impostor impostor(camera, static_cast<uint16_t>(camera.GetRegister(REG_STREAMPORT)));
        Chance chance(5);
        const double per_second = Flood(impostor, chance);
        EXPECT_TRUE(WaitFor([&] { return !camera.acquiring(); }));
        const bool all = WaitFor([&] { return Pending(handle) >= kImages; }, seconds(5));
        const uint64_t drops = DropsOfFullBuffers() - drops_before;
        const bool in_time =
            all && drops == 0 && CountStarts(camera) == 1 && !AnImageWasCutShort(log_before);
        uint64_t missing = 0;
        std::vector<Image> images;
        while (keloIsBufferEmpty(handle, 0) == 0)
            images.push_back(Take(handle));
        for (uint32_t i = 0; i < images.size(); ++i) {
            const BufferStatistics& losses = images[i].info.bufferStatistics;
            missing += losses.missingPackets;
            if (losses.missingPackets == 0) {
                EXPECT_EQ(images[i].data, stream.Frame(images[i].number));
            }
            EXPECT_TRUE(!in_time || images[i].number == i + 1);
        }
        if (in_time) {
            EXPECT_EQ(images.size(), kImages);
            EXPECT_EQ(missing, 0u);
            State("noise_per_s_beside_a_stream", per_second);
        }
        EXPECT_EQ(keloCloseCamera(handle), KELO_STATUS_SUCCESS);
        return in_time;
    });
}

}  // namespace
}  // namespace kelo::test
