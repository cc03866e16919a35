// Writes the seeds of every target's corpus: one file per situation, under its name.
//   fuzz_make_corpus FOLDER

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "script.h"
#include "targets/control_dispatch.h"
#include "targets/control_replies.h"
#include "targets/firmware_file.h"
#include "targets/firmware_readback.h"

namespace {

using kelo::fuzz::ControlRecord;
using kelo::fuzz::ImageScript;
using kelo::fuzz::ReadBackStep;
using kelo::fuzz::ReplyRequest;
using kelo::fuzz::ScriptOp;
using kelo::fuzz::Wire;
using kelo::test::ImagePacket;
using kelo::test::TcpMessage;

class Corpus {
public:
    Corpus(const std::filesystem::path& root, const char* target) : folder_(root / target) {
        std::filesystem::create_directories(folder_);
    }
    Corpus& Add(const char* name, const std::string& input) {
        std::ofstream file(folder_ / name, std::ios::binary);
        file << input;
        if (!file.flush()) throw std::runtime_error("cannot write " + (folder_ / name).string());
        return *this;
    }

private:
    std::filesystem::path folder_;
};

// ---- Options, checksums, run-length ----

void MakeOptions(const std::filesystem::path& root) {
    Corpus(root, "options")
        .Add("plain", "UDP")
        .Add("factor", "UDP 2.5\n")
        .Add("spaces", "  UDP\t100")
        .Add("out-of-range", "UDP 100.5")
        .Add("exponent", "UDP 1e1")
        .Add("hexadecimal", "UDP 0x1p3")
        .Add("not-a-number", "UDP nan")
        .Add("long-word", "UDPUDPUDPUDP 2")
        .Add("other-word", "PCAP 2");
}

void MakeChecksums(const std::filesystem::path& root) {
    const auto input = [](uint32_t start, uint32_t piece, uint32_t offset,
                          const std::string& text) {
        return Wire().U32(start).U8(piece).U8(offset).Text(text);
    };
    Corpus(root, "checksums")
        .Add("check-value", input(0xFFFFFFFF, 3, 0, "123456789"))
        .Add("firmware-start", input(0x5478DE90, 7, 1, std::string(100, '\xFF')))
        .Add("nothing", input(0, 0, 0, ""));
}

void MakeRunLength(const std::filesystem::path& root) {
    const auto input = [](uint32_t size, const std::string& code) {
        return Wire().U16(size).Text(code);
    };
    std::string profile;
    for (int row = 0; row < 40; ++row) {
        profile += Wire().U8(0).U8(row).U8(row % 3);
        for (int i = 0; i < row; ++i)
            profile += Wire().U8(3 + (i * 17 + row) % 250);
        profile += Wire().U8(0xFF).U8(row * 3);
    }
    Corpus(root, "run_length")
        .Add("profile", input(40000, profile + '\x01'))
        .Add("profile-too-long", input(3000, profile + '\x01'))
        .Add("literals", input(200, std::string(150, '\x20') + '\x02'))
        .Add("literals-without-end", input(200, std::string(150, '\x20')))
        .Add("zero-runs", input(65535, Wire().U8(0).U16(0xFFFF).U8(0).U16(0).U8(1)))
        .Add("full-runs", input(600, Wire().U8(0xFF).U8(0xFF).U8(0xFF).U8(0).U8(2)))
        .Add("nothing", input(10, ""));
}

// ---- Identities ----

// A discovery reply as it stands on the wire.
std::string DiscoveryReply(uint32_t ip, std::string description, uint32_t mask = 0xFFFFFF00,
                           uint32_t mac_end = 1) {
    description.resize(32, '\0');
    return Wire()
        .U8(0xAB)
        .U8(0)
        .U32(2)
        .U32(0)
        .U32(1)
        .U32(0)
        .U32(0x00020003)
        .Text(description)
        .U32(ip)
        .U32(mask)
        .U16(0x0200)
        .U32(mac_end)
        .U16(0)
        .U32(1000)
        .U32(0);
}

void MakeIdentities(const std::filesystem::path& root) {
    const auto input = [](const std::string& first, const std::string& second) {
        return Wire().U8(static_cast<uint32_t>(first.size())).Text(first).Text(second);
    };
    const std::string camera = DiscoveryReply(0xC0A8010B, "Camera");
    Corpus(root, "camera_identity")
        .Add("same", input(camera, camera))
        .Add("other-mac", input(camera, DiscoveryReply(0xC0A8010B, "Camera", 0xFFFFFF00, 2)))
        .Add("behind-the-zero",
             input(camera, DiscoveryReply(0xC0A8010B, std::string("Camera\0x", 8))))
        .Add("full-description", input(camera, DiscoveryReply(0xC0A8010B, std::string(32, '\xE4'))))
        .Add("cut-off", input(camera.substr(0, 60), camera.substr(0, 15)));
}

// ---- Images over UDP ----

ImageScript Stream(uint32_t packets = 4) {
    return ImageScript().Do8(ScriptOp::InitStream, 0).Image(1).Shape(packets, 8, 3);
}

void MakeImageScripts(const std::filesystem::path& root) {
    using Op = ScriptOp;
    Corpus(root, "image_script")
        .Add("in-order", Stream().Do8(Op::Send, 11).Do(Op::Pop).Do(Op::Tick))
        .Add("batches", Stream().Do8(Op::BatchSize, 9).Do8(Op::Send, 60).Do(Op::Pop))
        .Add("a-loss", Stream().Do8(Op::Send, 1).Do8(Op::SkipPackets, 0).Do8(Op::Send, 9))
        .Add("a-loss-written-off",
             Stream(40).Do8(Op::Send, 3).Do8(Op::SkipPackets, 4).Do16(Op::SendLong, 500))
        .Add("late-packets", Stream(20)
                                 .Do8(Op::Hold, 3)
                                 .Do8(Op::Send, 8)
                                 .Do(Op::Release)
                                 .Do8(Op::Hold, 6)
                                 .Do8(Op::Send, 30)
                                 .Do(Op::ReleaseReversed))
        .Add("too-new", Stream(3000).Do8(Op::Send, 2).Do16(Op::Seek, 2500).Do8(Op::Send, 9))
        .Add("too-new-images", Stream(700)
                                   .Do8(Op::Send, 2)
                                   .Do8(Op::SkipImages, 1)
                                   .Do8(Op::Send, 3)
                                   .Do8(Op::SkipImages, 1)
                                   .Do8(Op::Send, 3)
                                   .Do8(Op::SkipImages, 1)
                                   .Do8(Op::Send, 3)
                                   .Do8(Op::SkipImages, 1)
                                   .Do8(Op::Send, 9))
        .Add("duplicates", Stream(10)
                               .Do8(Op::Seek, 0)
                               .Do8(Op::Repeat, 3)
                               .Do8(Op::SkipPackets, 0)
                               .Do8(Op::Repeat, 255)
                               .Do8(Op::Repeat, 255)
                               .Do8(Op::Send, 20))
        .Add("last-packet-first",
             Stream().Do16(Op::Seek, 3).Do8(Op::Send, 0).Do8(Op::SkipImages, 0xFF).Do8(Op::Send, 2))
        .Add("last-packet-moved-out", Stream()
                                          .Shape(4, 255, 0)
                                          .Do16(Op::Seek, 3)
                                          .Do8(Op::Send, 0)
                                          .Do8(Op::SkipImages, 0xFF)
                                          .Do8(Op::Send, 3))
        .Add("single-packets", Stream(1).Do8(Op::BatchSize, 31).Do8(Op::Send, 100))
        .Add("wrapping-numbers",
             Stream().Image(0xFFFFFFFE).Do8(Op::Send, 20).Image(1).Do8(Op::Send, 9))
        .Add("skipped-images", Stream().Do8(Op::Send, 3).Do8(Op::SkipImages, 100).Do8(Op::Send, 3))
        .Add(
            "lying-counts",
            Stream().Do8(Op::Send, 0).Odd(9, 4, 5).Odd(1, 65535, 200).Odd(0, 0, 1).Do8(Op::Send, 9))
        .Add("ticks",
             Stream().Do8(Op::Send, 1).Do(Op::Tick).Do(Op::Tick).Do8(Op::Send, 2).Do(Op::Tick))
        .Add("restarts", Stream()
                             .Do8(Op::Send, 1)
                             .Do8(Op::InitStream, 3)
                             .Do8(Op::Send, 5)
                             .Do(Op::ExitCamera)
                             .Do8(Op::Send, 3)
                             .Do8(Op::InitStream, 2)
                             .Do8(Op::Send, 9))
        .Add("four-streams", Stream()
                                 .Do8(Op::Send, 2)
                                 .Do8(Op::Select, 1)
                                 .Do8(Op::InitStream, 4)
                                 .Do8(Op::Send, 6)
                                 .Do8(Op::BatchSize, 15)
                                 .Do8(Op::Select, 2)
                                 .Do8(Op::InitStream, 1)
                                 .Do8(Op::Send, 7)
                                 .Do8(Op::Select, 0)
                                 .Do8(Op::Send, 3)
                                 .Do8(Op::Select, 3)
                                 .Do8(Op::Send, 3)
                                 .Do(Op::ResetStatistics)
                                 .Do8(Op::Select, 0)
                                 .Do8(Op::Send, 9))
        .Add("garbage", Stream()
                            .Do8(Op::BatchSize, 5)
                            .Do8(Op::Send, 1)
                            .Do8(Op::Garbage, 0)
                            .Do8(Op::Garbage, 14)
                            .Do8(Op::Garbage, 20)
                            .Do8(Op::Send, 9));
}

// A datagram for the target image_datagrams.
std::string Datagram(uint32_t flags, const std::string& bytes) {
    return Wire().U8(flags).U16(static_cast<uint32_t>(bytes.size())).Text(bytes);
}

void MakeImageDatagrams(const std::filesystem::path& root) {
    const auto packet = [](uint32_t image, uint32_t number, uint32_t count) {
        ImagePacket made{.image = image,
                         .number = static_cast<uint16_t>(number),
                         .count = static_cast<uint16_t>(count)};
        made.stream = 1;
        return made.Bytes();
    };
    std::string in_order;
    std::string with_a_gap;
    for (uint32_t i = 0; i < 12; ++i) {
        in_order += Datagram(i % 5 == 4 ? 5 : 1, packet(i / 4, i % 4, 4));
        if (i != 6) with_a_gap += Datagram(i == 9 ? 0x28 : 0, packet(i / 4, i % 4, 4));
    }
    const std::string first = Wire().U8(0);
    Corpus(root, "image_datagrams")
        .Add("in-order", first + in_order)
        .Add("with-a-gap", first + with_a_gap)
        .Add("last-packet-moved-out",
             first + Datagram(0, packet(1, 15, 16).substr(0, 15)) + Datagram(0, packet(1, 0, 16)))
        .Add("restart", first + Datagram(0x10, packet(1, 0, 3)) + in_order)
        .Add("without-frame", Wire().U8(5).Text(in_order))
        .Add("hostile-counts", first + Datagram(0, packet(1, 0, 65535)) +
                                   Datagram(0, packet(2, 65535, 65535)) +
                                   Datagram(0, packet(3, 9, 4)) + Datagram(8, packet(4, 0, 0)))
        .Add("header-alone", first + Datagram(4, packet(1, 0, 1).substr(0, 14)))
        .Add("empty-datagram", first + Datagram(4, ""));
}

// ---- Images over TCP ----

void MakeTcpStreams(const std::filesystem::path& root) {
    const auto image = [](uint32_t number, size_t length) {
        return TcpMessage{
            .body = ImagePacket{.image = number, .payload = std::string(length, 'x')}.Bytes()}
            .Bytes();
    };
    const auto input = [](const std::string& first, const std::string& second) {
        return Wire().U8(0).U16(static_cast<uint32_t>(first.size())).Text(first).Text(second);
    };
    const std::string sync = TcpMessage{.type = 0}.Bytes();
    Corpus(root, "tcp_stream")
        .Add("two-connections", input(image(1, 64) + image(2, 10), sync + image(3, 64)))
        .Add("too-large", input(image(1, 200) + image(2, 3), ""))
        .Add("cut-off", input(image(1, 20).substr(0, 30), image(2, 20).substr(0, 20)))
        .Add("claims-much",
             input(TcpMessage{.body = "abc", .size = 0xFFFFFFFF}.Bytes(), image(2, 1)))
        .Add("too-short", input(TcpMessage{.body = "abc"}.Bytes() + image(2, 1), ""))
        .Add("other-message", input(TcpMessage{.type = 7, .body = "abc"}.Bytes() + image(2, 1), ""))
        .Add("wrong-magic", input(TcpMessage{.body = "abc", .magic = 1}.Bytes() + image(2, 1), ""))
        .Add("no-data", input(image(1, 0), ""))
        .Add("nothing", input("", ""));
}

// ---- Control ----

// One record of a datagram for the target control_dispatch.
std::string Sent(uint32_t way, const std::string& bytes) {
    return Wire()
        .U8(static_cast<uint32_t>(ControlRecord::Datagram))
        .U8(way)
        .U16(static_cast<uint32_t>(bytes.size()))
        .Text(bytes);
}

std::string Camera(uint32_t way, uint32_t address, uint32_t mac_end = 1) {
    return Wire()
        .U8(static_cast<uint32_t>(ControlRecord::Camera))
        .U8(way)
        .U8(address)
        .U8(8)
        .U8('c')
        .U8(mac_end);
}

// A control datagram: header and body words.
std::string Control(uint32_t command, uint32_t number, uint32_t status,
                    const std::vector<uint32_t>& body) {
    Wire wire;
    wire.U8(0xAB).U8(0).U32(command).U32(number).U32(status);
    for (const uint32_t word : body)
        wire.U32(word);
    return wire;
}

void MakeControlDispatch(const std::filesystem::path& root) {
    using namespace kelo::fuzz::control_way;
    constexpr uint32_t kFirst = kInDiscovery | 1;
    constexpr uint32_t kSecond = kInDiscovery | kSecondNet | 2;
    const std::string discover = Wire().U8(static_cast<uint32_t>(ControlRecord::Discover));
    const auto request = [](uint32_t which, const std::string& answer = "") {
        return std::string(Wire()
                               .U8(static_cast<uint32_t>(ControlRecord::Request))
                               .U8(which)
                               .U8(answer.empty() ? 0 : 1)
                               .Text(answer));
    };
    const auto answer = [](uint32_t flags, uint32_t command, uint32_t status) {
        return std::string(Wire().U8(flags).U8(command).U8(status).U32(100));
    };
    std::string many;
    for (uint32_t i = 0; i < 12; ++i)
        many += Camera(i % 2 == 0 ? kFirst : kSecond, 2 + i, i);
    Corpus(root, "control_dispatch")
        .Add("one-camera", Camera(kFirst, 2) + discover)
        .Add("whole-replies", Sent(kFirst, DiscoveryReply(0xC0A80102, "Camera")) +
                                  Sent(kSecond, DiscoveryReply(0x0A000002, "Other", 0xFF000000)) +
                                  discover)
        .Add("many-cameras", many + discover + many + discover)
        .Add("heard-twice",
             Camera(kInDiscovery, 2) + Camera(kFirst, 2) + Camera(kInDiscovery | 2, 2) + discover)
        .Add("vanishes", Camera(kFirst, 2) + discover + Camera(kSecond, 3) + discover)
        .Add("changes", Camera(kFirst, 2, 1) + discover + Camera(kFirst, 2, 2) + discover)
        .Add("between-discoveries",
             discover + Camera(1, 2) + Camera(3, 3) + Camera(0, 4) + discover)
        .Add("replies-to-nobody",
             Camera(kFirst, 2) + discover + Sent(1, Control(5, 1, 1, {8, 640})) +
                 Sent(1, Control(9, 1, 1, {8, 200, 1, 2})) + Sent(5, Control(5, 9, 1, {8, 640})))
        .Add("requests", Camera(kFirst, 2) + Camera(kSecond, 3) + discover + request(0) +
                             request(1, answer(0, 5, 3)) + request(0, answer(1, 5, 1)) +
                             request(0, answer(2, 5, 1)) + request(0, answer(0, 9, 1)) +
                             request(1, answer(0, 11, 1)) + request(1, answer(0, 12, 1)) +
                             request(0, answer(0, 2, 1)) + request(0, answer(0, 7, 2)))
        .Add("request-without-a-way",
             Camera(kFirst | 3, 2) + Camera(3, 3) + discover + request(0) + request(1))
        .Add("short-datagrams", Sent(kFirst, "") + Sent(kFirst, Control(2, 0, 1, {})) +
                                    Sent(1, Control(5, 1, 1, {}) + "x") +
                                    std::string("\x02\x21\x05\x08\x63\x01\x0F", 7) + discover);
}

void MakeControlReplies(const std::filesystem::path& root) {
    // A request of that kind, and what arrives then.
    const auto exchange = [](ReplyRequest request, uint32_t count,
                             const std::vector<std::string>& replies, bool right_number = true) {
        Wire wire;
        wire.U8(static_cast<uint32_t>(request) | static_cast<uint32_t>(replies.size()) << 4);
        wire.U32(321).U8(count);
        for (const std::string& reply : replies) {
            wire.U8(right_number ? 1 : 0).U16(static_cast<uint32_t>(reply.size())).Text(reply);
        }
        return std::string(wire);
    };
    std::vector<uint32_t> registers{1284, 128};
    for (uint32_t i = 0; i < 128; ++i)
        registers.push_back(i * 0x01020304);
    const std::string value = Control(5, 0, 1, {1284, 1500});
    using Request = ReplyRequest;
    Corpus(root, "control_replies")
        .Add("read-register", exchange(Request::ReadRegister, 0, {value}))
        .Add("write-register", exchange(Request::WriteRegister, 7, {Control(7, 0, 1, {1284, 7})}))
        .Add("read-memory", exchange(Request::ReadMemory, 128, {Control(9, 0, 1, registers)}))
        .Add("write-memory", exchange(Request::WriteMemory, 128, {Control(11, 0, 1, {1284, 128})}))
        .Add("too-much-memory", exchange(Request::WriteMemory, 129, {}))
        .Add("refused", exchange(Request::ReadRegister, 0, {Control(5, 0, 3, {1284, 0})}) +
                            exchange(Request::ReadMemory, 4, {Control(9, 0, 2, {1284, 500})}))
        .Add("claims-too-many", exchange(Request::ReadMemory, 4, {Control(9, 0, 1, {1284, 129})}))
        .Add("cut-off", exchange(Request::ReadMemory, 128,
                                 {Control(9, 0, 1, registers).substr(0, 100), value}))
        .Add("another-kind", exchange(Request::ReadMemory, 4, {Control(11, 0, 1, {1284, 500})}) +
                                 exchange(Request::ReadRegister, 0, {Control(9, 0, 1, registers)}))
        .Add("strangers-first", exchange(Request::ReadRegister, 0,
                                         {Control(2, 0, 1, {}), Control(12, 0, 1, {1, 2}),
                                          Control(4, 0, 1, {1284, 0}), "", value}))
        .Add("old-numbers", exchange(Request::ReadRegister, 0, {value, value}, false));
}

// ---- Firmware ----

void MakeFirmwareFiles(const std::filesystem::path& root) {
    using namespace kelo::fuzz::firmware_flag;
    const auto input = [](int payload_max, uint32_t emblem, uint32_t flags, size_t size,
                          uint32_t change_before = 2) {
        std::string content(size, '\0');
        for (size_t i = 0; i < size; ++i)
            content[i] = static_cast<char>(i * 7 + i / 256);
        return std::string(
            Wire()
                .U16(static_cast<uint32_t>(payload_max - kelo::fuzz::kSmallestPayload))
                .U32(emblem)
                .U8(flags)
                .U8(change_before)
                .U16(70)
                .U8(0x5A)
                .Text(content));
    };
    Corpus(root, "firmware_file")
        .Add("valid", input(512, 100, kSealed, 1500))
        .Add("whole-payloads", input(68, 0, kSealed, 640))
        .Add("emblem-at-the-end", input(512, 88, kSealed, 100))
        .Add("emblem-behind-the-end", input(512, 89, kSealed, 100))
        .Add("emblem-alone", input(512, 0, kSealed, 12))
        .Add("emblem-on-the-boundary", input(512, 0xFFFFF, kSealed, 100))
        .Add("broken-seal", input(512, 10, kSealed | kBrokenSeal, 100))
        .Add("no-emblem", input(512, 10, 0, 100))
        .Add("empty", input(512, 0, kSealed, 0))
        .Add("changed-while-sent", input(20, 10, kSealed | kChanged, 3000))
        .Add("cut-while-sent", input(2000, 10, kSealed | kTruncated, 9000))
        .Add("small-payload", input(7, 10, kSealed, 100))
        .Add("payload-without-data", input(4, 10, kSealed, 100))
        .Add("no-payload", input(-1, 10, kSealed, 100))
        .Add("payload-too-large", input(2001, 10, kSealed, 100));
}

void MakeFirmwareReadBack(const std::filesystem::path& root) {
    using Step = ReadBackStep;
    const auto step = [](Step kind) { return Wire().U8(static_cast<uint32_t>(kind)); };
    const std::string right = step(Step::Right).U16(500);
    // Up to 16 bytes before the emblem.
    const std::string jump = step(Step::Jump).U8(0x40).U16(0xFFE0);
    Corpus(root, "firmware_readback")
        .Add("right", right + right + right)
        .Add("wrong", right + std::string(step(Step::Wrong).U16(500).U16(17).U8(1)))
        .Add("over-the-emblem", jump + right)
        .Add("from-the-emblem", std::string(step(Step::Jump).U8(0x40).U16(0xFFF0)) + right)
        .Add("into-the-emblem", jump + std::string(step(Step::Right).U16(20)) + right)
        .Add("wrong-in-the-emblem", jump + std::string(step(Step::Wrong).U16(40).U16(20).U8(1)))
        .Add("to-the-end", jump + std::string(step(Step::Right).U16(328)) + right)
        .Add("stale", right + std::string(step(Step::Stale).U16(99).U8(50)) + right)
        .Add("ahead", right + std::string(step(Step::Ahead).U16(99).U8(50)))
        .Add("no-read-back", step(Step::Ahead).U16(99).U8(50))
        .Add("lying", std::string(step(Step::Lying).U32(0xFFFFFFFF).U8(9)) + right)
        .Add("too-short", step(Step::Raw).U8(7).Text("1234567"))
        .Add("payloads", step(Step::Payload).U8(7).U8(7).U8(7));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    try {
        for (const auto make :
             {MakeOptions, MakeChecksums, MakeRunLength, MakeIdentities, MakeImageScripts,
              MakeImageDatagrams, MakeTcpStreams, MakeControlDispatch, MakeControlReplies,
              MakeFirmwareFiles, MakeFirmwareReadBack}) {
            make(argv[1]);
        }
    } catch (const std::exception& exception) {
        fprintf(stderr, "error: %s\n", exception.what());
        return 1;
    }
    return 0;
}
