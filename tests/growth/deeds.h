#pragma once

#include "host-test-case.h"

#include <AuthSettings>
#include <FactorSettingsBase>

#include <functional>

class Doer;

/** Something that hosts do over and over. */
struct Deed
{
    const char *name;
    int usually; ///< So often at every run,
    int inAll;   ///< and so often where AUTH_GROWTH_ALL is set.
    int atOnce;  ///< So often before the event loop turns and all has to be done.
    std::function<void(Doer *)> prepare;
    /** Does it once, the given number counting the times; done() is called once for that, now or later. */
    std::function<void(Doer *, int)> act;
    /** By so many bytes the memory in use may differ from one mark to the next. */
    qint64 slack;
};

// The thread of Qt D-Bus may be about to free the last message or two, and buffers of libdbus keep the length of their
// longest one.
constexpr qint64 ByteSlack = 4096;

const QVector<Deed> &deeds();

/** A factor that the daemon knows, with its notices counted. */
class Factor : public FactorSettingsBase
{
public:
    explicit Factor(std::function<void()> heard);

private:
    void handleOptionChanged(uint uid, const QString &name, const QVariant &value) override;

    const std::function<void()> m_heard;
};

/** The test, as its deeds see it: the objects that they use, and what has been done. */
class Doer : public HostTestCase
{
    Q_OBJECT

public:
    enum End {
        ByItself,
        ToldToQuit,
        BySignal,
        WithoutItsSocket, ///< The daemon goes, and comes back without its socket.
    };

    void done(int times = 1)
    {
        m_done += times;
    }
    template <typename Object, typename Emission> void countDone(Object *object, Emission emission)
    {
        connect(object, emission, this, [this] { done(); });
    }
    void makeClient();
    /** A client of user 1000 that may write. */
    void makeSettings();
    void makeDevlock();
    /** An object of a factor and one of a user, above a singleton that may write. */
    void makeFactorAndUser();
    void logIn(AuthClient *who);
    void awaitPeers(int count);
    void runHost(const char *program, const char *arguments, End end = ByItself, const QString &critical = QString(),
                 Bus bus = WithBus);

    using HostTestCase::daemon;
    using HostTestCase::holdCalls;
    using HostTestCase::WithBus;
    using HostTestCase::WithoutBus;
    std::unique_ptr<AuthClient> client;
    std::unique_ptr<AuthSettingsClient> settings;
    std::unique_ptr<AuthDevlockClient> devlock;
    std::unique_ptr<Factor> factor;
    std::unique_ptr<AuthSettings> user;
    /** Requests that are made together, before the event loop turns. */
    QVector<QByteArray> requests;
    /** Each warning is something done. */
    bool warningsAreAwaited = false;

protected:
    void letGo();

    int m_done = 0;
};
