#include "columns.h"

#include <algorithm>

namespace kelo::bench {
namespace {

const RunResult& Of(const Round& round, size_t variant) {
    return round.runs[variant].result;
}

double Per(double value, double count) {
    return count > 0 ? value / count : NOT_MEASURED;
}

double Gigabytes(const RunResult& run) {
    return static_cast<double>(run.bytes) / 1e9;
}

bool Reads(const Row& row, size_t variant) {
    return row.variants[variant] != "unread";
}

bool TellsImages(const Row& row, size_t variant) {
    return Reads(row, variant) && row.variants[variant] != "drop" &&
           row.variants[variant] != "iperf-like";
}

// TCP has none that a receiver could tell.
bool TellsPackets(const Row& row, size_t variant) {
    return Reads(row, variant) && !row.traffic.tcp;
}

// Processor time of both processes and of the kernel's receiving threads.
double WholePath(const RunResult& run) {
    return run.sent.work_seconds + run.user_seconds + run.system_seconds +
           run.kernel_thread_seconds;
}

// Beyond what the same load costs with a socket that nobody reads.
double BeyondUnread(const Row& row, const Round& round, size_t variant) {
    const auto unread = std::find(row.variants.begin(), row.variants.end(), "unread");
    if (unread == row.variants.end() || !Reads(row, variant)) return NOT_MEASURED;
    const RunResult& idle = Of(round, static_cast<size_t>(unread - row.variants.begin()));
    const RunResult& run = Of(round, variant);
    const double idle_per_byte = Per(WholePath(idle), static_cast<double>(idle.sent.bytes));
    return Per(WholePath(run) - idle_per_byte * static_cast<double>(run.sent.bytes),
               Gigabytes(run));
}

double OfferedRate(const Row&, const Round& round, size_t variant) {
    const Sent& sent = Of(round, variant).sent;
    return Per(static_cast<double>(sent.bytes) / 1e6, sent.seconds);
}

double ReceivedRate(const Row& row, const Round& round, size_t variant) {
    const RunResult& run = Of(round, variant);
    return Reads(row, variant) ? Per(static_cast<double>(run.bytes) / 1e6, run.seconds)
                               : NOT_MEASURED;
}

double PacketRate(const Row& row, const Round& round, size_t variant) {
    const RunResult& run = Of(round, variant);
    return TellsPackets(row, variant) ? Per(static_cast<double>(run.datagrams), run.seconds)
                                      : NOT_MEASURED;
}

double PacketsLost(const Row& row, const Round& round, size_t variant) {
    if (!TellsPackets(row, variant)) return NOT_MEASURED;
    const RunResult& run = Of(round, variant);
    return static_cast<double>(run.sent.datagrams) - static_cast<double>(run.datagrams);
}

double Loss(const Row& row, const Round& round, size_t variant) {
    return 100 * Per(PacketsLost(row, round, variant),
                     static_cast<double>(Of(round, variant).sent.datagrams));
}

double ImagesLost(const Row& row, const Round& round, size_t variant) {
    if (!TellsImages(row, variant)) return NOT_MEASURED;
    const RunResult& run = Of(round, variant);
    return static_cast<double>(run.sent.images) - static_cast<double>(run.whole_images);
}

double ThreadNsPerPacket(const Row& row, const Round& round, size_t variant) {
    const RunResult& run = Of(round, variant);
    return TellsPackets(row, variant) ? Per(run.thread_cpu_ns, static_cast<double>(run.datagrams))
                                      : NOT_MEASURED;
}

double ThreadPerGb(const Row& row, const Round& round, size_t variant) {
    const RunResult& run = Of(round, variant);
    return Reads(row, variant) ? Per(run.thread_cpu_ns / 1e9, Gigabytes(run)) : NOT_MEASURED;
}

double UserPerGb(const Row& row, const Round& round, size_t variant) {
    const RunResult& run = Of(round, variant);
    return Reads(row, variant) ? Per(run.user_seconds, Gigabytes(run)) : NOT_MEASURED;
}

double SystemPerGb(const Row& row, const Round& round, size_t variant) {
    const RunResult& run = Of(round, variant);
    return Reads(row, variant) ? Per(run.system_seconds, Gigabytes(run)) : NOT_MEASURED;
}

double ProcessPerGb(const Row& row, const Round& round, size_t variant) {
    return UserPerGb(row, round, variant) + SystemPerGb(row, round, variant);
}

double HostPerGb(const Row& row, const Round& round, size_t variant) {
    const RunResult& run = Of(round, variant);
    if (run.kernel_thread_seconds <= 0) return NOT_MEASURED;
    return ProcessPerGb(row, round, variant) + Per(run.kernel_thread_seconds, Gigabytes(run));
}

double LatencyP50(const Row&, const Round& round, size_t variant) {
    return Of(round, variant).latency_p50_us;
}

double LatencyP99(const Row&, const Round& round, size_t variant) {
    return Of(round, variant).latency_p99_us;
}

double Instructions(const Row&, const Round& round, size_t variant) {
    const RunResult& run = Of(round, variant);
    return Per(run.instructions, static_cast<double>(run.datagrams));
}

double FaultsPerImage(const Row& row, const Round& round, size_t variant) {
    const RunResult& run = Of(round, variant);
    return TellsImages(row, variant) ? Per(run.minor_faults, static_cast<double>(run.sent.images))
                                     : NOT_MEASURED;
}

double PeakMiB(const Row& row, const Round& round, size_t variant) {
    return Reads(row, variant) ? Of(round, variant).peak_bytes / (1 << 20) : NOT_MEASURED;
}

double PeakBeyondFramesMiB(const Row& row, const Round& round, size_t variant) {
    // Cameras do not all hold the most at the same time.
    if (!TellsImages(row, variant) || row.traffic.cameras > 1) return NOT_MEASURED;
    const RunResult& run = Of(round, variant);
    return (run.peak_bytes - run.images_in_flight * row.traffic.ImageSize()) / (1 << 20);
}

double ReceiveBufferMiB(const Row& row, const Round& round, size_t variant) {
    if (row.traffic.tcp) return NOT_MEASURED;
    return Of(round, variant).receive_buffer / (1 << 20);
}

double RssFirstMiB(const Row&, const Round& round, size_t variant) {
    return Of(round, variant).rss_first / (1 << 20);
}

double RssLastMiB(const Row&, const Round& round, size_t variant) {
    return Of(round, variant).rss_last / (1 << 20);
}

double RssMaxMiB(const Row&, const Round& round, size_t variant) {
    return Of(round, variant).rss_max / (1 << 20);
}

double LateFaultsPerImage(const Row&, const Round& round, size_t variant) {
    return Of(round, variant).late_faults_per_image;
}

double ForeignPercent(const Row&, const Round& round, size_t variant) {
    return 100 * round.runs[variant].foreign_share;
}

}  // namespace

const std::vector<Column>& Columns() {
    static const std::vector<Column> columns = {
        {"offered_mb_per_s", "offered, MB/s", 0, false, OfferedRate},
        {"received_mb_per_s", "received, MB/s", 0, true, ReceivedRate},
        {"packets_per_s", "packets/s", 0, true, PacketRate},
        {"packets_lost", "packets lost", 0, false, PacketsLost},
        {"loss_percent", "packets lost, %", 2, false, Loss},
        {"images_lost", "images lost", 0, false, ImagesLost},
        {"thread_ns_per_packet", "receiving thread, ns/packet", 0, true, ThreadNsPerPacket},
        {"thread_s_per_gb", "receiving thread, CPU s/GB", 4, true, ThreadPerGb},
        {"process_user_s_per_gb", "process, user CPU s/GB", 4, false, UserPerGb},
        {"process_system_s_per_gb", "process, system CPU s/GB", 4, false, SystemPerGb},
        {"process_s_per_gb", "process, CPU s/GB", 4, true, ProcessPerGb},
        {"host_s_per_gb", "process and kernel threads, s/GB", 4, true, HostPerGb},
        {"path_beyond_unread_s_per_gb", "whole path beyond unread, s/GB", 4, true, BeyondUnread},
        {"instructions_per_packet", "instructions/packet", 0, true, Instructions},
        {"latency_p50_us", "latency p50, us", 1, true, LatencyP50},
        {"latency_p99_us", "latency p99, us", 1, true, LatencyP99},
        {"minor_faults_per_image", "page faults/image", 2, false, FaultsPerImage},
        {"late_faults_per_image", "page faults/image, last 2/3", 3, false, LateFaultsPerImage},
        {"peak_mib", "peak memory, MiB", 1, false, PeakMiB},
        {"peak_beyond_frames_mib", "peak beyond images in flight", 1, false, PeakBeyondFramesMiB},
        {"rss_first_mib", "memory at first, MiB", 2, false, RssFirstMiB},
        {"rss_last_mib", "memory at last, MiB", 2, false, RssLastMiB},
        {"rss_max_mib", "memory at most, MiB", 2, false, RssMaxMiB},
        {"receive_buffer_mib", "receive buffer granted, MiB", 2, false, ReceiveBufferMiB},
        {"foreign_percent", "cores' time taken by others, %", 1, false, ForeignPercent},
    };
    return columns;
}

}  // namespace kelo::bench
