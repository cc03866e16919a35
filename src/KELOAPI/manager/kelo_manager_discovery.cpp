// Discovery of cameras, and assignment of their addresses.

#include <algorithm>
#include <iostream>

#include "NetworkInterfaces.h"
#include "SigpipeBlock.h"
#include "kelo_manager.h"
#include "kelo_protocol.h"
#include "utils.h"

namespace {

constexpr uint32_t kAnyAddress = 0;
constexpr uint32_t kBroadcastAddress = 0xFFFFFFFF;
constexpr size_t kCamerasMax = 1024;

const char* PluralEnding(size_t count) {
    return count == 1 ? "" : "s";
}

}  // namespace

uint32_t KELOManager::Discover(uint32_t /*max_count*/, uint32_t ms_delay) {
    kelo::Log("Discover\n");
    BroadcastDiscovery();
    ListenForReplies(ms_delay);

    // Closed and joined when both locks are released: a receive thread may be waiting for one.
    Sessions_t dropped;
    std::vector<TPacketCommunicator::Ptr> retired;
    std::vector<DiscoveryResponse> handled;
    size_t count = 0;
    {
        const std::lock_guard responses_lock(mutex_discovery_responses);
        const kelo::TScopedLock cameras_lock(CameraListMutex, "KELOManager::Discover");
        kelo::Log("Discover: Got %zd response%s.\n",
                  static_cast<ssize_t>(discovery_responses.size()),
                  PluralEnding(discovery_responses.size()));
        TakeVanished(dropped);
        AddNew();
        LogCameras();
        TakeIdleTransports(retired);
        handled.swap(discovery_responses);
        count = CameraMapList.size();
    }
    CloseSideBySide(dropped);
    return static_cast<uint32_t>(count);
}

void KELOManager::BroadcastDiscovery() {
    const uint16_t port = EnsureAnyAddressTransport();
    const TKeloCommandHeader command = MakeCommandHeader(VC_DISCOVER_COMMAND, 0);
    for (const auto& interface : GetNetworkInterfaceInfos(true)) {
        const auto transport = EnsureTransport(interface.addr, interface.netmask, port);
        if (transport == nullptr) continue;
        (void)transport->Send(kBroadcastAddress, CAMERA_CONTROL_PORT, &command, sizeof(command));
    }
}

// The delay is the whole listening window: there is no early end but the library's release.
void KELOManager::ListenForReplies(uint32_t ms_delay) {
    std::unique_lock lock(mutex_release);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms_delay);
    cv_release.wait_until(lock, deadline, [this] { return IsBeingDestructed.load(); });
}

std::shared_ptr<TPacketCommunicatorUDPSocket> KELOManager::OpenTransport(uint32_t ip, int port) {
    return std::make_shared<TPacketCommunicatorUDPSocket>(this, port, MAX_CONTROL_PACKET_SIZE, ip);
}

// Opens a transport that receives. Null when the system refuses a socket, the port or a thread: the
// interface is then left out of this discovery and tried again by the next one.
std::shared_ptr<TPacketCommunicatorUDPSocket> KELOManager::MakeTransport(uint32_t ip, int port) {
    auto transport = OpenTransport(ip, port);
    if (!transport->IsInitialized()) return nullptr;
    try {
        transport->StartRxThread();
    } catch (const std::exception&) {
        return nullptr;
    }
    const std::lock_guard lock(mutex_communicators);
    std::erase_if(all_transports, [](const auto& known) { return known.expired(); });
    all_transports.push_back(transport);
    return transport;
}

// Returns its port: every other transport binds the same one.
uint16_t KELOManager::EnsureAnyAddressTransport() {
    const auto transport = EnsureTransport(kAnyAddress, 0, 0);
    return transport != nullptr ? transport->GetSocketPort() : uint16_t{0};
}

TPacketCommunicator::Ptr KELOManager::EnsureTransport(uint32_t ip, uint32_t netmask,
                                                      uint16_t port) {
    if (auto existing = FindTransport(ip)) return existing;
    auto transport = MakeTransport(ip, port);
    if (transport == nullptr) return nullptr;
    const std::lock_guard lock(mutex_communicators);
    m_packetCommunicators[ip] = {transport, netmask};
    return transport;
}

TPacketCommunicator::Ptr KELOManager::FindTransport(uint32_t ip) {
    const std::lock_guard lock(mutex_communicators);
    const auto found = m_packetCommunicators.find(ip);
    return found == m_packetCommunicators.end() ? nullptr : found->second.first;
}

// Takes the cameras that did not answer, or not unchanged, out of the registry.
void KELOManager::TakeVanished(Sessions_t& dropped) {
    std::erase_if(CameraMapList, [&](const auto& entry) {
        const CAM_INFO& known = entry.second->Identity();
        const bool answered =
            std::any_of(discovery_responses.begin(), discovery_responses.end(),
                        [&](const auto& response) { return SameIdentity(response.first, known); });
        if (!answered) dropped.push_back(entry.second);
        return !answered;
    });
}

void KELOManager::AddNew() {
    for (const auto& [info, transport] : discovery_responses) {
        const CAM_HANDLE handle = camhandleFromCamInfo(info);
        if (CameraMapList.contains(handle) || CameraMapList.size() >= kCamerasMax) continue;
        try {
            // A reply that came when its transport had just been given up names none. A session
            // without one could do nothing for as long as its camera answers unchanged.
            auto usable = transport.first != nullptr ? transport.first : FindTransport(kAnyAddress);
            CameraMapList.emplace(
                handle, std::make_shared<KELOCamera>(this, handle, info, std::move(usable)));
        } catch (const std::exception& exception) {
            const kelo::SigpipeBlock output_may_be_gone;
            std::cerr << "Exception (CameraMapList insert):" << exception.what() << '\n';
        }
    }
}

void KELOManager::LogCameras() {
    kelo::Log("Discover: Detected %zd camera%s.\n", static_cast<ssize_t>(CameraMapList.size()),
              PluralEnding(CameraMapList.size()));
    int index = 0;
    for (const auto& [handle, camera] : CameraMapList) {
        const CAM_INFO& info = camera->Identity();
        const uint32_t ip = info.camera_ip;
        kelo::Log("Camera %d (handle 0x%08x): %.*s @ %d.%d.%d.%d\n", index++, handle,
                  static_cast<int>(sizeof(info.hardware_description)), info.hardware_description,
                  ip >> 24, (ip >> 16) & 0xFF, (ip >> 8) & 0xFF, ip & 0xFF);
    }
}

// Takes the transports of interfaces where no camera answered. Sessions keep theirs by holding it.
void KELOManager::TakeIdleTransports(std::vector<TPacketCommunicator::Ptr>& retired) {
    const std::lock_guard lock(mutex_communicators);
    std::erase_if(m_packetCommunicators, [&](const auto& entry) {
        const auto& transport = entry.second.first;
        const bool in_use =
            entry.first == kAnyAddress ||
            std::any_of(discovery_responses.begin(), discovery_responses.end(),
                        [&](const auto& response) { return response.second.first == transport; });
        if (!in_use) retired.push_back(transport);
        return !in_use;
    });
    retired.insert(retired.end(), parked_transports.begin(), parked_transports.end());
    parked_transports.clear();
}

bool KELOManager::SendSetIP(TPacketCommunicator& transport, const uint8_t mac[6],
                            uint32_t current_ip, uint32_t ip, uint32_t subnet) {
    TSetIPCommand command{};
    command.header = MakeCommandHeader(VC_SETIP_COMMAND, 0);
    std::copy_n(mac, sizeof(command.camera_mac), command.camera_mac);
    command.NL_camera_current_ip = kelo_htonl(current_ip);
    command.NL_camera_new_ip = kelo_htonl(ip);
    command.NL_camera_new_subnet = kelo_htonl(subnet);
    return transport.Send(kBroadcastAddress, CAMERA_CONTROL_PORT, &command, sizeof(command)) ==
           static_cast<ssize_t>(sizeof(command));
}

KELO_API_STATUS KELOManager::setCameraIP(CAM_HANDLE handle, uint32_t new_ip, uint32_t new_subnet) {
    const std::shared_ptr<KELOCamera> camera = FindHandle(handle);
    if (camera == nullptr) return KELO_STATUS_ERROR;
    // Outlives the lock: it may be the last holder of a session that was registered meanwhile.
    TCameraMapList::node_type erased;
    {
        const kelo::TScopedLock lock(CameraListMutex, "KELOManager::setCameraIP");
        erased = CameraMapList.extract(handle);
    }
    const CAM_INFO& info = camera->Identity();
    // An open session is closed while the camera still has the address that it talks to.
    if (camera->IsOpened()) camera->doClose(true);

    for (const auto& interface : GetNetworkInterfaceInfos(false)) {
        TPacketCommunicator::Ptr transport = FindTransport(interface.addr);
        if (transport == nullptr) transport = OpenTransport(interface.addr, 0);
        // The camera does not confirm; whether it heard shows at the next discovery.
        (void)SendSetIP(*transport, info.camera_mac, info.camera_ip, new_ip, new_subnet);
    }
    return KELO_STATUS_SUCCESS;
}
