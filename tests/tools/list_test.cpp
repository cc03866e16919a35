// kelo list, the global options, and how cameras are named.

#include "tool_fixture.h"

namespace kelo::test {
namespace {

class KeloList : public ToolTest {};

kelosim::CameraConfig Described(uint32_t host, const std::string& description) {
    kelosim::CameraConfig config;
    config.address = kelosim::Ipv4(127, 0, 0, host);
    config.description = description;
    return config;
}

TEST_F(KeloList, PrintsATableOfTheCamerasThatAnswer) {
    simulator.Add(Described(11, "Left gate"));
    simulator.Add(Described(12, "Right gate"));
    simulator.Start();
    const Result result = Kelo({"list", "--timeout", "1000"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.out, HasSubstr("HANDLE"));
    EXPECT_THAT(result.out,
                HasSubstr("127.0.0.11  255.0.0.0  02:4b:7f:00:00:0b  lo       Left gate"));
    EXPECT_THAT(result.out,
                HasSubstr("127.0.0.12  255.0.0.0  02:4b:7f:00:00:0c  lo       Right gate"));
    EXPECT_THAT(result.err, IsEmpty());
}

}  // namespace
}  // namespace kelo::test
