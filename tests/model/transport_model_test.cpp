// The receive thread of a transport is started, stopped, restarted and retired: every order of
// steps.

#include <cerrno>
#include <span>
#include <stdexcept>

#include "model.h"
#include "utils.h"

// The functions of the transport that deal with its thread, and what they use otherwise.
#define KELO_MODEL_TRANSPORT                                                                  \
    constexpr int kReceiveWaitMs = 100;                                                       \
    constexpr int kErrorPauseMs = 1;                                                          \
    constexpr size_t kBulkMessages = 32;                                                      \
    constexpr uint32_t kBroadcast = 0xFFFFFFFF;                                               \
    class TPacketCommunicatorUDPSocket {                                                      \
    public:                                                                                   \
        explicit TPacketCommunicatorUDPSocket(Stage& stage) : stage_(stage) { OpenSocket(); } \
        ~TPacketCommunicatorUDPSocket() { StopRxThread(); }                                   \
        void StartRxThread();                                                                 \
        void StopRxThread();                                                                  \
        void BeginRetire();                                                                   \
        void Retire();                                                                        \
        void RestartSocket();                                                                 \
        ssize_t Send(uint32_t ip, int port, const void* data, int length);                    \
                                                                                              \
    private:                                                                                  \
        void RxThreadFunc(DatagramBatch& batch);                                              \
        void HandleReceiveError(int error);                                                   \
        void OpenSocket() { Socket = std::make_unique<UDPSocket>(stage_); }                   \
        bool InBulk() const { return false; }                                                 \
        TOutlook Deliver(int) {                                                               \
            Require(!stage_.retired, "a datagram behind the retirement");                     \
            if (stage_.answers) Send(1, 1, "", 0);                                            \
            return {};                                                                        \
        }                                                                                     \
        Stage& stage_;                                                                        \
        const int MaxPacketSize = 16;                                                         \
        const int granted_buffer_bytes = 16;                                                  \
        bool merging = false;                                                                 \
        enum { UDPST_OK, UDPST_ERROR } UDPStatus = UDPST_OK;                                  \
        RecursiveMutex mutex_thread;                                                          \
        Thread RxThread;                                                                      \
        Atomic<bool> RxThreadStopWanted{false};                                               \
        Atomic<bool> retired{false};                                                          \
        Atomic<bool> ReadyToReceive{false};                                                   \
        Mutex mutex_send;                                                                     \
        std::unique_ptr<UDPSocket> Socket;                                                    \
    };

namespace kelo::model {
namespace {

// What a scenario decides and sees.
struct Stage {
    int datagrams = 1;      // that will come
    int failing_sends = 0;  // the next so many
    bool answers = false;   // the receiver sends from within OnRcv
    bool retired = false;
    int receiving = 0;  // threads
};

class UDPSocket {
public:
    explicit UDPSocket(Stage& stage) : stage_(stage) {}
    void setReceiveTimeout(int) {}
    int getNativeHandle() const { return 0; }
    Stage& stage() const { return stage_; }
    ssize_t sendto(const void*, size_t, uint32_t, uint16_t) const {
        Scheduler::Point();
        if (stage_.failing_sends > 0) {
            --stage_.failing_sends;
            throw std::runtime_error("the socket failed");
        }
        return 0;
    }
    ssize_t sendBroadcast(const void*, size_t, uint16_t) const { return 0; }

private:
    Stage& stage_;
};

Stage* stage_of_batches = nullptr;

// Lives as long as the thread that receives with it.
class DatagramBatch {
public:
    DatagramBatch(size_t, size_t, bool) {}
    int Receive(int) const {
        Stage& stage = *stage_of_batches;
        Require(++stage.receiving == 1, "two threads receive");
        int result = 1;
        if (stage.datagrams > 0) {
            --stage.datagrams;
            Scheduler::Point();
        } else {
            // The system's wait for datagrams; only time ends it.
            Scheduler::Block(true);
            errno = EAGAIN;
            result = -1;
        }
        --stage.receiving;
        return result;
    }
    struct None {
        size_t size() const { return 0; }
        operator int() const { return 0; }
    };
    static None Datagrams() { return {}; }
    static size_t Bytes() { return 0; }
    static bool IsFull() { return false; }
};

struct TOutlook {
    bool wakes = false;
};
struct CoreOffer {
    static void Make() {}
};
struct ReceptionPause {
    using Clock = model::Clock;
    explicit ReceptionPause(size_t) {}
    static std::chrono::microseconds After(Clock::time_point, size_t, size_t, TOutlook, bool) {
        return {};
    }
};

}  // namespace

namespace transport {
KELO_MODEL_TRANSPORT
#include "transport.inc"
}  // namespace transport
namespace transport_starts_when_retired {
KELO_MODEL_TRANSPORT
#include "transport_starts_when_retired.inc"
}  // namespace transport_starts_when_retired
namespace transport_joins_holding_send {
KELO_MODEL_TRANSPORT
#include "transport_joins_holding_send.inc"
}  // namespace transport_joins_holding_send
namespace transport_without_flag {
KELO_MODEL_TRANSPORT
#include "transport_without_flag.inc"
}  // namespace transport_without_flag

namespace {

constexpr Bounds kBounds{.preemptions = 3, .timeouts = 1};

template <typename Transport>
void StartAndStop() {
    Stage stage{.answers = true};
    stage_of_batches = &stage;
    Transport transport(stage);
    transport.StartRxThread();
    transport.StopRxThread();
    stage.retired = true;
    Scheduler::Point();
    Require(stage.receiving == 0, "a thread receives behind the stop");
}

// One thread's send fails, so that it opens the socket anew, while another one retires the
// transport.
template <typename Transport>
void RestartAndRetire() {
    Stage stage{.failing_sends = 1};
    stage_of_batches = &stage;
    Transport transport(stage);
    transport.StartRxThread();
    Thread sender([&] { transport.Send(1, 1, "", 0); });
    transport.BeginRetire();
    transport.Retire();
    stage.retired = true;
    Require(stage.receiving == 0, "a thread receives behind the retirement");
    sender.join();
    Scheduler::LetOthersRun();
    Require(stage.receiving == 0, "a restart brings a retired transport back");
}

// A send fails while the receiver answers a datagram.
template <typename Transport>
void RestartUnderAnAnswer() {
    Stage stage{.datagrams = 1, .failing_sends = 0, .answers = true};
    stage_of_batches = &stage;
    Transport transport(stage);
    transport.StartRxThread();
    Thread restarter([&] { transport.RestartSocket(); });
    restarter.join();
    transport.StopRxThread();
    Require(stage.receiving == 0, "a thread receives behind the stop");
}

TEST(TransportModel, TheReceiveThreadEndsWhenItIsToldTo) {
    ExpectToHold(kBounds, StartAndStop<transport::TPacketCommunicatorUDPSocket>);
}

TEST(TransportModel, NoRestartBringsARetiredTransportBack) {
    ExpectToHold(kBounds, RestartAndRetire<transport::TPacketCommunicatorUDPSocket>);
}

TEST(TransportModel, ARestartWaitsForAnAnswerThatIsBeingSent) {
    ExpectToHold(kBounds, RestartUnderAnAnswer<transport::TPacketCommunicatorUDPSocket>);
}

TEST(TransportModelFindsThat, TheStopIsNotWanted) {
    ExpectToFail(kBounds, StartAndStop<transport_without_flag::TPacketCommunicatorUDPSocket>,
                 "no end in sight");
}

TEST(TransportModelFindsThat, ARestartBringsARetiredTransportBack) {
    ExpectToFail(kBounds,
                 RestartAndRetire<transport_starts_when_retired::TPacketCommunicatorUDPSocket>,
                 "retire");
}

TEST(TransportModelFindsThat, TheThreadIsJoinedUnderTheLockThatItNeeds) {
    ExpectToFail(kBounds,
                 RestartUnderAnAnswer<transport_joins_holding_send::TPacketCommunicatorUDPSocket>,
                 "a deadlock");
}

}  // namespace
}  // namespace kelo::model
