#include "rows.h"

namespace kelo::bench {
namespace {

using Names = std::vector<std::string>;

constexpr uint32_t PACKET_1500 = 1472;  // UDP payload
constexpr uint32_t PACKET_9000 = 8972;

const Names BLAST = {"library", "plain", "blocking", "drop", "floor", "scatter", "unread"};
const Names PACED = {"library", "plain", "blocking", "floor", "moderated", "unread"};

void AddBlasts(std::vector<Row>& rows) {
    for (const uint32_t datagram : {PACKET_1500, PACKET_9000}) {
        const std::string packet = datagram == PACKET_1500 ? "1500" : "9000";
        rows.push_back({.name = "blast-" + packet + "-merged",
                        .title = "full blast, " + packet + "-byte packets, merged by the kernel",
                        .traffic = {.datagram_size = datagram},
                        .variants = BLAST});
        rows.push_back({.name = "blast-" + packet + "-unmerged",
                        .title = "full blast, " + packet + "-byte packets, not merged",
                        .traffic = {.datagram_size = datagram},
                        .variants = BLAST,
                        .merging = false});
    }
}

void AddPaced(std::vector<Row>& rows) {
    struct Case {
        const char* name;
        const char* title;
        uint32_t datagram;
        double rate;
        uint32_t burst;
    };
    const Case cases[] = {
        {"paced-125-1500", "125 MB/s, 1500-byte packets one by one", PACKET_1500, 125e6, 1},
        {"paced-1250-9000", "1.25 GB/s, 9000-byte packets one by one", PACKET_9000, 1.25e9, 1},
        {"paced-1250-1500-burst8", "1.25 GB/s, 1500-byte packets, bursts of 8", PACKET_1500, 1.25e9,
         8},
    };
    for (const Case& c : cases) {
        rows.push_back(
            {.name = c.name,
             .title = c.title,
             .traffic = {.datagram_size = c.datagram, .bytes_per_second = c.rate, .burst = c.burst},
             .variants = PACED});
    }
}

void AddVeth(std::vector<Row>& rows) {
    const Names variants = {"library", "plain", "blocking", "floor"};
    rows.push_back({.name = "veth-1500-blast",
                    .title = "full blast over a veth pair, the receiver's kernel on its own core",
                    .way = Way::VETH,
                    .variants = variants});
    rows.push_back({.name = "veth-1500-blast-split",
                    .title = "the same, packets split before they arrive and merged on arrival",
                    .way = Way::VETH_UNMERGED,
                    .variants = variants});
}

void AddMaxRates(std::vector<Row>& rows) {
    for (const uint32_t datagram : {PACKET_1500, PACKET_9000}) {
        const std::string packet = datagram == PACKET_1500 ? "1500" : "9000";
        rows.push_back({.name = "max-rate-" + packet,
                        .title = "highest rate without a lost packet, " + packet + "-byte packets",
                        .traffic = {.datagram_size = datagram},
                        .variants = {"library", "floor", "blocking"},
                        .kind = Row::Kind::MAX_RATE});
    }
}

void AddStalls(std::vector<Row>& rows) {
    struct Case {
        const char* name;
        const char* title;
        double rate;
        double stall_ms;
        uint32_t datagram;
    };
    const Case cases[] = {
        {"stall-20ms-125-1500", "stalls of 20 ms at 125 MB/s, 1500-byte packets", 125e6, 20,
         PACKET_1500},
        {"stall-20ms-125-9000", "stalls of 20 ms at 125 MB/s, 9000-byte packets", 125e6, 20,
         PACKET_9000},
        {"stall-4ms-1000-1500", "stalls of 4 ms at 1 GB/s, 1500-byte packets", 1e9, 4, PACKET_1500},
        {"stall-4ms-1000-9000", "stalls of 4 ms at 1 GB/s, 9000-byte packets", 1e9, 4, PACKET_9000},
    };
    for (const Case& c : cases) {
        // One by one where the sender can; bursts as small as a card's where it cannot.
        const uint32_t burst = c.rate > 500e6 && c.datagram == PACKET_1500 ? 8 : 1;
        rows.push_back(
            {.name = c.name,
             .title = c.title,
             .traffic = {.datagram_size = c.datagram, .bytes_per_second = c.rate, .burst = burst},
             .variants = {"library", "plain", "floor"},
             .seconds_min = 2.5,
             .stall_ms = c.stall_ms});
    }
}

void AddStarts(std::vector<Row>& rows) {
    constexpr int STARTS = 20;
    constexpr uint32_t IMAGES = 50;
    for (const uint32_t datagram : {PACKET_1500, PACKET_9000}) {
        const std::string packet = datagram == PACKET_1500 ? "1500" : "9000";
        rows.push_back({.name = "start-" + packet,
                        .title = "first 50 images of a stream that starts at 1 GB/s, " + packet +
                                 "-byte packets",
                        .traffic = {.datagram_size = datagram,
                                    .bytes_per_second = 1e9,
                                    .burst = datagram == PACKET_1500 ? 8u : 1u},
                        .variants = {"library"},
                        .rounds = STARTS,
                        .images = IMAGES,
                        .restart = true,
                        .first_run_counts = true});
    }
}

void AddManyCameras(std::vector<Row>& rows) {
    for (const uint32_t cameras : {1u, 4u, 16u}) {
        const std::string count = std::to_string(cameras);
        rows.push_back({.name = "many-" + count,
                        .title = count + " camera(s), 1.25 GB/s together, 9000-byte packets",
                        .traffic = {.datagram_size = PACKET_9000,
                                    .cameras = cameras,
                                    .bytes_per_second = 1.25e9,
                                    .burst = 7},
                        .variants = {"library", "plain", "floor", "unread"}});
    }
    for (const uint32_t datagram : {PACKET_1500, PACKET_9000}) {
        const std::string packet = datagram == PACKET_1500 ? "1500" : "9000";
        rows.push_back({.name = "cameras-640x480-" + packet,
                        .title = "4 cameras, each 1000 images of 640x480 a second, " + packet +
                                 "-byte packets",
                        .traffic = {.width = 640,
                                    .height = 480,
                                    .datagram_size = datagram,
                                    .cameras = 4,
                                    .bytes_per_second = 4 * 1000 * 640 * 480,
                                    .burst = datagram == PACKET_1500 ? 8u : 1u},
                        .variants = {"library", "plain", "floor", "unread"}});
    }
}

void AddTcp(std::vector<Row>& rows) {
    const Names variants = {"library", "plain", "iperf-like"};
    rows.push_back({.name = "tcp-blast",
                    .title = "one TCP stream, full blast",
                    .traffic = {.tcp = true},
                    .variants = variants,
                    .seconds_min = 1});
    rows.push_back({.name = "tcp-1250",
                    .title = "one TCP stream, 1.25 GB/s",
                    .traffic = {.bytes_per_second = 1.25e9, .tcp = true},
                    .variants = variants,
                    .seconds_min = 1});
}

void AddMemory(std::vector<Row>& rows) {
    rows.push_back({.name = "memory",
                    .title = "memory in steady state, 1 GB/s, 9000-byte packets",
                    .traffic = {.datagram_size = PACKET_9000, .bytes_per_second = 1e9, .burst = 1},
                    .variants = {"library"},
                    .rounds = 1,
                    .seconds_min = 30,
                    .first_run_counts = true});
}

}  // namespace

std::vector<Row> AllRows() {
    std::vector<Row> rows;
    AddBlasts(rows);
    AddPaced(rows);
    AddVeth(rows);
    AddMaxRates(rows);
    AddStalls(rows);
    AddStarts(rows);
    AddManyCameras(rows);
    AddTcp(rows);
    AddMemory(rows);
    return rows;
}

}  // namespace kelo::bench
