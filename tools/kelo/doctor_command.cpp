// kelo doctor: what on this machine keeps cameras or images away.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "answer_listener.h"
#include "camera_selector.h"
#include "commands.h"
#include "host_checks.h"
#include "json_writer.h"
#include "library_session.h"
#include "loss_cause.h"
#include "stream_watch.h"
#include "table.h"
#include "text.h"

namespace kelotool {
namespace {

constexpr CommandText TEXT = {
    "doctor", "Look for what goes wrong on this machine, and say how to mend it",
    "  kelo doctor                    (this machine's settings, and who answers)\n"
    "  sudo kelo doctor               (the firewall, too)\n"
    "  kelo doctor 10.0.0.21          (and where its images get lost)\n"
    "\n"
    "Nothing is changed: the commands that mend are printed. With a camera, its streams are\n"
    "received for a few seconds, and when packets get lost the counters of socket, kernel and\n"
    "card tell where. Exits with 1 when something is bad."};

struct Options {
    std::string camera;
    double seconds = 3;
};

// How one stream came in.
struct StreamResult {
    uint8_t stream = 0;
    StreamTotals totals;
};

struct StreamTest {
    bool done = false;
    std::string card;
    double seconds = 0;
    std::vector<StreamResult> streams;
    LossCounters counted;
    std::vector<LossCause> causes;

    // An image of which nothing came is at least one packet.
    uint64_t PacketsLost() const {
        uint64_t lost = 0;
        for (const StreamResult& stream : streams)
            lost += stream.totals.last().missingPackets + stream.totals.last().imagesSkipped;
        return lost;
    }
};

// ---- The machine
// ---------------------------------------------------------------------------------

std::string Setting(const std::string& card, const char* name) {
    return "/proc/sys/net/ipv4/conf/" + card + "/" + name;
}

// The cards that cameras are at, or may be at: the loopback interface only when some are.
std::vector<Card> CardsToCheck(const std::vector<Interface>& interfaces,
                               const std::vector<EXT_CAM_INFO>& cameras) {
    std::vector<Card> cards;
    for (const Interface& interface : interfaces) {
        const bool known = std::any_of(cards.begin(), cards.end(), [&](const Card& card) {
            return card.name == interface.name;
        });
        const auto card = known ? std::nullopt : ReadCard(interface.name);
        if (!card || !card->up || !card->running) continue;
        const bool used = std::any_of(
            cameras.begin(), cameras.end(),
            [&](const EXT_CAM_INFO& camera) { return interface.Reaches(camera.camera_ip); });
        if (used || !card->loopback) cards.push_back(*card);
    }
    return cards;
}

void Append(Findings& findings, std::optional<Finding> finding) {
    if (finding) findings.push_back(std::move(*finding));
}

void CheckCards(const std::vector<Card>& cards, Findings& findings) {
    for (const Card& card : cards) {
        findings.push_back(CheckMtu(card));
        Append(findings, CheckLink(card));
        // What follows is about packets that come from outside.
        if (card.loopback) continue;
        Append(findings, CheckRing(card));
        Append(findings, CheckMerging(card));
        findings.push_back(CheckReversePathFilter(
            card.name, ReadNumber(Setting(card.name, "rp_filter")).value_or(0),
            ReadNumber(Setting("all", "rp_filter")).value_or(0)));
    }
}

void CheckMachine(const std::vector<Card>& cards, Findings& findings) {
    constexpr int BUFFER_WANTED = 32 << 20;
    const auto limit = ReadNumber("/proc/sys/net/core/rmem_max");
    const int64_t granted = GrantedReceiveBuffer(BUFFER_WANTED);
    // Where the limit is hidden, what is granted tells.
    findings.push_back(CheckReceiveBuffer(limit.value_or(granted), granted));
    findings.push_back(CheckRealTime(MayRunInRealTime(), RealTimePriorityLimit()));
    const std::string card = cards.empty() ? "INTERFACE" : cards.front().name;
    const auto firewall =
        CheckFirewall(ReadPacketFilter(), ReadText("/proc/net/ip_tables_names"), card);
    findings.insert(findings.end(), firewall.begin(), firewall.end());
}

SearchReading Search(uint32_t timeout_ms) {
    const auto reverse_path_drops = [] {
        return ProtocolCounter(ReadText("/proc/net/netstat"), "TcpExt", "IPReversePathFilter");
    };
    SearchReading search{.timeout_ms = timeout_ms};
    AnswerListener listener;
    const uint64_t before = reverse_path_drops();
    search.cameras = Discover(timeout_ms);
    search.reverse_path_drops = reverse_path_drops() - before;
    search.listened = listener.Permitted();
    search.heard = listener.Heard();
    return search;
}

// ---- The streams
// ---------------------------------------------------------------------------------

StreamTest TestStreams(const Context& context, const EXT_CAM_INFO& info, double seconds) {
    StreamTest test{.done = true, .seconds = seconds};
    const auto interfaces = Interfaces();
    if (const Interface* reaching = FindReaching(interfaces, info.camera_ip)) {
        test.card = reaching->name;
    }
    const OpenCamera camera(info);
    const auto streams = UsedStreams(camera.Handle());
    const LossCounters before = ReadLossCounters(test.card);
    const Acquisition acquisition(camera);
    std::vector<std::unique_ptr<StreamWatch>> watches;
    for (const uint8_t stream : streams)
        watches.push_back(std::make_unique<StreamWatch>(camera, stream));
    context.interrupt.WaitFor(static_cast<int>(seconds * 1000));
    for (const auto& watch : watches)
        test.streams.push_back({watch->stream(), watch->Now().totals});
    test.counted = Between(before, ReadLossCounters(test.card));
    const auto card = ReadCard(test.card);
    test.causes =
        FindLossCauses(test.counted, test.PacketsLost(), card.value_or(Card{.name = test.card}));
    return test;
}

Finding Judged(const EXT_CAM_INFO& info, const StreamResult& result, double seconds) {
    const StreamTotals& totals = result.totals;
    const StreamStatistics& last = totals.last();
    const auto number = [](uint64_t value) { return std::to_string(value); };
    Finding finding{
        .check = "stream",
        .subject = Format("%s stream %u", AddressText(info.camera_ip).c_str(), result.stream),
        .measured = number(totals.images()) + " images, " +
                    Format("%.1f images/s, %.2f MB/s, ", totals.images_per_second(),
                           totals.bytes_per_second() / 1e6) +
                    number(last.missingPackets) + " packets lost, " + number(last.imagesSkipped) +
                    " images skipped"};
    if (totals.images() == 0) {
        finding.verdict = Verdict::kBad;
        finding.meaning = Format(
            "no image within %.1f s: a camera that waits for a trigger, or a "
            "firewall that drops them",
            seconds);
        finding.cure = "kelo get " + AddressText(info.camera_ip) + " REG_TRIGGERMODE";
    } else if (last.missingPackets != 0 || last.imagesSkipped != 0) {
        finding.verdict = Verdict::kBad;
        finding.meaning = "see the likely cause";
    }
    return finding;
}

void CheckStreams(const Context& context, const Options& options,
                  const std::vector<EXT_CAM_INFO>& cameras, Findings& findings, StreamTest& test) {
    const auto found = Matching(cameras, options.camera);
    if (found.size() != 1) {
        findings.push_back({.check = "camera",
                            .subject = options.camera,
                            .measured = found.empty() ? "does not answer"
                                                      : std::to_string(found.size()) + " answer",
                            .verdict = Verdict::kBad,
                            .meaning = found.empty() ? "see discovery and addresses"
                                                     : "name one by its handle, address or MAC",
                            .cure = "kelo list"});
        return;
    }
    if (!context.json) {
        context.Say(Format("kelo: receiving the streams of %s for %.1f s",
                           AddressText(found.front().camera_ip).c_str(), options.seconds));
    }
    try {
        test = TestStreams(context, found.front(), options.seconds);
    } catch (const CommandError& error) {
        findings.push_back({.check = "camera",
                            .subject = options.camera,
                            .measured = error.what(),
                            .verdict = Verdict::kBad,
                            .meaning = error.advice(),
                            .cure = "kelo info " + options.camera});
        return;
    }
    for (const StreamResult& result : test.streams)
        findings.push_back(Judged(found.front(), result, test.seconds));
}

// ---- The report
// ----------------------------------------------------------------------------------

Verdict Worst(const Findings& findings) {
    Verdict worst = Verdict::kOk;
    for (const Finding& finding : findings)
        worst = std::max(worst, finding.verdict);
    return worst;
}

void PrintText(const Context& context, const Findings& findings, const StreamTest& test) {
    std::FILE* const out = context.out;
    for (const Finding& finding : findings) {
        const std::string subject = finding.subject.empty() ? "" : " " + Printable(finding.subject);
        std::fprintf(out, "%-7s  %s%s: %s\n", VerdictText(finding.verdict), finding.check.c_str(),
                     subject.c_str(), Printable(finding.measured).c_str());
        if (!finding.meaning.empty()) {
            std::fprintf(out, "         %s\n", Printable(finding.meaning).c_str());
        }
        if (!finding.cure.empty()) std::fprintf(out, "         > %s\n", finding.cure.c_str());
    }
    const char* title = "\nLikely cause of the losses";
    for (const LossCause& cause : test.causes) {
        std::fprintf(out, "%s: %s (%llu)\n         %s\n", title, cause.place.c_str(),
                     static_cast<unsigned long long>(cause.events), cause.meaning.c_str());
        if (!cause.cure.empty()) std::fprintf(out, "         > %s\n", cause.cure.c_str());
        title = "Also possible";
    }
}

void PutCounters(JsonWriter& json, const LossCounters& counted) {
    json.BeginObject("counters");
    json.Member("socket_drops", counted.socket_drops);
    json.Member("udp_buffer_errors", counted.udp_buffer_errors);
    json.Member("udp_checksum_errors", counted.udp_checksum_errors);
    json.Member("fragments_lost", counted.fragments_lost);
    json.Member("backlog_drops", counted.backlog_drops);
    json.Member("card_packets", counted.card.packets);
    json.Member("card_errors", counted.card.errors);
    json.Member("card_dropped", counted.card.dropped);
    json.Member("card_missed", counted.card.missed);
    json.Member("card_fifo", counted.card.fifo);
    json.EndObject();
}

void PutStreamTest(JsonWriter& json, const StreamTest& test) {
    json.BeginObject("stream_test");
    json.Member("interface", test.card);
    json.BeginArray("streams");
    for (const StreamResult& result : test.streams) {
        json.BeginObject();
        json.Member("stream", unsigned{result.stream});
        json.Member("images", result.totals.images());
        json.Member("images_per_second", result.totals.images_per_second());
        json.Member("bytes_per_second", result.totals.bytes_per_second());
        json.Member("packets_lost", uint64_t{result.totals.last().missingPackets});
        json.Member("images_skipped", uint64_t{result.totals.last().imagesSkipped});
        json.EndObject();
    }
    json.EndArray();
    PutCounters(json, test.counted);
    json.BeginArray("likely_causes");
    for (const LossCause& cause : test.causes) {
        json.BeginObject();
        json.Member("place", cause.place);
        json.Member("events", cause.events);
        json.Member("meaning", cause.meaning);
        json.Member("cure", cause.cure);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
}

void PrintJson(const Context& context, const Findings& findings, const StreamTest& test) {
    JsonWriter json;
    json.BeginObject();
    json.Member("verdict", VerdictText(Worst(findings)));
    json.BeginArray("findings");
    for (const Finding& finding : findings) {
        json.BeginObject();
        json.Member("check", finding.check);
        json.Member("subject", finding.subject);
        json.Member("measured", finding.measured);
        json.Member("verdict", VerdictText(finding.verdict));
        json.Member("meaning", finding.meaning);
        json.Member("cure", finding.cure);
        json.EndObject();
    }
    json.EndArray();
    if (test.done) PutStreamTest(json, test);
    json.EndObject();
    std::fprintf(context.out, "%s\n", json.Text().c_str());
}

int Run(const Context& context, const Options& options) {
    const Library library(context);
    const SearchReading search = Search(context.timeout_ms);
    const auto interfaces = Interfaces();
    const auto cards = CardsToCheck(interfaces, search.cameras);
    Findings findings;
    CheckCards(cards, findings);
    CheckMachine(cards, findings);
    findings.push_back(CheckAnswers(search));
    const auto addresses = CheckAddresses(search.cameras, interfaces);
    findings.insert(findings.end(), addresses.begin(), addresses.end());
    StreamTest test;
    if (!options.camera.empty()) CheckStreams(context, options, search.cameras, findings, test);
    if (context.json) {
        PrintJson(context, findings, test);
    } else {
        PrintText(context, findings, test);
    }
    if (context.interrupt.Requested()) return EXIT_INTERRUPTED;
    return Worst(findings) == Verdict::kBad ? EXIT_FAILED : EXIT_OK;
}

}  // namespace

void AddDoctorCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<Options>();
    CLI::App& command =
        AddCommand(app, context, TEXT, [&context, options] { return Run(context, *options); });
    command.add_option("CAMERA", options->camera, CAMERA_HELP)->type_name("");
    command.add_option("--seconds", options->seconds, "How long its streams are received")
        ->capture_default_str()
        ->type_name("S")
        ->check(CLI::Range(0.1, 3600.0).description(""));
}

}  // namespace kelotool
