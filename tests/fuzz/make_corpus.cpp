// Writes the seeds of every target's corpus: one file per situation, under its name.
//   fuzz_make_corpus FOLDER

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "script.h"

namespace {

using kelo::fuzz::ImageScript;
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

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    try {
        for (const auto make : {MakeOptions, MakeChecksums, MakeRunLength, MakeIdentities,
                                MakeImageScripts, MakeImageDatagrams, MakeTcpStreams}) {
            make(argv[1]);
        }
    } catch (const std::exception& exception) {
        fprintf(stderr, "error: %s\n", exception.what());
        return 1;
    }
    return 0;
}
