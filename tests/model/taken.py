"""What the model tests take over: each file's code as it is, and with faults that must be found.

name of the result: (source, functions or none for all of it, text to replace, replacement)
"""

QUEUE = "common/BlockingQueue.h"
GATE = "src/KELOAPI/base/AccessGate.h"
TIMER = "src/KELOAPI/base/Timer.cpp"
IMAGES = "src/KELOAPI/stream/FinishedImageQueue.cpp"
SESSION = "src/KELOAPI/camera/kelo_camera_session.cpp"
HEARTBEAT = ["KELOCamera::~KELOCamera", "KELOCamera::HeartbeatThreadFunc"]
TRANSPORT = "src/KELOAPI/net/TPacketCommunicatorUDPSocket.cpp"
THREAD = ["TPacketCommunicatorUDPSocket::" + name
          for name in ("StartRxThread", "StopRxThread", "BeginRetire", "Retire", "RestartSocket",
                       "Send", "RxThreadFunc", "HandleReceiveError")]

TAKEN = {
    "queue": (QUEUE, None, None, None),
    "queue_push_unlocked": (QUEUE, None, "std::lock_guard lock(mutex_write_head);", ""),
    "queue_pop_unlocked": (QUEUE, None, "std::lock_guard lock(mutex_read_head);", ""),
    "queue_waits_under_the_wrong_lock": (
        QUEUE, None,
        "std::unique_lock lock(mutex_write_head);\n            if",
        "std::unique_lock lock(mutex_read_head);\n            if"),
    "queue_early_head": (
        QUEUE, None,
        """storage[write_head] = item;
        {
            std::lock_guard lock(mutex_write_head);
            write_head = next;
        }""",
        """const uint64_t here = write_head;
        {
            std::lock_guard lock(mutex_write_head);
            write_head = next;
        }
        storage[here] = item;"""),
    "queue_without_signal": (QUEUE, None, "cv_popped.notify_one();", ""),
    "queue_without_free_slot": (QUEUE, None, "if (next == read_head) return false;", ""),

    "timer_class": ("src/KELOAPI/base/Timer.h", None, None, None),
    "timer": (TIMER, None, None, None),
    "timer_stops_unlocked": (TIMER, None, "const std::lock_guard lock(mutex);", ""),
    "timer_without_signal": (TIMER, None, "terminate.notify_one();", ""),

    "gate": (GATE, None, None, None),
    "gate_does_not_wait": (GATE, None, "left_.wait(lock, [this] { return inside_ == 0; });", ""),
    "gate_without_signal": (GATE, None, "if (--inside_ == 0) left_.notify_all();", "--inside_;"),

    "images_class": ("src/KELOAPI/stream/FinishedImageQueue.h", None, None, None),
    "images": (IMAGES, None, None, None),
    "images_end_unlocked": (
        IMAGES, None,
        "const std::lock_guard lock(finished_buffers_mutex);\n        waits_ended = true;",
        "waits_ended = true;"),
    "images_forget_the_end": (
        IMAGES, None, "return wake_getimage || waits_ended;", "return wake_getimage.load();"),
    "images_go_at_once": (
        IMAGES, None, "{ const std::lock_guard leaving(get_image_mutex); }", ""),
    "images_wake_nobody": (
        IMAGES, None,
        "        wake_getimage = true;\n    } catch", "    } catch"),
    "images_wake_who_is_up": (
        IMAGES, None, "in_wait = false;", ""),
    "images_come_when_announced": (
        IMAGES, None, "if (woken()) break;", "break;"),
    "images_watched_for_are_forgotten": (
        IMAGES, None, "lock.lock();", "lock.lock();\n        wake_getimage = false;"),

    "heartbeat": (SESSION, HEARTBEAT, None, None),
    "heartbeat_stops_unlocked": (
        SESSION, HEARTBEAT, "const std::lock_guard lock(mutex_heartbeat_stop);", ""),
    "heartbeat_without_signal": (SESSION, HEARTBEAT, "cv_heartbeat_stop.notify_one();", ""),

    "transport": (TRANSPORT, THREAD, None, None),
    "transport_starts_when_retired": (TRANSPORT, THREAD, "if (retired) return;", ""),
    "transport_joins_holding_send": (
        TRANSPORT, THREAD,
        """    StopRxThread();
    {
        const std::lock_guard send_lock(mutex_send);
""",
        """    {
        const std::lock_guard send_lock(mutex_send);
        StopRxThread();
"""),
    "transport_without_flag": (
        TRANSPORT, THREAD,
        "if (!RxThread.joinable()) return;\n    RxThreadStopWanted = true;",
        "if (!RxThread.joinable()) return;"),
}
