#include "Options.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <iostream>
#include <map>

namespace {

using kelosim::Faults;
using kelosim::HeaderLie;
using kelosim::PacketFault;
using kelosim::ReplyLie;

constexpr int kUsageError = 2;

const char* const kDescription =
    "Simulates network cameras on addresses of this host, so that clients can be tried out "
    "without\n"
    "hardware. Each camera listens on its own address (UDP port 6061), answers discovery, obeys "
    "its\n"
    "registers and streams images over UDP or TCP. On the loopback interface every 127.x address "
    "is\n"
    "there already; elsewhere add the addresses to an interface first.";

const char* const kFooter =
    "\nWhile it runs, each line of standard input changes something:\n"
    "  CAMERA FAULT-OPTIONS   the camera's faults are these from now on (none: no fault)\n"
    "  CAMERA reboot | power-off | power-on | trigger | close-connections\n"
    "CAMERA is a number from 1, or \"all\". Example: \"2 --drop 0.01 --seed 7\".\n"
    "\nEvery event is one line on standard output; a summary follows at the end. Ctrl-C (or\n"
    "SIGTERM) ends it.\n"
    "\nExit codes: 0 ended as asked; 1 something failed (address in use, file not written); 2 the\n"
    "command line is wrong.\n"
    "\nExamples:\n"
    "  kelo-sim --count 3 --fps 30\n"
    "  kelo-sim --source chart16 --source profile --tcp 1 --picture 1280x1024\n"
    "  kelo-sim --source png:/data/pictures --fps 5\n"
    "  kelo-sim --drop 0.001 --seed 42\n"
    "  kelo-sim --write-firmware camera.bin --size 5000000 --spoil crc\n";

[[noreturn]] void Wrong(const std::string& option, const std::string& text, const char* form) {
    throw CLI::ValidationError(option, "\"" + text + "\" is not of the form " + form);
}

// Numbers separated by colons, in any base that C knows; true when the text has min to max of them.
bool ParseNumbers(const std::string& text, size_t min, size_t max, std::vector<uint64_t>& numbers) {
    std::stringstream parts(text);
    for (std::string part; std::getline(parts, part, ':');) {
        char* end = nullptr;
        errno = 0;
        numbers.push_back(std::strtoull(part.c_str(), &end, 0));
        const bool number = !part.empty() && part[0] != '-' && *end == '\0' && errno == 0;
        if (!number || numbers.back() > UINT32_MAX) return false;
    }
    return numbers.size() >= min && numbers.size() <= max;
}

// FIELD=VALUE, both non-empty, the value a number.
bool ParseField(const std::string& text, std::string& field, uint32_t& value) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) return false;
    field = text.substr(0, equals);
    std::vector<uint64_t> numbers;
    if (!ParseNumbers(text.substr(equals + 1), 1, 1, numbers)) return false;
    value = static_cast<uint32_t>(numbers[0]);
    return true;
}

PacketFault ParsePacketFault(const std::string& text) {
    static const char* const kForm = "drop|duplicate|delay|reorder:IMAGE[:PACKET]";
    static const std::map<std::string, PacketFault::Kind> kKinds = {
        {"drop", PacketFault::Kind::kDrop},
        {"duplicate", PacketFault::Kind::kDuplicate},
        {"delay", PacketFault::Kind::kDelay},
        {"reorder", PacketFault::Kind::kReorder}};
    const size_t colon = text.find(':');
    const auto kind = kKinds.find(text.substr(0, colon));
    std::vector<uint64_t> numbers;
    if (kind == kKinds.end() || colon == std::string::npos ||
        !ParseNumbers(text.substr(colon + 1), 1, 2, numbers)) {
        Wrong("--packet", text, kForm);
    }
    PacketFault fault;
    fault.kind = kind->second;
    fault.image = static_cast<uint32_t>(numbers[0]);
    if (numbers.size() > 1) fault.packet = static_cast<uint16_t>(numbers[1]);
    return fault;
}

HeaderLie ParseHeaderLie(const std::string& text) {
    static const char* const kForm =
        "magic|stream|number|packet|packets|width|height|cut=VALUE[@IMAGE[:PACKET]]";
    HeaderLie lie;
    std::string field;
    uint32_t value = 0;
    const size_t at = text.find('@');
    if (!ParseField(text.substr(0, at), field, value)) Wrong("--lie", text, kForm);
    if (at != std::string::npos) {
        std::vector<uint64_t> where;
        if (!ParseNumbers(text.substr(at + 1), 1, 2, where)) Wrong("--lie", text, kForm);
        lie.image = static_cast<uint32_t>(where[0]);
        if (where.size() > 1) lie.packet = static_cast<uint16_t>(where[1]);
    }
    const auto low8 = static_cast<uint8_t>(value);
    const auto low16 = static_cast<uint16_t>(value);
    const std::map<std::string, std::function<void()>> setters = {{"magic", [&] { lie.magic = low8; }},
                                                                  {"stream", [&] { lie.stream_number = low8; }},
                                                                  {"number", [&] { lie.image_number = value; }},
                                                                  {"packet", [&] { lie.current_packet = low16; }},
                                                                  {"packets", [&] { lie.all_packets = low16; }},
                                                                  {"width", [&] { lie.width = low16; }},
                                                                  {"height", [&] { lie.height = low16; }},
                                                                  {"cut", [&] { lie.truncate_to = value; }}};
    const auto setter = setters.find(field);
    if (setter == setters.end()) Wrong("--lie", text, kForm);
    setter->second();
    return lie;
}

ReplyLie ParseReplyLie(const std::string& text) {
    static const char* const kForm =
        "magic|command|number|status|value|registers|cut|extra=VALUE[@REGISTER]";
    ReplyLie lie;
    std::string field;
    uint32_t value = 0;
    const size_t at = text.find('@');
    if (!ParseField(text.substr(0, at), field, value)) Wrong("--lie-reply", text, kForm);
    if (at != std::string::npos) {
        std::vector<uint64_t> where;
        if (!ParseNumbers(text.substr(at + 1), 1, 1, where)) Wrong("--lie-reply", text, kForm);
        lie.only_register = static_cast<uint32_t>(where[0]);
    }
    const std::map<std::string, std::function<void()>> setters = {
        {"magic", [&] { lie.magic = static_cast<uint8_t>(value); }},
        {"command", [&] { lie.command = value; }},
        {"number", [&] { lie.number_offset = value; }},
        {"status", [&] { lie.status = value; }},
        {"value", [&] { lie.value = value; }},
        {"registers", [&] { lie.registers = value; }},
        {"cut", [&] { lie.truncate_to = value; }},
        {"extra", [&] { lie.extra_bytes = value & 0xFFFF; }}};
    const auto setter = setters.find(field);
    if (setter == setters.end()) Wrong("--lie-reply", text, kForm);
    setter->second();
    return lie;
}

void AddImageFaults(CLI::App& app, Faults& faults) {
    const char* const group = "Faults of images";
    app.add_option("--seed", faults.seed,
                   "Where all chance begins; the same seed does the same harm")
        ->group(group)
        ->capture_default_str();
    const auto rate = [&](const char* name, double& value, const char* help) {
        app.add_option(name, value, help)->group(group)->check(CLI::Range(0.0, 1.0));
    };
    rate("--drop", faults.drop_rate, "Rate of UDP image packets that get lost (0 to 1)");
    rate("--duplicate", faults.duplicate_rate, "Rate of packets that are sent twice");
    rate("--delay", faults.delay_rate, "Rate of packets that are sent later");
    rate("--reorder", faults.reorder_rate, "Rate of packets that are sent after the next one");
    app.add_option("--delay-packets", faults.delay_packets,
                   "How many packets later a delayed one is")
        ->group(group)
        ->capture_default_str();
    app.add_option_function<std::vector<std::string>>(
           "--packet",
           [&](const std::vector<std::string>& texts) {
               for (const std::string& text : texts)
                   faults.packets.push_back(ParsePacketFault(text));
           },
           "One packet, or a whole image: drop|duplicate|delay|reorder:IMAGE[:PACKET]")
        ->group(group);
    app.add_option_function<std::vector<std::string>>(
           "--jump",
           [&](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   std::vector<uint64_t> numbers;
                   if (!ParseNumbers(text, 2, 2, numbers)) Wrong("--jump", text, "IMAGE:BY");
                   faults.jumps.push_back(
                       {static_cast<uint32_t>(numbers[0]), static_cast<uint32_t>(numbers[1])});
               }
           },
           "Image numbers jump ahead at an image: IMAGE:BY")
        ->group(group);
    app.add_option_function<std::vector<std::string>>(
           "--lie",
           [&](const std::vector<std::string>& texts) {
               for (const std::string& text : texts)
                   faults.headers.push_back(ParseHeaderLie(text));
           },
           "A field of image headers lies: FIELD=VALUE[@IMAGE[:PACKET]]; fields: magic, stream, "
           "number, packet, packets, width, height, cut (datagram size)")
        ->group(group);
}

void AddControlFaults(CLI::App& app, Faults& faults) {
    const char* const group = "Faults of the control channel";
    app.add_option("--lose-replies", faults.drop_replies, "The next so many replies get lost")
        ->group(group);
    app.add_option("--lose-reply-rate", faults.drop_reply_rate, "Rate of replies that get lost")
        ->group(group)
        ->check(CLI::Range(0.0, 1.0));
    app.add_option("--reply-delay-ms", faults.reply_delay_ms, "Every reply comes so late")
        ->group(group);
    app.add_option_function<std::vector<std::string>>(
           "--lie-reply",
           [&](const std::vector<std::string>& texts) {
               for (const std::string& text : texts)
                   faults.replies.push_back(ParseReplyLie(text));
           },
           "A field of replies lies: FIELD=VALUE[@REGISTER]; fields: magic, command, number "
           "(added), "
           "status, value, registers, cut (datagram size), extra (bytes)")
        ->group(group);
    app.add_option_function<std::vector<std::string>>(
           "--refuse",
           [&](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   std::vector<uint64_t> numbers;
                   if (!ParseNumbers(text, 1, 2, numbers))
                       Wrong("--refuse", text, "REGISTER[:STATUS]");
                   faults.refused_registers[static_cast<uint32_t>(numbers[0])] =
                       numbers.size() > 1 ? static_cast<uint32_t>(numbers[1]) : 2;
               }
           },
           "A register is refused: REGISTER[:STATUS]; status 2 is an error, 3 out of range")
        ->group(group);
    app.add_option("--reject-starts", faults.refused_starts,
                   "The first so many starts are rejected")
        ->group(group);
    app.add_flag("--ignore-discovery", faults.ignore_discovery, "Discovery gets no answer")
        ->group(group);
    app.add_flag("--silent", faults.silent, "Hears and says nothing at all")->group(group);
}

void AddTcpFaults(CLI::App& app, Faults& faults) {
    const char* const group = "Faults of TCP streams";
    kelosim::TcpFaults& tcp = faults.tcp;
    app.add_flag_callback(
           "--tcp-refuse", [&] { tcp.accept = kelosim::TcpFaults::Accept::kRefuse; },
           "Connections are refused")
        ->group(group);
    app.add_flag_callback(
           "--tcp-hang", [&] { tcp.accept = kelosim::TcpFaults::Accept::kHang; },
           "Connection attempts get no answer")
        ->group(group);
    app.add_option("--tcp-reset", tcp.reset_connections, "The first so many connections are reset")
        ->group(group);
    app.add_option("--tcp-split", tcp.split_bytes, "At most so many bytes in one write")
        ->group(group);
    app.add_option("--tcp-oversize", tcp.oversize_bytes, "So many bytes too many in every image")
        ->group(group);
    app.add_option("--tcp-garbage", tcp.garbage_bytes,
                   "An unknown message of that size before images")
        ->group(group);
    app.add_option("--tcp-wrong-magic", tcp.wrong_magic_bytes,
                   "A message of wrong magic of that size before images")
        ->group(group);
    app.add_flag("--tcp-sync", tcp.sync_messages, "A sync message before images")->group(group);
    app.add_option_function<std::vector<std::string>>(
           "--tcp-close",
           [&](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   std::vector<uint64_t> numbers;
                   if (!ParseNumbers(text, 2, 2, numbers))
                       Wrong("--tcp-close", text, "IMAGE:BYTES");
                   tcp.closes.push_back({static_cast<uint32_t>(numbers[0]), numbers[1], {}});
               }
           },
           "The connection ends inside an image's message: IMAGE:BYTES")
        ->group(group);
}

void AddFaults(CLI::App& app, Faults& faults) {
    AddImageFaults(app, faults);
    AddControlFaults(app, faults);
    AddTcpFaults(app, faults);
}

// What the command line says of streams, before they can be made.
struct StreamOptions {
    std::vector<std::string> sources{"chart8"};
    std::string picture = "640x480";
    double fps = 10;
    uint32_t images = 0;
    std::vector<size_t> tcp;
    uint8_t header_size = 0;
    double mbytes_per_second = 0;
};

void AddCameraOptions(CLI::App& app, int& count, std::vector<std::string>& addresses,
                      kelosim::CameraConfig& camera) {
    const char* const group = "Cameras";
    app.add_option("--count", count, "Number of cameras at 127.0.0.11, .12, ...")
        ->group(group)
        ->check(CLI::Range(1, 240))
        ->capture_default_str();
    app.add_option("--address", addresses, "A camera's address; may be given several times")
        ->group(group)
        ->excludes("--count");
    app.add_option_function<std::string>(
           "--subnet-mask",
           [&](const std::string& text) { camera.subnet_mask = kelosim::ParseIpv4(text); },
           "Subnet mask of the cameras")
        ->group(group)
        ->default_str("255.0.0.0");
    app.add_option("--description", camera.description, "Hardware description in discovery")
        ->group(group)
        ->capture_default_str();
    app.add_option("--heartbeat-ms", camera.heartbeat_timeout_ms,
                   "Frees itself when the client is silent for so long; 0: never")
        ->group(group)
        ->capture_default_str();
    app.add_option("--path-packet-size", camera.path_packet_size,
                   "The largest IP packet that the path carries")
        ->group(group)
        ->capture_default_str();
    app.add_option("--tcp-port", camera.tcp_port, "Port of TCP streams; 0: chosen by the system")
        ->group(group);
    app.add_flag("--exclusive", camera.exclusive, "One client's claim keeps others out")
        ->group(group);
}

void AddStreamOptions(CLI::App& app, StreamOptions& streams) {
    const char* const group = "Images";
    app.add_option("--source", streams.sources,
                   "What a stream shows: chart8, chart16, profile, png:FOLDER or bytes:SIZE; given "
                   "several times, a camera has as many streams")
        ->group(group)
        ->default_str("chart8");
    app.add_option("--picture", streams.picture, "Size of charts and profiles, WIDTHxHEIGHT")
        ->group(group)
        ->capture_default_str();
    app.add_option("--fps", streams.fps, "Images per second; 0: as fast as possible")
        ->group(group)
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--images", streams.images, "Images of one acquisition; 0: no end")
        ->group(group);
    app.add_option("--tcp", streams.tcp, "Streams (numbers from 0) that go over TCP")->group(group);
    app.add_option("--header-size", streams.header_size, "Bytes in front of the pixels")
        ->group(group);
    app.add_option("--max-mbytes", streams.mbytes_per_second,
                   "Limit of a UDP stream in megabytes per second; 0: none")
        ->group(group)
        ->check(CLI::NonNegativeNumber);
}

void AddFlashOptions(CLI::App& app, kelosim::FirmwareConfig& flash) {
    using Step = kelosim::FirmwareConfig::Step;
    static const std::map<std::string, Step> kSteps = {{"start", Step::kStart},
                                                       {"data", Step::kData},
                                                       {"finish", Step::kFinish},
                                                       {"read-prepare", Step::kReadPrepare},
                                                       {"read-back", Step::kReadBack}};
    const char* const group = "Flash";
    app.add_option("--flash-time-ms", flash.flash_time_ms, "Time that the finish command takes")
        ->group(group);
    app.add_option("--reboot-ms", flash.reboot_time_ms, "Time out of the network at a reboot")
        ->group(group)
        ->capture_default_str();
    app.add_flag("!--no-read-back", flash.read_back, "A camera that cannot read its flash back")
        ->group(group);
    app.add_option("--corrupt-at", flash.corrupt_offset, "Offset of a byte that reads back wrong")
        ->group(group);
    app.add_option(
           "--stop-at", flash.stop_at,
           "Step at which there is no answer any more: start, data, finish, read-prepare or "
           "read-back")
        ->group(group)
        ->transform(CLI::Transformer(kSteps).description(""));
}

void AddFirmwareOptions(CLI::App& app, FirmwareOrder& order) {
    using Spoil = kelosim::FirmwareSpoil;
    static const std::map<std::string, Spoil> kSpoils = {{"magic", Spoil::kMagic},
                                                         {"length", Spoil::kLength},
                                                         {"crc", Spoil::kCrc},
                                                         {"too-short", Spoil::kTooShort}};
    const char* const group = "Firmware files";
    auto* file = app.add_option("--write-firmware", order.path,
                                "Writes a valid firmware image to this file and ends")
                     ->group(group);
    app.add_option("--size", order.size, "Its size in bytes")
        ->group(group)
        ->needs(file)
        ->check(CLI::Range(kelosim::kMinFirmwareSize, 256u << 20))
        ->capture_default_str();
    app.add_option("--firmware-seed", order.seed, "Its contents begin here")
        ->group(group)
        ->needs(file);
    app.add_option("--spoil", order.spoil, "Makes it invalid: magic, length, crc or too-short")
        ->group(group)
        ->needs(file)
        ->transform(CLI::Transformer(kSpoils).description(""));
}

kelosim::ImageSourcePtr MakeSource(const std::string& text, const std::string& picture) {
    unsigned width = 0;
    unsigned height = 0;
    char rest = 0;
    // Five digits always fit: NOLINTNEXTLINE(cert-err34-c)
    const bool two = std::sscanf(picture.c_str(), "%5ux%5u%c", &width, &height, &rest) == 2;
    if (!two || width < 8 || height < 8 || width > 16384 || height > 16384) {
        Wrong("--picture", picture, "WIDTHxHEIGHT (8 to 16384 each)");
    }
    const auto w = static_cast<uint16_t>(width);
    const auto h = static_cast<uint16_t>(height);
    if (text == "chart8") return kelosim::MakeTestChart8(w, h);
    if (text == "chart16") return kelosim::MakeTestChart16(w, h);
    if (text == "profile") return kelosim::MakeLaserProfile(w, h);
    if (text.rfind("png:", 0) == 0) return kelosim::MakePngFolder(text.substr(4));
    std::vector<uint64_t> size;
    const bool bytes = text.rfind("bytes:", 0) == 0 && ParseNumbers(text.substr(6), 1, 1, size);
    if (!bytes || size[0] > 256u << 20) {
        Wrong("--source", text, "chart8|chart16|profile|png:FOLDER|bytes:SIZE");
    }
    return kelosim::MakeBytes(static_cast<uint32_t>(size[0]), w, h);
}

std::vector<kelosim::StreamConfig> MakeStreams(const StreamOptions& options) {
    if (options.sources.size() > size_t{kelosim::kMaxStreams}) {
        throw CLI::ValidationError("--source", "a camera has 8 streams at most");
    }
    std::vector<kelosim::StreamConfig> streams;
    for (const std::string& source : options.sources) {
        kelosim::StreamConfig stream;
        stream.source = MakeSource(source, options.picture);
        stream.frame_rate = options.fps;
        stream.image_count = options.images;
        stream.header_size = options.header_size;
        stream.max_bytes_per_second = options.mbytes_per_second * 1e6;
        streams.push_back(std::move(stream));
    }
    for (const size_t index : options.tcp) {
        if (index >= streams.size()) {
            throw CLI::ValidationError("--tcp", "there is no stream " + std::to_string(index));
        }
        streams[index].over_tcp = true;
    }
    return streams;
}

std::vector<kelosim::CameraConfig> MakeCameras(const kelosim::CameraConfig& base, int count,
                                               const std::vector<std::string>& addresses) {
    std::vector<kelosim::CameraConfig> cameras;
    for (const std::string& text : addresses) {
        cameras.push_back(base);
        cameras.back().address = kelosim::ParseIpv4(text);
    }
    for (int i = 0; addresses.empty() && i < count; ++i) {
        cameras.push_back(base);
        cameras.back().address += static_cast<uint32_t>(i);
    }
    for (size_t i = 0; cameras.size() > 1 && i < cameras.size(); ++i) {
        cameras[i].description += " " + std::to_string(i + 1);
    }
    return cameras;
}

int ReportUsage(const CLI::App& app, const CLI::Error& error) {
    const int code = app.exit(error);
    return code == 0 ? 0 : kUsageError;
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
    CLI::App app(kDescription, "kelo-sim");
    app.footer(kFooter);
    app.set_version_flag("--version", KELO_VERSION, "Print the version and exit");
    Options options;
    kelosim::CameraConfig camera;
    StreamOptions streams;
    FirmwareOrder firmware;
    int count = 1;
    std::vector<std::string> addresses;
    AddCameraOptions(app, count, addresses, camera);
    AddStreamOptions(app, streams);
    app.add_option("--duration", options.duration_s, "Ends after so many seconds; 0: at Ctrl-C")
        ->check(CLI::NonNegativeNumber);
    app.add_flag("--quiet", options.quiet, "No line per event");
    AddFlashOptions(app, camera.firmware);
    AddFirmwareOptions(app, firmware);
    AddFaults(app, camera.faults);
    try {
        app.parse(argc, argv);
        if (!firmware.path.empty()) {
            options.firmware = firmware;
            return options;
        }
        camera.streams = MakeStreams(streams);
        options.cameras = MakeCameras(camera, count, addresses);
    } catch (const CLI::Error& error) {
        options.exit_code = ReportUsage(app, error);
    } catch (const std::exception& error) {
        std::cerr << "kelo-sim: " << error.what() << "\n";
        options.exit_code = kUsageError;
    }
    return options;
}

kelosim::Faults ParseFaults(const std::string& line) {
    CLI::App app;
    app.set_help_flag();
    Faults faults;
    AddFaults(app, faults);
    try {
        app.parse(line, false);
    } catch (const CLI::Error& error) {
        throw std::invalid_argument(error.what());
    }
    return faults;
}
