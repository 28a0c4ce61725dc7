#pragma once

#include "json.h"
#include "service.h"
#include "stream.h"

#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <string>

/** The socket over which tests and people steer the stand-in: JSON objects, one a line, each answered by one. */
class Control
{
public:
    /** @p quit is called when the stand-in is asked to end. Throws std::runtime_error when it cannot listen. */
    Control(const std::string &path, Service &service, std::function<void()> quit);
    ~Control();
    Control(const Control &) = delete;
    Control &operator=(const Control &) = delete;

private:
    /** What a client waits for that has asked for calls to come. */
    struct Wait
    {
        std::string method;
        int64_t count;
        int64_t since;
        guint timer;
    };
    struct Client
    {
        std::shared_ptr<Stream> stream;
        std::deque<std::string> requests;
        std::optional<Wait> wait;
        bool ended = false; ///< asks no more, but may wait for answers
    };
    using Handler = void (Control::*)(JsonMembers &members, JsonObject *answer);

    OptionOwner readOwner(JsonMembers &members);
    std::pair<OptionOwner, std::string> readOptionName(JsonMembers &members);

    void accept(int fd);
    void remove(Client &client);
    void serve(Client &client);
    void request(Client &client, const std::string &line);
    void answer(Client &client, JsonObject *answer);
    void answerError(Client &client, const std::string &message);

    void startWaiting(Client &client, JsonMembers &members);
    bool answerWait(Client &client);
    void handleCalls();

    void ping(JsonMembers &members, JsonObject *answer);
    void state(JsonMembers &members, JsonObject *answer);
    void calls(JsonMembers &members, JsonObject *answer);
    void standardCalls(JsonMembers &members, JsonObject *answer);
    void clearCalls(JsonMembers &members, JsonObject *answer);
    void misbehave(JsonMembers &members, JsonObject *answer);
    void behave(JsonMembers &members, JsonObject *answer);
    void release(JsonMembers &members, JsonObject *answer);
    void emitSignal(JsonMembers &members, JsonObject *answer);
    void setLock(JsonMembers &members, JsonObject *answer);
    void lockout(JsonMembers &members, JsonObject *answer);
    void options(JsonMembers &members, JsonObject *answer);
    void setOption(JsonMembers &members, JsonObject *answer);
    void removeOption(JsonMembers &members, JsonObject *answer);
    void resetOptions(JsonMembers &members, JsonObject *answer);
    void resetSecrets(JsonMembers &members, JsonObject *answer);
    void stop(JsonMembers &members, JsonObject *answer);
    void start(JsonMembers &members, JsonObject *answer);
    void restart(JsonMembers &members, JsonObject *answer);
    void handover(JsonMembers &members, JsonObject *answer);
    void dropOld(JsonMembers &members, JsonObject *answer);
    void releaseName(JsonMembers &members, JsonObject *answer);
    void ownName(JsonMembers &members, JsonObject *answer);
    void dropPeers(JsonMembers &members, JsonObject *answer);
    void accept(JsonMembers &members, JsonObject *answer);
    void quit(JsonMembers &members, JsonObject *answer);

    Service &m_service;
    std::function<void()> m_quit;
    std::list<Client> m_clients;
    std::string m_path;
    Listener m_listener;
};
