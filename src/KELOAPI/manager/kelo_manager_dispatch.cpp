// What comes in on the control transports, and the thread that calls close callbacks.

#include <algorithm>
#include <exception>

#include "ScopedFlag.h"
#include "kelo_manager.h"
#include "kelo_protocol.h"
#include "utils.h"

namespace {

constexpr int kCallbackWaitMs = 200;
constexpr int kCallbackQueueFullPauseMs = 1;
// Far above what a network of cameras gives; keeps a stranger from filling the memory between two
// discoveries with replies from made-up addresses.
constexpr size_t kDiscoveryResponsesMax = 4096;

}  // namespace

void KELOManager::OnRcv(TPacketCommunicator* from, uint32_t source_ip, const void* data, int length,
                        unsigned short /*source_port*/) {
    if (length <= static_cast<int>(sizeof(TKeloCommandHeader))) return;
    const auto size = static_cast<size_t>(length);
    const auto header = kelo::CopyRecord<TKeloCommandHeader>(data, size);
    if (header.magic_number == CONTROL_MAGIC &&
        kelo_ntohl(header.NL_command_id) == VC_DISCOVER_REPLY) {
        OnDiscoveryReply(from, data, size);
        return;
    }
    const auto registered = FindIntake(source_ip);
    const uint32_t number = kelo_ntohl(header.NL_message_number);
    if (registered == nullptr || !registered->Awaits(number)) {
        // A session that has left the registry still needs the answers that let it close.
        if (const auto leaving = sessions->FindAwaiting(source_ip, number)) {
            leaving->OnRcv(data, size);
            return;
        }
    }
    if (registered == nullptr) {
        kelo::Log("KELOManager::OnRcv: unknown response.\n");
        return;
    }
    registered->OnRcv(data, size);
}

std::shared_ptr<ReplyIntake> KELOManager::FindIntake(uint32_t camera_ip) {
    const kelo::TScopedLock lock(CameraListMutex, "KELOManager::FindIntake");
    for (const auto& [handle, camera] : CameraMapList) {
        if (camera->GetIP() == camera_ip) return camera->Intake();
    }
    return nullptr;
}

KELOManager::Transport KELOManager::TransportOf(const TPacketCommunicator* from) {
    const std::lock_guard lock(mutex_communicators);
    for (const auto& [ip, transport] : m_packetCommunicators) {
        if (transport.first.get() == from) return transport;
    }
    return {nullptr, 0};
}

// Keeps one reply per camera address: the one that came over the interface on the camera's own
// subnet, or else the first.
void KELOManager::OnDiscoveryReply(const TPacketCommunicator* from, const void* data,
                                   size_t length) {
    Transport transport = TransportOf(from);
    const CAM_INFO info = CamInfoFromReply(kelo::CopyRecord<TDiscoveryReply>(data, length));

    const std::lock_guard lock(mutex_discovery_responses);
    const auto known =
        std::find_if(discovery_responses.begin(), discovery_responses.end(),
                     [&](const auto& entry) { return entry.first.camera_ip == info.camera_ip; });
    if (known == discovery_responses.end()) {
        // What a stranger sends before it must not make a camera that is known a vanished one.
        if (discovery_responses.size() < kDiscoveryResponsesMax ||
            FindIntake(info.camera_ip) != nullptr) {
            discovery_responses.emplace_back(info, std::move(transport));
        } else {
            Park(std::move(transport.first));
        }
        return;
    }
    const uint32_t netmask = transport.second;
    const bool on_its_subnet =
        netmask != 0 && ((transport.first->GetSocketIp() ^ info.camera_ip) & netmask) == 0;
    if (on_its_subnet) {
        known->first = info;
        std::swap(known->second, transport);
    }
    Park(std::move(transport.first));
}

// This runs on a receive thread, which must not drop the last reference to a transport: it would
// join itself, or a thread that waits for the lock held here.
void KELOManager::Park(TPacketCommunicator::Ptr transport) {
    if (transport == nullptr) return;
    const bool parked = std::find(parked_transports.begin(), parked_transports.end(), transport) !=
                        parked_transports.end();
    if (!parked) parked_transports.push_back(std::move(transport));
}

void KELOManager::AddCallbackRequest(CAM_HANDLE handle, keloCameraCloseEvent* function) {
    const std::lock_guard lock(mutex_callback_producers);
    // Looks again now and then instead of waiting for room: the thread that makes it may be told to
    // stop, and then nobody would.
    while (!CallbackRequests.TryPut({handle, function})) {
        if (CallbackRequestsThreadShouldBeStopped) return;
        if (IsCallbackThread()) {
            // A callback's own call has more cameras to report than there is room for. It would
            // wait for itself.
            kelo::Log("Close of camera 0x%08x not reported: too many reports wait.\n", handle);
            return;
        }
        kelo::Sleep(kCallbackQueueFullPauseMs);
    }
}

void KELOManager::ProcessCallbackRequests() {
    kelo::NameThisThread("kelo-callback");
    while (!CallbackRequestsThreadShouldBeStopped) {
        TCallbackRequest request;
        if (!CallbackRequests.Get(kCallbackWaitMs, request)) continue;
        if (request.Function == nullptr) continue;
        try {
            const ScopedFlag calling(in_callback);
            (void)request.Function(request.CamHandle);
        } catch (const std::exception& exception) {
            // The application's own; this thread has other callbacks to call.
            kelo::Log("Close callback left by an exception: %s\n", exception.what());
        }
        kelo::Log("Returned from the callback\n");
    }
}
