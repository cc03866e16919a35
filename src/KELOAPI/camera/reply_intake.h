#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "TResponse.h"
#include "syncd_queue.h"

// Where a session's replies come in: the receive threads of the transports put them here, the
// requesting thread takes them out.
//
// It is an object of its own, shared with the manager, so that a receive thread never holds a
// session: a session whose last holder were a receive thread would be closed by it, and would wait
// for replies that only this very thread could deliver.
class ReplyIntake {
public:
    explicit ReplyIntake(uint32_t camera_ip) : camera_ip_(camera_ip) {}

    uint32_t CameraIp() const { return camera_ip_; }
    uint32_t LastMessageNumber() const { return last_message_number; }

    // ---- The receive threads' side ----

    // One datagram from the camera, at least a command header long. What it does not reach reads
    // as zero.
    void OnRcv(const void* data, size_t length);
    // Whether a request with that number is waiting for its answer.
    bool Awaits(uint32_t message_number) const;

    // ---- The requesting thread's side; one at a time ----

    // Throws away what older requests left behind and returns the number of a new one.
    uint32_t BeginRequest();
    void EndRequest() { awaiting = false; }
    // Throws away every reply that is queued.
    void ResetResponses();
    // Waits for a reply; false if none came. A negative time waits without limit.
    bool Get(int timeout_ms, TResponse& response, AbortFlag abort);

    // No answer can come any more: ends the wait that is going on, and every later one at once.
    void Abandon();
    bool IsAbandoned() const { return abandoned; }

private:
    static constexpr size_t kQueueSlots = 1024;

    void Queue(const TResponse& response);

    const uint32_t camera_ip_;
    std::atomic<uint32_t> last_message_number{1};
    std::atomic<bool> awaiting{false};
    std::atomic<bool> abandoned{false};
    // Makes "is this the number in flight" and the queueing one step, and the receive threads of
    // several transports one producer.
    std::mutex mutex_numbers;
    TSyncdQueue<TResponse> ResponseQueue{kQueueSlots};
};

// The intakes of every session that exists, also of those that have left the registry and are
// still being closed.
class SessionDirectory {
public:
    void Add(std::shared_ptr<ReplyIntake> intake);
    void Remove(const ReplyIntake* intake);
    // The one at that address which waits for that number; empty if none.
    std::shared_ptr<ReplyIntake> FindAwaiting(uint32_t camera_ip, uint32_t message_number);
    void AbandonAll();

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<ReplyIntake>> intakes_;  // guarded by mutex_
};
