#pragma once

#include "instance.h"
#include "misbehaviour.h"
#include "scenario.h"
#include "world.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/** One line of a call log. */
struct LoggedCall
{
    int64_t n;
    int instance;
    Bus bus;
    int peer;           ///< 0 on the system bus
    std::string sender; ///< empty on a peer connection
    std::string path;
    std::string interface;
    std::string method;
    std::string signature;
    std::string arguments;
};

/** The calls that have arrived, numbered through the program's life. */
struct CallLog
{
    std::vector<LoggedCall> calls;
    int64_t next = 0;
};

/** The daemon through all of its instances: takes calls, answers them by the book or by the rules, and logs them. */
class Service
{
public:
    explicit Service(const Scenario &scenario);
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    /** The following throw std::runtime_error when they cannot do what they say. */
    void start(bool withSocket, bool withName);
    void stop();
    void handover(bool keepOld);
    void dropOld();
    void ownName();
    void releaseName();
    void setAccept(Accept accept);
    /** Drops the connection @p peer of any instance, or those of the present instance. */
    void dropPeers(std::optional<int> peer);
    /** Sends on one connection, or on each of @p instance, or of the present one. */
    void emitSignal(Bus bus, const std::string &path, const std::string &interface, const std::string &signal,
                    const Variant &arguments, std::optional<int> peer, std::optional<int> instance);
    /** Takes up the held calls in the order of their arrival. */
    void release();
    /** Returns when what was sent has left. */
    void flush();

    /** The present instance; nullptr when the daemon is stopped. */
    const Instance *current() const
    {
        return m_current.get();
    }
    int instanceNumber() const
    {
        return m_lastInstance;
    }
    World &world()
    {
        return m_world;
    }
    MisbehaviourRules &rules()
    {
        return m_rules;
    }
    const CallLog &calls() const
    {
        return m_calls;
    }
    const CallLog &standardCalls() const
    {
        return m_standardCalls;
    }
    void clearCalls();

    /** Called after each call of the daemon's own that was logged. */
    void setCallHandler(std::function<void()> handler)
    {
        m_onCall = std::move(handler);
    }

private:
    /** A call, with the instance that it came to: it is still there, or the call needs no answer any more. */
    struct Call
    {
        std::weak_ptr<Instance> instance;
        int peer;
        Message message;
    };
    enum class Order {
        ReplyFirst,
        SignalsFirst,
        SignalsOnly,
        ReplyOnly,
    };

    std::shared_ptr<Instance> newInstance();
    std::shared_ptr<Instance> findInstance(int number) const;
    void end(const std::shared_ptr<Instance> &instance);

    void handleMessage(Instance &instance, int peer, const Message &message);
    void logCall(const Instance &instance, int peer, GDBusMessage *message);
    void misbehave(const Call &call, const Misbehaviour &misbehaviour);
    void treat(const Call &call, Order order = Order::ReplyFirst);
    Outcome outcomeOf(const Call &call);
    Outcome standardOutcomeOf(Bus bus, GDBusMessage *message) const;
    void reply(const Call &call, const Outcome &outcome);
    void sendSignals(const Signals &signals, const std::shared_ptr<Instance> &instance, int caller);

    World m_world;
    MisbehaviourRules m_rules;
    Accept m_accept = Accept::Normal;
    int m_lastInstance = 0;
    std::shared_ptr<Instance> m_current;
    std::vector<std::shared_ptr<Instance>> m_old; ///< replaced instances whose connections are kept
    std::vector<Call> m_held;
    CallLog m_calls;
    CallLog m_standardCalls;
    std::function<void()> m_onCall;
};
