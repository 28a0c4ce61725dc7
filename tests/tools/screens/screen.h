#pragma once

#include <AuthClient>
#include <AuthDevlockClient>

#include <QtCore/QByteArray>
#include <QtCore/QSocketNotifier>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <functional>
#include <memory>
#include <vector>

/**
 * A lock screen without a picture, and a right one. The other screens of the collection are as this one is, but for one
 * thing: what they do otherwise they do in the function that is there for it.
 */
class Screen
{
public:
    Screen();
    virtual ~Screen();
    Q_DISABLE_COPY(Screen)

    /** Runs the event loop; returns the exit status. */
    virtual int run();

protected:
    /** Makes the clients, and tells what the screen claims. */
    virtual void begin();

    /** The user has entered a code. */
    virtual void enter(const QString &code);
    /** Has the daemon judge a code, in place of one that it has not judged yet. */
    virtual void ask(const QString &code);
    /** The client tells of a token that has come or gone, and of the beginning or end of a request. */
    virtual void handleAuthenticated();
    virtual void handleProgress();
    virtual void handleDiscredit();
    /** The token for the code is there. */
    virtual void unlock();

    /** The follower has told another state, or has been made anew and knows none yet. */
    virtual void handleState(int state);
    /** A look has ended: what a second client says, Undefined if it said nothing in time. */
    virtual void handleLook(int state);
    /** Asks for the state by a second client. */
    virtual void look();

    void makeClient();
    /** Makes the follower anew: the state is Undefined until the new one has been told. */
    void askAnew();
    int state() const;
    AuthClient *client() const;

    void claim(bool isUnlocked);
    bool claimsUnlocked() const;
    /** Writes to the probe as it is. */
    void tell(const QByteArray &text);
    void listen(bool isListening);
    void after(int milliseconds, const std::function<void()> &action);
    /** For a constructor: SIGTERM does not end the process any more, but has the event loop do this. */
    void atSigterm(const std::function<void()> &action);

    /** In milliseconds. */
    struct Habits
    {
        int firstPause = 2000; ///< until the state is asked for anew while it is Undefined; doubles each time
        int longestPause = 30000;
        int lookPause = 30000; ///< between looks while the screen claims to be unlocked
        int lookPatience = 10000;
    };
    Habits habits;

private:
    void read();
    void follow();
    void change(int state);
    void endLook(int state);

    const int m_probe;
    QSocketNotifier m_notifier;
    QByteArray m_input;
    QObject m_context;
    std::unique_ptr<AuthClient> m_client;
    AuthDevlockClient *m_follower = nullptr; ///< belongs to the context
    AuthDevlockClient *m_witness = nullptr;  ///< the same
    int m_state = AuthDevlockClient::Undefined;
    bool m_claimsUnlocked = false;
    int m_pause = 0;
    QTimer m_retry;
    QTimer m_look;
    QTimer m_verdict;
    std::unique_ptr<QSocketNotifier> m_sigterm;
};

/** A screen of the collection. */
struct Entry
{
    QByteArray name;
    QByteArray days; ///< those that find a wrong screen, with commas between; empty for a right one
    QByteArray rule; ///< the rule by which they do
    std::unique_ptr<Screen> (*make)();
};

/** All of them, by name. */
std::vector<Entry> &collection();

template <typename T> std::unique_ptr<Screen> makeScreen()
{
    return std::make_unique<T>();
}

/** Enters a wrong screen in the collection. */
template <typename T> struct Wrong
{
    Wrong(const char *name, const char *days, const char *rule)
    {
        collection().push_back({name, days, rule, makeScreen<T>});
    }
};

/** Enters a right screen in the collection. */
template <typename T> struct Right
{
    explicit Right(const char *name)
    {
        collection().push_back({name, {}, {}, makeScreen<T>});
    }
};
