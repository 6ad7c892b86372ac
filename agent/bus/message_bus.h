#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "agent/bus/component_ids.h"
#include "qxhost/bus.h"

namespace qxpagent {

/// How an operation of the bus, or the delivery of a message, ended.
enum BusStatus : int {
    kBusOk = 0,
    kBusUndelivered,     // nobody takes this type at the target
    kBusTimedOut,        // not delivered, or not answered, in time
    kBusReceiverFailed,  // the receiver's sink threw, or a direct receiver refused
    kBusShutDown,        // the bus is ending
    kBusQueueFull,       // BusLimits
    kBusBadArgument,
    kBusNotAttached,    // the component or endpoint is not on the bus
    kBusNameTaken,      // a component of this name is attached already
    kBusTypeTaken,      // this type is registered already; unregister it first
    kBusNotRegistered,  // this type is not registered
    kBusStaleToken,     // a reply token that is used up, given up, another component's, or none at all
};

struct BusLimits {
    size_t delivery_threads = 4;
    size_t queued_messages = 4096;
    size_t queued_bytes = size_t{256} << 20;
};

/// What a receiver replied.
struct BusAnswer {
    int status = 0;
    std::string bytes;
};

/// Who is told that a posted message has ended, and with what. The sink must outlive the message.
struct BusCompletion {
    IMRSendComplete* sink = nullptr;
    void* context = nullptr;
    unsigned long number = 0;
};

/// Called with posted messages on the thread that posts them, several at once; true when it has taken one for good.
using DirectReceiver = std::function<bool(std::string_view body)>;

/// The message bus of this process: components attach by name, register for message types and send to each other.
///
/// Messages wait in one bounded queue and are delivered in its order by a small pool of threads, so deliveries overlap,
/// also those of one type. A sink may call anything but Shutdown; one that waits (a Request, a slow handler) occupies
/// one thread of the pool meanwhile. A sink that throws is logged and costs nothing but its message.
///
/// Every function may be called from any thread, except Shutdown and the destructor, which belong to the owner.
class MessageBus {
public:
    /// Starts the threads. Throws std::system_error when the system has none to give.
    explicit MessageBus(const BusLimits& limits = {});
    ~MessageBus();
    MessageBus(const MessageBus&) = delete;
    MessageBus& operator=(const MessageBus&) = delete;

    /// Makes the name the caller's. As all that follows, returns a BusStatus.
    int Attach(const GUID& component);

    /// Ends every registration of the component as Unregister does, and frees its name.
    int Detach(const GUID& component);

    /// Messages of this type to this component go to `sink` from now on. Refused while the type has a sink.
    int Register(const GUID& component, long type, IMRReceiveComplete* sink, void* context);

    /// Posted messages of this type to this component are given to `receiver` within Post from now on, so that a sender
    /// whose Post has succeeded knows that they are safe. Requests are not taken. Ended by Unregister and Detach.
    int RegisterDirect(const GUID& component, long type, DirectReceiver receiver);

    /// Ends that. Returns only when no delivery of this type to this component is in flight, also when nothing was
    /// registered: the caller may then destroy the sink. Called from within such a delivery it does not wait for that
    /// one, nor for others that are themselves in this function.
    int Unregister(const GUID& component, long type);

    /// Sends and waits for the answer, `timeout` in all. A message that was not delivered by then never will be, and a
    /// later reply is refused. `answer` is set on success only.
    int Request(const GUID& sender, const GUID& target, long type, std::string body, std::chrono::milliseconds timeout,
                BusAnswer& answer);

    /// Queues a message. kBusOk: the completion's sink (if any) is called exactly once, on a thread of the bus, with
    /// the outcome and, when the receiver replied before its callback returned, the answer. Anything else: the message
    /// was not queued and the sink is not called. A receiver gets a reply token only when there is a sink to tell.
    /// With a direct receiver this takes as long as the receiver does, and kBusOk means that it has taken the message.
    int Post(const GUID& sender, const GUID& target, long type, std::string_view body, const BusCompletion& completion,
             std::chrono::milliseconds timeout);

    /// Answers a message that `receiver` got with this token. The token of a Request is good until its time-out, that
    /// of a posted message until the callback returns.
    int Reply(const GUID& receiver, void* token, BusAnswer answer);

    /// Refuses new messages, delivers what is queued, ends requests that nobody has answered, joins the threads. Not
    /// from a bus thread; a second call does nothing.
    void Shutdown();

private:
    using Clock = std::chrono::steady_clock;

    // Where the answer to one message goes. Guarded by mutex_.
    struct Exchange {
        GUID receiver{};
        uint64_t token = 0;  // the receiver's from the delivery on
        bool done = false;
        int outcome = kBusOk;
        BusAnswer answer;
        std::condition_variable changed;
    };

    struct Message {
        GUID sender{};
        GUID target{};
        long type = 0;
        std::string body;
        Clock::time_point deadline;
        BusCompletion completion;
        std::shared_ptr<Exchange> exchange;  // null: no answer is expected
        bool taken = false;                  // by a direct receiver: only the completion is left
    };

    // Who takes a message type: a sink or a direct receiver. Neither: it is not registered.
    struct Receiver {
        IMRReceiveComplete* sink = nullptr;
        void* context = nullptr;  // the sink's
        std::shared_ptr<const DirectReceiver> direct;

        bool IsSet() const { return sink != nullptr || direct != nullptr; }
    };
    // One message type of one component. Guarded by mutex_.
    struct Channel {
        Receiver receiver;
        int in_flight = 0;
        int leaving = 0;  // of those in flight, how many have called Unregister or Detach from within
    };
    // Kept after Detach: deliveries may still be in flight then.
    struct Component {
        bool attached = false;
        std::map<long, Channel> channels;
    };

    // The delivery that the current thread is in.
    struct Delivery {
        Channel* channel;
        bool leaving;
    };
    static thread_local Delivery* current_delivery;

    Component* FindAttached(const GUID& component);
    Channel* FindChannel(const GUID& target, long type);  // null when nobody takes the type
    int AddReceiver(const GUID& component, long type, Receiver receiver);
    int Enqueue(Message message);
    int AdmissionStatus(const GUID& sender, size_t bytes);
    int GiveDirectly(Message message, std::string_view body, Channel& channel, std::unique_lock<std::mutex>& lock);
    template <typename Call>
    bool CallReceiver(Channel& channel, long type, std::unique_lock<std::mutex>& lock, const Call& call);
    void DeliverLoop();
    void ExpireLoop();
    int Deliver(const Message& message, std::unique_lock<std::mutex>& lock);
    void Finish(Message& message, int outcome, std::unique_lock<std::mutex>& lock);
    void WaitUntilIdle(Channel& channel, std::unique_lock<std::mutex>& lock);

    // Constant after construction.
    const BusLimits limits_;
    std::vector<std::thread> delivery_threads_;
    std::thread expiry_thread_;

    std::mutex mutex_;
    std::condition_variable work_;     // a message was queued, or stopping_
    std::condition_variable expiry_;   // an earlier deadline than armed_ was queued, or expiry_stopping_
    std::condition_variable settled_;  // a delivery or a request has ended, or is leaving

    // Guarded by mutex_.
    std::map<GUID, Component, GuidLess> components_;
    std::list<Message> queue_;
    size_t queued_bytes_ = 0;
    size_t reserved_ = 0;  // places in the queue, for completions of messages that a direct receiver is taking
    std::unordered_map<uint64_t, std::shared_ptr<Exchange>> exchanges_;  // by token: delivered, not answered yet
    uint64_t last_token_ = 0;                                            // a counter, so that no token comes twice
    Clock::time_point armed_ = Clock::time_point::max();  // when expiry_thread_ will next look at the queue
    int requests_waiting_ = 0;
    bool stopping_ = false;
    bool expiry_stopping_ = false;
};

}  // namespace qxpagent
