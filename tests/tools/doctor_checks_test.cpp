// What `kelo doctor` makes of its readings.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host_checks.h"
#include "loss_cause.h"
#include "network_namespace.h"

namespace kelotool {
namespace {

using kelo::test::Address;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// ---- Single settings
// -----------------------------------------------------------------------------

struct VerdictCase {
    const char* name;
    std::optional<Finding> (*check)();
    Verdict verdict;
    const char* cure;
};

void PrintTo(const VerdictCase& one, std::ostream* out) {
    *out << one.name;
}

Card CardWith(int mtu) {
    return {.name = "eth1", .up = true, .running = true, .mtu = mtu};
}

Card CardWithRing(uint32_t ring, uint32_t most) {
    Card card = CardWith(9000);
    card.ring = ring;
    card.ring_max = most;
    return card;
}

Card CardWithLink(uint32_t speed, bool half) {
    Card card = CardWith(9000);
    card.speed_mbits = speed;
    card.half_duplex = half;
    return card;
}

Card CardThatMerges(bool merges) {
    Card card = CardWith(9000);
    card.merges_packets = merges;
    return card;
}

class DoctorVerdict : public testing::TestWithParam<VerdictCase> {};

TEST_P(DoctorVerdict, ComesWithTheCure) {
    const auto finding = GetParam().check();
    ASSERT_TRUE(finding);
    EXPECT_EQ(finding->verdict, GetParam().verdict) << finding->measured;
    EXPECT_EQ(finding->cure, GetParam().cure);
    EXPECT_EQ(finding->meaning.empty(), GetParam().verdict == Verdict::kOk);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DoctorVerdict,
    testing::Values(
        VerdictCase{"MtuJumbo", [] { return std::optional(CheckMtu(CardWith(9000))); },
                    Verdict::kOk, ""},
        VerdictCase{"MtuUsual", [] { return std::optional(CheckMtu(CardWith(1500))); },
                    Verdict::kWarn, "ip link set dev eth1 mtu 9000"},
        VerdictCase{"MtuSmall", [] { return std::optional(CheckMtu(CardWith(1499))); },
                    Verdict::kBad, "ip link set dev eth1 mtu 9000"},
        VerdictCase{"LinkGigabit", [] { return CheckLink(CardWithLink(1000, false)); },
                    Verdict::kOk, ""},
        VerdictCase{"LinkSlow", [] { return CheckLink(CardWithLink(100, false)); }, Verdict::kWarn,
                    "ethtool -s eth1 autoneg on"},
        VerdictCase{"LinkHalfDuplex", [] { return CheckLink(CardWithLink(1000, true)); },
                    Verdict::kBad, "ethtool -s eth1 autoneg on"},
        VerdictCase{"RingShort", [] { return CheckRing(CardWithRing(256, 4096)); }, Verdict::kWarn,
                    "ethtool -G eth1 rx 4096"},
        VerdictCase{"RingAtItsLongest", [] { return CheckRing(CardWithRing(256, 256)); },
                    Verdict::kOk, ""},
        VerdictCase{"RingLongEnough", [] { return CheckRing(CardWithRing(2048, 8192)); },
                    Verdict::kOk, ""},
        VerdictCase{"MergingOff", [] { return CheckMerging(CardThatMerges(false)); },
                    Verdict::kWarn, "ethtool -K eth1 gro on rx-udp-gro-forwarding on"},
        VerdictCase{"MergingOn", [] { return CheckMerging(CardThatMerges(true)); }, Verdict::kOk,
                    ""},
        VerdictCase{"BufferAsWanted",
                    [] { return std::optional(CheckReceiveBuffer(32 << 20, 32 << 20)); },
                    Verdict::kOk, ""},
        VerdictCase{"BufferForOthersSmaller",
                    [] { return std::optional(CheckReceiveBuffer(4 << 20, 32 << 20)); },
                    Verdict::kWarn, "sysctl -w net.core.rmem_max=33554432"},
        VerdictCase{"BufferOfTheSystemsDefault",
                    [] { return std::optional(CheckReceiveBuffer(212992, 212992)); }, Verdict::kBad,
                    "sysctl -w net.core.rmem_max=33554432"},
        VerdictCase{"PathFilterOff",
                    [] { return std::optional(CheckReversePathFilter("eth1", 0, 0)); },
                    Verdict::kOk, ""},
        VerdictCase{"PathFilterStrictForAll",
                    [] { return std::optional(CheckReversePathFilter("eth1", 0, 1)); },
                    Verdict::kWarn, "sysctl -w net.ipv4.conf.eth1.rp_filter=2"},
        VerdictCase{"PathFilterLooseBeatsStrict",
                    [] { return std::optional(CheckReversePathFilter("eth1", 2, 1)); },
                    Verdict::kOk, ""},
        VerdictCase{"RealTimeGranted", [] { return std::optional(CheckRealTime(true, 0)); },
                    Verdict::kOk, ""},
        VerdictCase{"RealTimeRefused", [] { return std::optional(CheckRealTime(false, 0)); },
                    Verdict::kWarn, "setcap cap_sys_nice+ep PROGRAM"}),
    [](const auto& test) { return test.param.name; });

TEST(DoctorChecksTest, SaysNothingOfWhatTheDriverDoesNotTell) {
    EXPECT_FALSE(CheckLink(CardWith(1500)));
    EXPECT_FALSE(CheckRing(CardWith(1500)));
    EXPECT_FALSE(CheckMerging(CardWith(1500)));
}

// ---- The firewall and answers
// --------------------------------------------------------------------

TEST(DoctorFirewallTest, NamesTheChainsThatMayDrop) {
    const std::vector<FilterChain> chains = {
        {.family = "inet", .table = "t", .chain = "harmless"},
        {.family = "inet", .table = "t", .chain = "input", .drops_by_default = true},
        {.family = "ip", .table = "u", .chain = "pre", .dropping_rules = 3}};
    const Findings findings = CheckFirewall(chains, "", "eth1");
    ASSERT_THAT(findings, SizeIs(2));
    EXPECT_EQ(findings[0].verdict, Verdict::kWarn);
    EXPECT_EQ(findings[0].cure,
              "nft insert rule inet t input iifname \"eth1\" meta l4proto udp accept");
    EXPECT_EQ(findings[1].subject, "ip u pre");
    EXPECT_EQ(findings[1].measured, "accepts by default, 3 rules that drop");
}

TEST(DoctorFirewallTest, TellsOfRulesThatItDoesNotSee) {
    EXPECT_EQ(CheckFirewall(std::nullopt, "", "eth1").at(0).verdict, Verdict::kUnknown);
    EXPECT_EQ(CheckFirewall(std::vector<FilterChain>(), "filter\n", "eth1").at(0).cure,
              "iptables-legacy -L INPUT -n -v");
    EXPECT_EQ(CheckFirewall(std::vector<FilterChain>(), "", "eth1").at(0).verdict, Verdict::kOk);
}

EXT_CAM_INFO Camera(uint32_t address, uint8_t mac = 1, uint32_t mask = 0xFFFFFF00) {
    EXT_CAM_INFO camera{};
    camera.camera_handle = address ^ mac;
    camera.camera_ip = address;
    camera.camera_subnetmask = mask;
    camera.camera_mac[5] = mac;
    return camera;
}

constexpr uint32_t HOST = Address(10, 0, 0, 1);
constexpr uint32_t CAMERA = Address(10, 0, 0, 21);

TEST(DoctorAnswersTest, AreFineWhenEveryAnswerArrives) {
    const auto finding = CheckAnswers(
        {.cameras = {Camera(CAMERA)}, .listened = true, .heard = {CAMERA}, .timeout_ms = 500});
    EXPECT_EQ(finding.verdict, Verdict::kOk);
    EXPECT_EQ(finding.measured, "1 camera answered within 500 ms");
}

TEST(DoctorAnswersTest, ThoseThatTheCardAloneHeardAreDroppedHere) {
    SearchReading search{.listened = true, .heard = {CAMERA}, .timeout_ms = 500};
    EXPECT_THAT(CheckAnswers(search).meaning, HasSubstr("firewall"));
    EXPECT_EQ(CheckAnswers(search).verdict, Verdict::kBad);
    EXPECT_THAT(CheckAnswers(search).measured, HasSubstr("10.0.0.21"));
    search.reverse_path_drops = 1;
    EXPECT_EQ(CheckAnswers(search).cure, "sysctl -w net.ipv4.conf.all.rp_filter=2");
}

TEST(DoctorAnswersTest, SilenceIsJudgedByWhatCouldBeHeard) {
    EXPECT_THAT(CheckAnswers({.listened = true}).meaning, HasSubstr("none reached the card"));
    EXPECT_EQ(CheckAnswers({.listened = false}).cure, "sudo kelo doctor");
}

// ---- Addresses
// -----------------------------------------------------------------------------------

const std::vector<Interface> INTERFACES = {{"lo", Address(127, 0, 0, 1), 0xFF000000},
                                           {"eth1", HOST, 0xFFFFFF00}};

struct AddressCase {
    const char* name;
    std::vector<EXT_CAM_INFO> cameras;
    std::vector<Interface> interfaces;
    Verdict verdict;
    const char* measured;
    const char* cure;
};

void PrintTo(const AddressCase& one, std::ostream* out) {
    *out << one.name;
}

class DoctorAddresses : public testing::TestWithParam<AddressCase> {};

TEST_P(DoctorAddresses, AreJudged) {
    const Findings findings = CheckAddresses(GetParam().cameras, GetParam().interfaces);
    ASSERT_THAT(findings, SizeIs(1));
    EXPECT_EQ(findings[0].verdict, GetParam().verdict);
    EXPECT_EQ(findings[0].measured, GetParam().measured);
    EXPECT_EQ(findings[0].cure, GetParam().cure);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DoctorAddresses,
    testing::Values(AddressCase{"Fine",
                                {Camera(CAMERA)},
                                INTERFACES,
                                Verdict::kOk,
                                "1 camera, 2 interfaces, no clash",
                                ""},
                    AddressCase{"TwoCameras",
                                {Camera(CAMERA, 1), Camera(CAMERA, 2)},
                                INTERFACES,
                                Verdict::kBad,
                                "2 cameras: 00:00:00:00:00:01, 00:00:00:00:00:02",
                                "kelo set-ip 0x0a000017 ADDRESS MASK"},
                    AddressCase{"CameraAndHost",
                                {Camera(HOST, 0)},
                                INTERFACES,
                                Verdict::kBad,
                                "the camera has the address of eth1",
                                "kelo set-ip 0x0a000001 ADDRESS 255.255.255.0"},
                    AddressCase{"SimulatedCameraOnTheLoopbackInterface",
                                {Camera(Address(127, 0, 0, 1), 1, 0xFF000000)},
                                INTERFACES,
                                Verdict::kOk,
                                "1 camera, 2 interfaces, no clash",
                                ""},
                    AddressCase{"ForeignSubnet",
                                {Camera(Address(192, 168, 5, 5), 0)},
                                INTERFACES,
                                Verdict::kBad,
                                "mask 255.255.255.0, on no subnet of this machine",
                                "kelo set-ip 0xc0a80505 ADDRESS 255.255.255.0"},
                    AddressCase{"OtherMask",
                                {Camera(CAMERA, 0, 0xFFFF0000)},
                                INTERFACES,
                                Verdict::kWarn,
                                "mask 255.255.0.0, that of eth1 is 255.255.255.0",
                                "kelo set-ip 0x0a000015 10.0.0.21 255.255.255.0"},
                    AddressCase{
                        "TwoInterfacesOnOneSubnet",
                        {},
                        {{"eth1", HOST, 0xFFFFFF00}, {"eth2", Address(10, 0, 0, 2), 0xFFFFFF00}},
                        Verdict::kWarn,
                        "10.0.0.2, on the subnet of eth1",
                        "ip address del 10.0.0.2/255.255.255.0 dev eth2"}),
    [](const auto& test) { return test.param.name; });

// ---- Losses
// --------------------------------------------------------------------------------------

struct CauseCase {
    const char* name;
    LossCounters counted;
    const char* place;
    const char* cure;
};

void PrintTo(const CauseCase& one, std::ostream* out) {
    *out << one.name;
}

class DoctorLossCause : public testing::TestWithParam<CauseCase> {};

TEST_P(DoctorLossCause, IsWhereSomethingWasCounted) {
    const auto causes = FindLossCauses(GetParam().counted, 10, CardWithRing(256, 4096));
    ASSERT_FALSE(causes.empty());
    EXPECT_EQ(causes[0].place, GetParam().place);
    EXPECT_EQ(causes[0].cure, GetParam().cure);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DoctorLossCause,
    testing::Values(
        CauseCase{"Socket", {.socket_drops = 1}, "socket", "sysctl -w net.core.rmem_max=33554432"},
        CauseCase{"Backlog",
                  {.backlog_drops = 1},
                  "backlog",
                  "sysctl -w net.core.netdev_max_backlog=10000"},
        CauseCase{"Checksum", {.udp_checksum_errors = 10}, "checksum", ""},
        CauseCase{"Fragments", {.fragments_lost = 10}, "fragments", ""},
        CauseCase{"RingMissed", {.card = {.missed = 10}}, "ring", "ethtool -G eth1 rx 4096"},
        CauseCase{"RingFifo", {.card = {.fifo = 10}}, "ring", "ethtool -G eth1 rx 4096"},
        CauseCase{"Cable", {.card = {.errors = 10}}, "cable", "ethtool -S eth1"},
        CauseCase{"Card", {.card = {.dropped = 10}}, "card", "ethtool -S eth1"},
        // What other processes lost is not ours.
        CauseCase{"Elsewhere", {.udp_buffer_errors = 10}, "network", "ethtool -A eth1 rx on"},
        CauseCase{"MostlyElsewhere", {.card = {.errors = 1}}, "network", "ethtool -A eth1 rx on"}),
    [](const auto& test) { return test.param.name; });

TEST(DoctorLossCauseTest, NamesTheLikeliestFirst) {
    const auto causes = FindLossCauses({.socket_drops = 1, .card = {.errors = 3, .missed = 100}},
                                       500, CardWith(1500));
    std::vector<std::string> places;
    for (const LossCause& cause : causes)
        places.push_back(cause.place);
    EXPECT_THAT(places, ElementsAre("network", "ring", "socket", "cable"));
    EXPECT_EQ(causes[0].events, 500U - 100 - 3 - 64);
}

TEST(DoctorLossCauseTest, IsNoneWhenNothingWasLost) {
    EXPECT_THAT(FindLossCauses({.socket_drops = 5}, 0, CardWith(1500)), IsEmpty());
}

TEST(DoctorLossCauseTest, CountersOfTheCardWrap) {
    const auto counted = Between({.socket_drops = 5, .card = {.missed = 0xFFFFFFFF}},
                                 {.socket_drops = 3, .card = {.missed = 1}});
    EXPECT_EQ(counted.card.missed, 2U);
    EXPECT_EQ(counted.socket_drops, 0U) << "a socket that was counted is closed";
}

// ---- The kernel's tables
// -------------------------------------------------------------------------

TEST(DoctorReadingsTest, ProtocolCountersAreFoundByName) {
    const std::string snmp =
        "Ip: Forwarding ReasmFails\nIp: 1 7\nUdp: InDatagrams RcvbufErrors\nUdp: 5 "
        "18446744073709551615\n";
    EXPECT_EQ(ProtocolCounter(snmp, "Ip", "ReasmFails"), 7U);
    EXPECT_EQ(ProtocolCounter(snmp, "Udp", "RcvbufErrors"), UINT64_MAX);
    EXPECT_EQ(ProtocolCounter(snmp, "Udp", "Missing"), 0U);
    EXPECT_EQ(ProtocolCounter("Udp: A B\nUdp: 1\n", "Udp", "B"), 0U);
    EXPECT_EQ(ProtocolCounter("", "Udp", "B"), 0U);
}

TEST(DoctorReadingsTest, DropsAreThoseOfOwnSockets) {
    const std::string table =
        "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  "
        "timeout "
        "inode ref pointer drops\n"
        "  77: 00000000:1000 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        "
        "0 "
        "111 2 0000000000000000 4\n"
        "  78: 00000000:1001 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        "
        "0 "
        "222 2 0000000000000000 30\n"
        "  79: cut\n";
    EXPECT_EQ(SocketDrops(table, {111}), 4U);
    EXPECT_EQ(SocketDrops(table, {111, 222}), 34U);
    EXPECT_EQ(SocketDrops(table, {333}), 0U);
}

TEST(DoctorReadingsTest, BacklogDropsAreHexadecimalAndOfAllProcessors) {
    EXPECT_EQ(BacklogDrops("000000ff 00000010 00000000\n000000ff 00000001\nx\n"), 0x11U);
}

}  // namespace
}  // namespace kelotool
