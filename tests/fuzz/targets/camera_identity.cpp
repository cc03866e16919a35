// Identity and handle of cameras, from two discovery replies in the input: a byte that tells where
// the second begins, then both.

#include "cam_info.h"
#include "fuzz.h"
#include "identity_model.h"
#include "input.h"
#include "utils.h"

using kelo::fuzz::IdentityModel;
using kelo::fuzz::IdentityOfReply;
using kelo::fuzz::Input;
using kelo::fuzz::Require;
using kelo::fuzz::RequireEqual;

namespace {

CAM_INFO Identify(std::span<const uint8_t> reply, const IdentityModel& model) {
    const CAM_INFO info =
        CamInfoFromReply(kelo::CopyRecord<TDiscoveryReply>(reply.data(), reply.size()));
    RequireEqual(info.camera_ip, model.ip, "address");
    RequireEqual(info.camera_subnet, model.mask, "mask");
    RequireEqual(info.video_port, 0, "video port");
    RequireEqual(camhandleFromCamInfo(info), model.Handle(), "handle");
    return info;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const auto first = input.Bytes(input.U8());
    const auto second = input.Rest();
    const IdentityModel first_model = IdentityOfReply(first);
    const IdentityModel second_model = IdentityOfReply(second);
    const CAM_INFO first_info = Identify(first, first_model);
    const CAM_INFO second_info = Identify(second, second_model);
    Require(SameIdentity(first_info, second_info) == (first_model == second_model), "the same?");
    return 0;
}
