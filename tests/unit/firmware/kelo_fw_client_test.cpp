#include "kelo_fw_client.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <ostream>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "firmware_image.h"
#include "log_capture.h"
#include "utils.h"
#include "wait_for.h"

namespace {

using kelo::test::Bytes;
using kelo::test::kEmblemOffset;
using kelo::test::kShortestImage;
using kelo::test::LogCapture;
using kelo::test::MakeImage;
using kelo::test::StoreBigEndian;
using kelo::test::TempFile;

constexpr int kMaxPayload = 512;
constexpr size_t kMiB = 0x100000;

const Bytes& ShortestImage() {
    static const Bytes image = MakeImage(kShortestImage);
    return image;
}

// Small images, with the emblem at their start, for whatever does not depend on its real place.
Bytes SmallImage(size_t size = 2000) {
    return MakeImage(size, 0);
}

Bytes Slice(const Bytes& bytes, size_t offset, size_t count) {
    return {bytes.begin() + static_cast<ptrdiff_t>(offset),
            bytes.begin() + static_cast<ptrdiff_t>(offset + count)};
}

// What a camera holds of an image: everything but the emblem, which it reads as erased.
Bytes Flash(Bytes image) {
    std::fill_n(image.begin() + kEmblemOffset, kShortestImage - kEmblemOffset, uint8_t{0xFF});
    return image;
}

// Descriptors of this process that are open on a path below the given one.
std::vector<int> OpenDescriptors(const std::string& path) {
    std::vector<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone);
        if (target.rfind(path, 0) == 0) found.push_back(std::stoi(entry.path().filename()));
    }
    return found;
}

std::string StartError(TKeloFWClient& client, const std::string& path,
                       uint32_t emblemOffset = kEmblemOffset) {
    try {
        client.StartProgramming(path, emblemOffset);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

uint32_t fakeSeconds = 0;
uint32_t FakeClock() {
    return fakeSeconds;
}

class FirmwareClient : public testing::Test {
protected:
    void Start(const Bytes& image, uint32_t emblemOffset = kEmblemOffset) {
        file.emplace(image);
        client.StartProgramming(file->Path(), emblemOffset);
    }
    void StartSmall() { Start(SmallImage(), 0); }

    // Asks for a payload into a buffer full of left-overs.
    TResult Next() {
        buffer.assign(kMaxPayload, 0xEE);
        return client.GetNextPayload(buffer.data(), length, timeoutSec);
    }
    Bytes Payload() const { return Slice(buffer, 0, static_cast<size_t>(length)); }

    // Takes payloads up to the finish payload or an error; gives the data payloads' file bytes.
    TResult SendAll(Bytes& sent) {
        TResult result = Next();
        for (result = Next(); result == R_OK && length > 4; result = Next()) {
            Bytes offset(4);
            StoreBigEndian(offset, 0, static_cast<uint32_t>(sent.size()));
            EXPECT_EQ(Slice(buffer, 0, 4), offset);
            EXPECT_EQ(timeoutSec, 1);
            const Bytes payload = Payload();
            sent.insert(sent.end(), payload.begin() + 4, payload.end());
            ++dataPayloads;
        }
        return result;
    }
    void Read(const Bytes& image, uint32_t emblemOffset = kEmblemOffset) {
        Start(image, emblemOffset);
        client.StartReading(0);
        ASSERT_EQ(Next(), R_OK);
        ASSERT_EQ(Next(), R_READ);
    }
    void ReadSmall() { Read(SmallImage(), 0); }

    // Takes a reply with the given address and count words apart; the bytes follow.
    TResult Extract(uint32_t replyAddress, uint32_t replyCount, const Bytes& bytes) {
        reply.assign(8, 0);
        StoreBigEndian(reply, 0, replyAddress);
        StoreBigEndian(reply, 4, replyCount);
        reply.insert(reply.end(), bytes.begin(), bytes.end());
        return client.ExtractReadData(reply.data(), static_cast<int>(reply.size()), data, address,
                                      count);
    }
    TResult Extract(uint32_t replyAddress, const Bytes& bytes) {
        return Extract(replyAddress, static_cast<uint32_t>(bytes.size()), bytes);
    }
    TResult Check(uint32_t at, const Bytes& bytes) {
        return client.CheckReadData(bytes.data(), at, static_cast<int>(bytes.size()));
    }
    // Reads back what a camera holds, in pieces of at most step bytes.
    // A camera's flash goes on behind the image: the piece after the last one is not empty.
    TResult ReadBack(const Bytes& flash, size_t step) {
        TResult result = R_OK;
        for (size_t at = 0; result == R_OK; at += static_cast<size_t>(count)) {
            const Bytes piece = at < flash.size()
                                    ? Slice(flash, at, std::min(step, flash.size() - at))
                                    : Bytes(step, 0xFF);
            result = Extract(static_cast<uint32_t>(at), piece);
            if (result == R_OK) result = client.CheckReadData(data, address, count);
        }
        return result;
    }
    int Percent() {
        int percent = -1;
        EXPECT_EQ(client.GetProgress(&percent), R_OK);
        return percent;
    }

    TKeloFWClient client{kMaxPayload, &FakeClock};
    std::optional<TempFile> file;
    Bytes buffer;
    int length = 0;
    int timeoutSec = 0;
    int dataPayloads = 0;
    Bytes reply;
    const void* data = nullptr;
    uint32_t address = 0;
    int count = 0;
};

// ---- The values that other programs and cameras know -------------------------------------------

TEST(FirmwareValues, AreFixed) {
    EXPECT_EQ(std::vector<int>({ST_IDLE, ST_PROG_START, ST_PROGRAMMING, ST_READ_PREPARE,
                                ST_START_READING, ST_READING, ST_DONE}),
              std::vector<int>({0, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(std::vector<int>({R_OK, R_END, R_READ, R_ERROR_TIMEOUT, R_ERROR}),
              std::vector<int>({0, 1, 2, 3, 4}));
    EXPECT_EQ(std::vector<int>(
                  {EMBLEM_ITEM_MAGIC, EMBLEM_ITEM_IMAGE_LEN, EMBLEM_ITEM_CRC, EMBLEM_ITEM_COUNT}),
              std::vector<int>({0, 1, 2, 3}));
    EXPECT_EQ(FW_EMBLEM_OFFSET, 0x40FFF0u);
}

// ---- Construction
// --------------------------------------------------------------------------------

TEST(FirmwareClientConstruction, RefusesAPayloadAbove2000) {
    EXPECT_NO_THROW(TKeloFWClient(2000));
    try {
        TKeloFWClient client(2001);
        FAIL() << "accepted";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "max payload too high");
    }
}

TEST_F(FirmwareClient, IsIdleAtFirst) {
    EXPECT_EQ(Next(), R_END);
    EXPECT_FALSE(client.AbortionAllowed);
    EXPECT_EQ(Extract(0, Bytes(4)), R_ERROR);
    EXPECT_EQ(Check(0, Bytes(4)), R_ERROR);
}

TEST_F(FirmwareClient, ClosesTheFileWhenDestroyed) {
    const TempFile image(SmallImage());
    {
        TKeloFWClient other(kMaxPayload);
        other.StartProgramming(image.Path(), 0);
        EXPECT_EQ(OpenDescriptors(image.Path()).size(), 1u);
    }
    EXPECT_TRUE(OpenDescriptors(image.Path()).empty());
}

// ---- The check of the file ----------------------------------------------------------------------

struct BadFile {
    const char* name;
    std::function<Bytes()> make;
    uint32_t emblem_offset;
    const char* text;
};

// For the names that ctest shows.
void PrintTo(const BadFile& file, std::ostream* out) {
    *out << file.name;
}

class BadFirmwareFile : public testing::TestWithParam<BadFile> {};

TEST_P(BadFirmwareFile, IsRefusedWithItsText) {
    const TempFile image(GetParam().make());
    TKeloFWClient client(kMaxPayload);
    EXPECT_EQ(StartError(client, image.Path(), GetParam().emblem_offset), GetParam().text);
    EXPECT_TRUE(OpenDescriptors(image.Path()).empty());
}

Bytes Spoilt(size_t offset) {
    Bytes image = ShortestImage();
    image.at(offset) ^= 0x01;
    return image;
}

constexpr char kBadMagic[] = "The file has no valid magic";
constexpr char kBadLength[] = "The file does not have the right length";
constexpr char kBadCrc[] = "The file has no valid crc";
constexpr char kBoundary[] =
    "the emblem falls on the boundary of MAX; try changing MAX or move the emblem...";

INSTANTIATE_TEST_SUITE_P(
    All, BadFirmwareFile,
    testing::Values(
        BadFile{"Empty", [] { return Bytes(); }, kEmblemOffset, kBadMagic},
        BadFile{"MuchTooShort", [] { return Bytes(100, 0xAB); }, kEmblemOffset, kBadMagic},
        BadFile{"OneByteShortOfItsEmblem",
                [] { return Slice(ShortestImage(), 0, kShortestImage - 1); }, kEmblemOffset,
                kBadMagic},
        BadFile{"ShortWithAnEmblemOneMiBEarlier",
                [] {
                    // What an earlier piece left in the buffer must not pass for the emblem.
                    Bytes image = MakeImage(kEmblemOffset, kEmblemOffset - kMiB);
                    return image;
                },
                kEmblemOffset, kBadMagic},
        BadFile{"WrongMagic", [] { return Spoilt(kEmblemOffset); }, kEmblemOffset, kBadMagic},
        BadFile{"WrongLengthItem", [] { return Spoilt(kEmblemOffset + 7); }, kEmblemOffset,
                kBadLength},
        BadFile{"WrongLengthWithAMatchingCrc",
                [] {
                    Bytes image = ShortestImage();
                    StoreBigEndian(image, kEmblemOffset + 4, kShortestImage + 1);
                    return image;
                },
                kEmblemOffset, kBadLength},
        BadFile{"OneByteAppended",
                [] {
                    Bytes image = ShortestImage();
                    image.push_back(0);
                    return image;
                },
                kEmblemOffset, kBadLength},
        BadFile{"WrongCrcItem", [] { return Spoilt(kEmblemOffset + 11); }, kEmblemOffset, kBadCrc},
        BadFile{"FirstByteSpoilt", [] { return Spoilt(0); }, kEmblemOffset, kBadCrc},
        BadFile{"LastByteBeforeTheEmblemSpoilt", [] { return Spoilt(kEmblemOffset - 1); },
                kEmblemOffset, kBadCrc},
        BadFile{"EmblemOverTheEndOfAPiece", [] { return Bytes(2 * kMiB); }, kMiB - 11, kBoundary},
        BadFile{"EmblemInTheLastByteOfAPiece", [] { return Bytes(2 * kMiB); }, 2 * kMiB - 1,
                kBoundary},
        BadFile{"ShortWithAnEmblemOverTheEndOfAPiece", [] { return Bytes(10); }, kMiB - 11,
                kBoundary}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(FirmwareClient, RefusesAFileThatIsNotThere) {
    EXPECT_EQ(StartError(client, "/nonexistent/image.bin"), "fopen failed");
    EXPECT_EQ(StartError(client, ""), "fopen failed");
}

TEST_F(FirmwareClient, RefusesADirectory) {
    const TempFile image(Bytes{});
    EXPECT_EQ(StartError(client, image.Directory()), "while reading for checking");
    EXPECT_TRUE(OpenDescriptors(image.Directory()).empty());
}

TEST_F(FirmwareClient, DoesNotWaitForTheOtherEndOfANamedPipe) {
    const TempFile image(Bytes{});
    const std::string path = image.Directory() + "/pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(StartError(client, path), kBadMagic);
}

TEST_F(FirmwareClient, RefusesAValidFileThatCannotBeRewound) {
    const TempFile image(Bytes{});
    const std::string path = image.Directory() + "/pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int writer = open(path.c_str(), O_RDWR);
    const Bytes content = SmallImage();
    ASSERT_EQ(write(writer, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    // The pipe ends when its only writer closes; it must not before the client has opened it.
    std::thread closer([&] {
        EXPECT_TRUE(kelo::test::WaitFor([&] { return OpenDescriptors(path).size() == 2; }));
        close(writer);
    });
    EXPECT_EQ(StartError(client, path, 0), "The file can not be rewind");
    closer.join();
}

TEST_F(FirmwareClient, RefusesAFileAbove4GiBWithoutReadingAllOfIt) {
    const TempFile image(ShortestImage());
    image.Resize(uint64_t{1} << 42);
    EXPECT_EQ(StartError(client, image.Path()), kBadLength);
}

TEST_F(FirmwareClient, AcceptsTheShortestFileWithAnEmblem) {
    Start(ShortestImage());
    EXPECT_TRUE(client.AbortionAllowed);
    EXPECT_EQ(Percent(), 0);
}

TEST_F(FirmwareClient, AcceptsAFileOfWholeMiBs) {
    Start(MakeImage(5 * kMiB));
    EXPECT_EQ(Next(), R_OK);
}

TEST_F(FirmwareClient, AcceptsAnEmblemThatEndsWithItsPiece) {
    for (const size_t size : {kMiB, kMiB + 1}) {
        Start(MakeImage(size, kMiB - 12), kMiB - 12);
        EXPECT_EQ(Next(), R_OK);
    }
}

TEST_F(FirmwareClient, StartsAgainFromAnyStateWithOneOpenFile) {
    StartSmall();
    ASSERT_EQ(Next(), R_OK);
    ASSERT_EQ(Next(), R_OK);
    client.SetProgressError(R_ERROR);
    client.StartProgramming(file->Path(), 0);
    EXPECT_EQ(OpenDescriptors(file->Path()).size(), 1u);
    EXPECT_EQ(Percent(), 0);
    Bytes sent;
    EXPECT_EQ(SendAll(sent), R_OK);
    EXPECT_EQ(sent, SmallImage());
}

TEST_F(FirmwareClient, HasNoFileAfterAFailedStart) {
    StartSmall();
    ASSERT_EQ(Next(), R_OK);
    EXPECT_EQ(StartError(client, "/nonexistent/image.bin"), "fopen failed");
    EXPECT_TRUE(OpenDescriptors(file->Path()).empty());
    EXPECT_EQ(Next(), R_ERROR);
}

TEST_F(FirmwareClient, ClosesTheFileOfARunThatIsGivenUp) {
    StartSmall();
    ASSERT_EQ(Next(), R_OK);
    client.CloseFileIfNeeded();
    EXPECT_TRUE(OpenDescriptors(file->Path()).empty());
    EXPECT_EQ(Next(), R_ERROR);
    client.CloseFileIfNeeded();
}

// ---- Payloads
// ------------------------------------------------------------------------------------

TEST_F(FirmwareClient, GivesTheStartPayloadFirst) {
    StartSmall();
    EXPECT_EQ(Next(), R_OK);
    EXPECT_EQ(Payload(), Bytes({0xFF, 0xFF, 0xFF, 0x00}));
    EXPECT_EQ(timeoutSec, 1);
    EXPECT_TRUE(client.AbortionAllowed);
}

TEST_F(FirmwareClient, GivesDataBehindItsFileOffset) {
    const Bytes image = SmallImage();
    StartSmall();
    ASSERT_EQ(Next(), R_OK);
    ASSERT_EQ(Next(), R_OK);
    EXPECT_EQ(length, 512);
    EXPECT_EQ(Slice(buffer, 0, 4), Bytes({0, 0, 0, 0}));
    EXPECT_EQ(Slice(buffer, 4, 508), Slice(image, 0, 508));
    ASSERT_EQ(Next(), R_OK);
    EXPECT_EQ(Slice(buffer, 0, 4), Bytes({0, 0, 0x01, 0xFC}));
    EXPECT_EQ(Slice(buffer, 4, 508), Slice(image, 508, 508));
}

TEST_F(FirmwareClient, GivesTheFinishPayloadAfterTheLastByte) {
    StartSmall();
    const LogCapture log;
    Bytes sent;
    ASSERT_EQ(SendAll(sent), R_OK);
    EXPECT_EQ(sent, SmallImage());
    EXPECT_EQ(Payload(), Bytes({0xFF, 0xFF, 0xFF, 0x01}));
    EXPECT_EQ(timeoutSec, 190);
    EXPECT_FALSE(client.AbortionAllowed);
    EXPECT_EQ(log.Lines(),
              std::vector<std::string>({"ST_PROG_FINISH",
                                        "Setting state to ST_READ_PREPARE, payload length 4 B, "
                                        "estimated timeout 190 s"}));
}

TEST_F(FirmwareClient, GivesTheReadPreparePayloadThenAsksForReading) {
    StartSmall();
    Bytes sent;
    ASSERT_EQ(SendAll(sent), R_OK);
    const LogCapture log;
    EXPECT_EQ(Next(), R_OK);
    EXPECT_EQ(Payload(), Bytes({0xFF, 0xFF, 0xFF, 0x02, 0, 0, 0, 0}));
    EXPECT_EQ(timeoutSec, 15);
    EXPECT_EQ(
        log.Lines(),
        std::vector<std::string>(
            {"ST_READ_PREPARE",
             "Setting state to ST_START_READING, estimated timeout 15 s, payload length 8 B"}));
    EXPECT_EQ(Next(), R_READ);
    EXPECT_EQ(buffer, Bytes(kMaxPayload, 0xEE));
}

TEST_F(FirmwareClient, GoesIdleWhenPayloadsAreAskedForWhileReading) {
    ReadSmall();
    EXPECT_EQ(Next(), R_READ);
    EXPECT_EQ(Next(), R_OK);
    EXPECT_EQ(buffer, Bytes(kMaxPayload, 0xEE));
    EXPECT_EQ(OpenDescriptors(file->Path()).size(), 1u);
    EXPECT_EQ(Next(), R_END);
    EXPECT_TRUE(OpenDescriptors(file->Path()).empty());
}

TEST_F(FirmwareClient, FillsTheBufferBehindAShortPayloadWithZeros) {
    StartSmall();
    for (int payload = 0; payload < 7; ++payload) {  // start, four of data, finish, read prepare
        ASSERT_EQ(Next(), R_OK);
        EXPECT_EQ(
            Slice(buffer, static_cast<size_t>(length), kMaxPayload - static_cast<size_t>(length)),
            Bytes(kMaxPayload - static_cast<size_t>(length)))
            << "payload " << payload;
    }
    EXPECT_EQ(length, 8);
}

TEST_F(FirmwareClient, CutsTheShortestImageInto8385WholePayloadsAndAShortOne) {
    Start(ShortestImage());
    std::vector<int> lengths;
    do {
        ASSERT_EQ(Next(), R_OK);
        lengths.push_back(length);
    } while (timeoutSec != 190);
    std::vector<int> expected(8385, 4 + 508);
    expected.insert(expected.begin(), 4);
    expected.insert(expected.end(), {4 + 256, 4});
    EXPECT_EQ(lengths, expected);
}

TEST_F(FirmwareClient, SendsAFileOfWholePayloadsWithoutAnEmptyOne) {
    Start(SmallImage(508 * 3), 0);
    Bytes sent;
    ASSERT_EQ(SendAll(sent), R_OK);
    EXPECT_EQ(dataPayloads, 3);
    EXPECT_EQ(sent.size(), 508u * 3);
}

TEST_F(FirmwareClient, FailsWhenTheFileCannotBeReadOn) {
    StartSmall();
    const int fd = OpenDescriptors(file->Path()).at(0);
    const int directory = open("/", O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(dup2(directory, fd), fd);
    close(directory);
    Bytes sent;
    EXPECT_EQ(SendAll(sent), R_ERROR);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "the file is still open";
    EXPECT_EQ(Next(), R_ERROR);
}

TEST(FirmwareClientPayload, IsAnErrorWhenItDoesNotFitTheBuffer) {
    const TempFile image(SmallImage());
    for (const int maxPayload : {-5, 0, 3}) {
        TKeloFWClient client(maxPayload);
        client.StartProgramming(image.Path(), 0);
        uint8_t untouched[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        int length = 0;
        int timeoutSec = 0;
        EXPECT_EQ(client.GetNextPayload(untouched, length, timeoutSec), R_ERROR);
        EXPECT_EQ(untouched[0], 1);
    }
}

// ---- A file that changes during the run
// ----------------------------------------------------------

class ChangedFirmwareFile : public FirmwareClient {
protected:
    void ExpectRefusal(const std::function<void()>& change) {
        StartSmall();
        const LogCapture log;
        change();
        Bytes sent;
        EXPECT_EQ(SendAll(sent), R_ERROR);
        EXPECT_EQ(log.Lines(),
                  std::vector<std::string>({"The file has changed while it was sent"}));
        EXPECT_TRUE(OpenDescriptors(file->Path()).empty());
        EXPECT_TRUE(client.AbortionAllowed) << "the camera was told to write its flash";
    }
};

TEST_F(ChangedFirmwareFile, IsNotFinishedWhenAByteDiffers) {
    ExpectRefusal([this] { file->Write(1999, {static_cast<uint8_t>(SmallImage().at(1999) ^ 1)}); });
}

TEST_F(ChangedFirmwareFile, IsNotFinishedWhenTheEmblemDiffers) {
    ExpectRefusal([this] { file->Write(0, {0, 0, 0, 0}); });
}

TEST_F(ChangedFirmwareFile, IsNotFinishedWhenItShrinks) {
    ExpectRefusal([this] { file->Resize(1000); });
}

TEST_F(ChangedFirmwareFile, IsNotFinishedWhenItGrows) {
    ExpectRefusal([this] { file->Resize(3000); });
}

TEST_F(ChangedFirmwareFile, IsSentAsItWasCheckedWhenAnotherTakesItsName) {
    StartSmall();
    const TempFile other(SmallImage(3000));
    std::filesystem::rename(other.Path(), file->Path());
    Bytes sent;
    EXPECT_EQ(SendAll(sent), R_OK);
    EXPECT_EQ(sent, SmallImage());
}

TEST_F(ChangedFirmwareFile, IsNoticedAtReadBackAfterItWasSent) {
    StartSmall();
    Bytes sent;
    ASSERT_EQ(SendAll(sent), R_OK);
    file->Write(100, {0xAA, 0xBB, 0xCC});
    ASSERT_EQ(Next(), R_OK);
    ASSERT_EQ(Next(), R_READ);
    EXPECT_EQ(ReadBack(sent, 504), R_ERROR);
}

// ---- Read-back
// -----------------------------------------------------------------------------------

TEST_F(FirmwareClient, TakesAReplyApart) {
    ReadSmall();
    EXPECT_EQ(Extract(0, {1, 2, 3}), R_OK);
    EXPECT_EQ(data, reply.data() + 8);
    EXPECT_EQ(address, 0u);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(Extract(3, {4, 5}), R_OK);
    EXPECT_EQ(address, 3u);
    EXPECT_EQ(count, 2);
}

TEST_F(FirmwareClient, PrintsAProgressMarkAlsoWhileLoggingIsOff) {
    ReadSmall();
    const LogCapture log;
    kelo::Logging(false);
    Extract(0, Bytes(0x1AB));
    Extract(0x1AB, Bytes(1));
    kelo::Logging(true);
    EXPECT_EQ(log.Text(), "\rFW:0x0 \rFW:0x1AB ");
}

TEST_F(FirmwareClient, RefusesRepliesWhileNotReading) {
    StartSmall();
    EXPECT_EQ(Extract(0, Bytes(4)), R_ERROR);
    EXPECT_EQ(Check(0, Bytes(4)), R_ERROR);
    client.StartReading(0);
    EXPECT_EQ(Extract(0, Bytes(4)), R_ERROR);
}

TEST_F(FirmwareClient, RefusesRepliesOfLessThanTwoWords) {
    ReadSmall();
    const Bytes bytes(16);
    for (const int size : {7, 1, 0, -1, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(client.ExtractReadData(bytes.data(), size, data, address, count), R_ERROR)
            << size;
    }
    EXPECT_EQ(client.ExtractReadData(bytes.data(), 8, data, address, count), R_OK);
    EXPECT_EQ(count, 0);
}

TEST_F(FirmwareClient, RefusesACountThatTheReplyDoesNotHold) {
    ReadSmall();
    for (const uint32_t size : {505u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFF8u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Extract(0, size, Bytes(504)), R_ERROR) << size;
    }
    EXPECT_EQ(Extract(0, 504, Bytes(504)), R_OK) << "the refused ones must not move the address";
}

TEST_F(FirmwareClient, EndsWhenTheCameraCannotReadBack) {
    ReadSmall();
    const LogCapture log;
    EXPECT_EQ(Extract(0xFFFFFFFF, Bytes(504)), R_END);
    EXPECT_NE(log.Text().find(": Old firmware on camera: readback not supported\n"),
              std::string::npos);
    client.UpdateProgress(0);
    EXPECT_EQ(Percent(), 100);
    EXPECT_TRUE(OpenDescriptors(file->Path()).empty());
}

TEST_F(FirmwareClient, FailsWhenAReplySkipsData) {
    ReadSmall();
    ASSERT_EQ(Extract(0, Bytes(0x1F8)), R_OK);
    const LogCapture log;
    EXPECT_EQ(Extract(0x1F9, Bytes(4)), R_ERROR);
    EXPECT_NE(log.Text().find(": BUG FATAL: FW: ExtractReadData:  CurrentAddress 0x1F8\n"),
              std::string::npos);
}

TEST_F(FirmwareClient, TakesAStaleReplyWithoutComparingIt) {
    ReadSmall();
    const Bytes image = SmallImage();
    ASSERT_EQ(Extract(0, Slice(image, 0, 504)), R_OK);
    const LogCapture log;
    EXPECT_EQ(Extract(0x10, Bytes(8)), R_OK);
    EXPECT_NE(log.Text().find(": BUG OVERIDE: FW: ExtractReadData:  CurrentAddress 0x1F8\n"),
              std::string::npos);
    EXPECT_EQ(address, 504u);
    EXPECT_EQ(client.CheckReadData(data, address, count), R_OK);
    // The next one is compared again.
    EXPECT_EQ(Extract(512, Bytes(8)), R_OK);
    EXPECT_EQ(client.CheckReadData(data, address, count), R_ERROR);
}

TEST_F(FirmwareClient, KeepsTheStaleMarkToItself) {
    ReadSmall();
    ASSERT_EQ(Extract(0, Bytes(504)), R_OK);
    ASSERT_EQ(Extract(0, Bytes(504)), R_OK);
    TKeloFWClient other(kMaxPayload);
    other.StartProgramming(file->Path(), 0);
    other.StartReading(0);
    ASSERT_EQ(other.GetNextPayload(buffer.data(), length, timeoutSec), R_OK);
    ASSERT_EQ(other.GetNextPayload(buffer.data(), length, timeoutSec), R_READ);
    EXPECT_EQ(other.CheckReadData(data, 0, 504), R_ERROR);
    EXPECT_EQ(client.CheckReadData(data, 0, 504), R_OK);
}

TEST_F(FirmwareClient, ReadsAWholeImageBackWithItsEmblemErased) {
    Read(ShortestImage());
    const LogCapture log;
    EXPECT_EQ(ReadBack(Flash(ShortestImage()), 504), R_END);
    EXPECT_NE(log.Text().find(": CheckReadData: EOF\n"), std::string::npos);
    client.UpdateProgress(0);
    EXPECT_EQ(Percent(), 100);
    EXPECT_EQ(Next(), R_END);
    EXPECT_TRUE(OpenDescriptors(file->Path()).empty());
}

TEST_F(FirmwareClient, EndsAtAPieceThatReachesBehindTheEnd) {
    ReadSmall();
    Bytes piece = SmallImage();
    piece.resize(2004, 0xFF);
    EXPECT_EQ(Check(0, piece), R_END);
}

TEST_F(FirmwareClient, GoesOnAtAPieceThatEndsWithTheFile) {
    ReadSmall();
    EXPECT_EQ(Check(0, SmallImage()), R_OK);
    EXPECT_EQ(Check(2000, Bytes(4)), R_END);
}

TEST_F(FirmwareClient, FailsAtTheFirstDifference) {
    ReadSmall();
    Bytes piece = Slice(SmallImage(), 0x200, 504);
    piece.back() ^= 0x80;
    const LogCapture log;
    EXPECT_EQ(Check(0x200, piece), R_ERROR);
    EXPECT_EQ(log.Lines(),
              std::vector<std::string>({"CheckReadData: verification failed at addr 0x200"}));
}

TEST_F(FirmwareClient, MasksTheEmblemInAPieceThatBeginsBeforeIt) {
    Bytes image = MakeImage(kShortestImage + 100);
    Read(image);
    const Bytes flash = Flash(image);
    // From one byte in front of the emblem to somewhere in it, to its end, and behind it.
    for (const size_t size : {1u, 2u, 12u, 13u, 14u, 60u}) {
        EXPECT_EQ(Check(kEmblemOffset - 1, Slice(flash, kEmblemOffset - 1, size)), R_OK) << size;
    }
    EXPECT_EQ(Check(kEmblemOffset - 1, Slice(image, kEmblemOffset - 1, 13)), R_ERROR);
    // A piece of the largest size whose last byte is the emblem's first.
    const size_t first = kEmblemOffset + 1 - kMiB;
    EXPECT_EQ(Check(static_cast<uint32_t>(first), Slice(flash, first, kMiB)), R_OK);
}

TEST_F(FirmwareClient, ComparesAPieceThatBeginsAtTheEmblemAsItIs) {
    const Bytes& image = ShortestImage();
    Read(image);
    EXPECT_EQ(Check(kEmblemOffset, Slice(Flash(image), kEmblemOffset, 12)), R_ERROR);
    EXPECT_EQ(Check(kEmblemOffset, Slice(image, kEmblemOffset, 12)), R_OK);
}

TEST_F(FirmwareClient, MasksTheEmblemAtItsFixedPlaceWhateverTheFileWasCheckedWith) {
    ReadSmall();
    EXPECT_EQ(Check(0, Slice(SmallImage(), 0, 504)), R_OK);
}

TEST_F(FirmwareClient, RefusesPiecesThatAreTooLarge) {
    Read(ShortestImage());
    const Bytes piece = Slice(ShortestImage(), 0, kMiB);
    EXPECT_EQ(client.CheckReadData(piece.data(), 0, static_cast<int>(kMiB)), R_OK);
    EXPECT_EQ(client.CheckReadData(piece.data(), 0, static_cast<int>(kMiB) + 1), R_ERROR);
    EXPECT_EQ(client.CheckReadData(piece.data(), 0, -1), R_ERROR);
}

TEST_F(FirmwareClient, TakesAnEmptyPieceForEqual) {
    ReadSmall();
    ASSERT_EQ(Extract(0, {}), R_OK);
    EXPECT_EQ(client.CheckReadData(data, address, count), R_OK);
}

TEST_F(FirmwareClient, FailsWhenTheFileCannotBeSought) {
    ReadSmall();
    const int fd = OpenDescriptors(file->Path()).at(0);
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    ASSERT_EQ(dup2(pipeEnds[0], fd), fd);
    const LogCapture log;
    EXPECT_EQ(Check(0x40000000, Bytes(4)), R_ERROR);
    EXPECT_EQ(log.Lines(), std::vector<std::string>({"CheckReadData fsetpos failed"}));
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

// ---- Progress
// ------------------------------------------------------------------------------------

class FirmwareProgress : public FirmwareClient {
protected:
    // 5,000,000 bytes: 19 s of sending by 3906 ns per byte, 209 s in all.
    static constexpr int kSize = 5000000;
    void SetUp() override {
        fakeSeconds = 1000;
        Start(MakeImage(kSize));
    }
};

TEST_F(FirmwareProgress, FollowsTheBytesSent) {
    struct {
        int done;
        int percent;
    } const steps[] = {{0, 0}, {512000, 0}, {600000, 0}, {800000, 1}, {2560000, 4}, {kSize - 1, 9}};
    for (const auto& step : steps) {
        client.UpdateProgress(step.done);
        EXPECT_EQ(Percent(), step.percent) << step.done;
    }
}

TEST_F(FirmwareProgress, FollowsTheClockOnceAllIsSent) {
    client.UpdateProgress(kSize - 1);
    fakeSeconds = 5000;
    client.UpdateProgress(kSize);
    struct {
        uint32_t seconds;
        int percent;
    } const steps[] = {{0, 9}, {1, 9}, {2, 10}, {95, 59}, {171, 99}, {172, 99}, {100000, 99}};
    for (const auto& step : steps) {
        fakeSeconds = 5000 + step.seconds;
        EXPECT_EQ(Percent(), step.percent) << step.seconds;
    }
}

TEST_F(FirmwareProgress, CountsTheFlashWorkFromTheLastByteNotFromTheFinishPayload) {
    client.UpdateProgress(kSize);
    fakeSeconds += 19;
    client.UpdateProgress(kSize);
    EXPECT_EQ(Percent(), 9 + 10);
}

TEST_F(FirmwareProgress, DoesNotOverflowForTheLargestFile) {
    // The percentage of a file near 4 GiB needs more than 32 bits on its way.
    client.UpdateProgress(static_cast<int>(0xFFFFFFFF));
    EXPECT_EQ(Percent(), 99);
}

TEST_F(FirmwareProgress, NeverGoesBackwardsWhenTheClockIsSetBack) {
    client.UpdateProgress(kSize);
    fakeSeconds += 95;
    EXPECT_EQ(Percent(), 59);
    fakeSeconds = 10;
    EXPECT_EQ(Percent(), 59);
}

TEST_F(FirmwareProgress, BeginsAgainWithANewRun) {
    client.UpdateProgress(kSize);
    EXPECT_EQ(Percent(), 9);
    client.StartProgramming(file->Path(), kEmblemOffset);
    EXPECT_EQ(Percent(), 0);
}

TEST_F(FirmwareProgress, IsZeroWithTheErrorAfterAFailedRun) {
    client.UpdateProgress(kSize);
    for (const TResult error : {R_ERROR_TIMEOUT, R_ERROR}) {
        client.SetProgressError(error);
        int percent = -1;
        EXPECT_EQ(client.GetProgress(&percent), error);
        EXPECT_EQ(percent, 0);
    }
}

TEST_F(FirmwareProgress, Is100OnlyAfterTheRunHasGoneIdle) {
    client.UpdateProgress(kSize);
    fakeSeconds += 1000;
    EXPECT_EQ(Percent(), 99);
    client.StartReading(0);
    ASSERT_EQ(Next(), R_OK);
    ASSERT_EQ(Next(), R_READ);
    ASSERT_EQ(Extract(1, Bytes(4)), R_END);
    EXPECT_EQ(Percent(), 99);
    client.UpdateProgress(0);
    EXPECT_EQ(Percent(), 100);
}

TEST_F(FirmwareProgress, MayBeReadByOtherThreadsDuringTheRun) {
    std::atomic<bool> over{false};
    std::atomic<bool> abortable{true};
    std::atomic<int> backwards{0};
    std::atomic<int> last{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            int before = 0;
            while (!over) {
                int percent = 0;
                if (client.GetProgress(&percent) != R_OK || percent < before) ++backwards;
                before = percent;
                last = percent;
                abortable = client.AbortionAllowed.load();
            }
        });
    }
    const LogCapture quiet;
    Bytes sent;
    EXPECT_EQ(SendAll(sent), R_OK);
    EXPECT_EQ(Next(), R_OK);
    EXPECT_EQ(Next(), R_READ);
    EXPECT_EQ(ReadBack(Flash(sent), 504), R_END);
    client.UpdateProgress(0);
    over = true;
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(backwards, 0);
    EXPECT_EQ(Percent(), 100);
}

}  // namespace
