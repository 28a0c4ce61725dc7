#include "auth-stand-in.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <cerrno>
#include <climits>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

enum class EventLoop {
    Stands,
    Turns,
};

/** A connection to the stand-in, for requests that are answered within the patience. */
class Connection
{
public:
    Connection(const QByteArray &path, int patience)
        : m_path(path)
        , m_patience(patience)
        , m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
    }
    ~Connection()
    {
        close(m_socket);
    }
    Q_DISABLE_COPY(Connection)

    /** The answers to the @p count requests in @p text; what has failed where there are fewer. */
    QList<QByteArray> exchange(const QByteArray &text, int count, EventLoop eventLoop, QString *problem)
    {
        *problem = connected();
        if (problem->isEmpty())
            *problem = sent(text);
        QByteArray input;
        while (problem->isEmpty() && input.count('\n') < count)
            *problem = received(&input, eventLoop);
        return input.split('\n').mid(0, count);
    }

private:
    static QString silence()
    {
        return QStringLiteral("the stand-in does not answer");
    }
    static QString end()
    {
        return QStringLiteral("the stand-in has gone");
    }

    QString connected() const
    {
        // A stand-in that is stopped takes neither connections nor requests when its queues are full.
        const timeval timeout = {m_patience / 1000, suseconds_t(m_patience % 1000) * 1000};
        setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, m_path.constData(), sizeof address.sun_path);
        int error = m_path.size() < int(sizeof address.sun_path) ? EINTR : ENAMETOOLONG;
        while (error == EINTR)
            error = connect(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
        if (error == 0 || error == EAGAIN)
            return error ? silence() : QString();
        return QStringLiteral("there is no stand-in at %1: %2; run the tests where there is one: "
                              "authd-standin run -- COMMAND")
            .arg(QFile::decodeName(m_path), QString::fromLocal8Bit(strerror(error)));
    }

    QString sent(const QByteArray &text) const
    {
        for (int done = 0; done < text.size();) {
            const ssize_t count = send(m_socket, text.constData() + done, size_t(text.size() - done), MSG_NOSIGNAL);
            if (count < 0 && errno != EINTR)
                return errno == EAGAIN ? silence() : end();
            done += qMax(0, int(count));
        }
        return QString();
    }

    QString received(QByteArray *input, EventLoop eventLoop) const
    {
        if (eventLoop == EventLoop::Turns) {
            QEventLoop loop;
            QSocketNotifier notifier(m_socket, QSocketNotifier::Read);
            QObject::connect(&notifier, &QSocketNotifier::activated, &loop, &QEventLoop::quit);
            QTimer::singleShot(int(m_deadline.remainingTime()), &loop, &QEventLoop::quit);
            loop.exec();
        }
        pollfd source = {m_socket, POLLIN, 0};
        int ready = 0;
        do
            // The loop ends, or does not begin, also when the application has been told to quit.
            ready = poll(&source, 1, int(m_deadline.remainingTime()));
        while (ready < 0 && errno == EINTR);
        if (ready <= 0)
            return silence();
        char buffer[65536];
        const ssize_t count = recv(m_socket, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count <= 0)
            return end();
        input->append(buffer, int(count));
        return QString();
    }

    const QByteArray m_path;
    const int m_patience;
    const int m_socket;
    const QDeadlineTimer m_deadline{m_patience};
};

QByteArray written(const QJsonObject &request)
{
    return QJsonDocument(request).toJson(QJsonDocument::Compact);
}

/** @p text as a line: JSON has no line breaks but between its words. */
QByteArray lineOf(QByteArray text)
{
    return text.replace('\n', ' ') + '\n';
}

/** How long the stand-in itself may wait before it answers. */
int delayOf(const QByteArray &json)
{
    return json.contains("wait-calls")
        ? qBound(0, QJsonDocument::fromJson(json).object().value(QLatin1String("timeout")).toInt(10000), INT_MAX / 2)
        : 0;
}

/** What the loop delivers may delete the AuthStandIn: no member of it is used. */
QJsonObject answerTo(const QByteArray &json, const QByteArray &path, int patience, EventLoop eventLoop,
                     const AuthStandIn::ErrorHandler &onError)
{
    QString problem;
    const QByteArray line =
        Connection(path, patience + delayOf(json)).exchange(lineOf(json), 1, eventLoop, &problem).value(0);
    QJsonObject answer = QJsonDocument::fromJson(line).object();
    if (problem.isEmpty() && answer.value(QLatin1String("ok")).toBool())
        return answer;
    if (problem.isEmpty())
        problem =
            answer.value(QLatin1String("error")).toString(QStringLiteral("the stand-in answers what is no answer"));
    onError(QStringLiteral("%1 (%2)").arg(problem, QString::fromUtf8(json)));
    return {};
}

QJsonObject doing(const char *what, QJsonObject more = QJsonObject())
{
    more.insert(QLatin1String("do"), QLatin1String(what));
    return more;
}

QJsonObject waiting(const QString &method, double count, double timeout)
{
    return doing(
        "wait-calls",
        {{QStringLiteral("method"), method}, {QStringLiteral("count"), count}, {QStringLiteral("timeout"), timeout}});
}

QJsonObject owner(double uid)
{
    return uid == 0 ? QJsonObject() : QJsonObject{{QStringLiteral("uid"), uid}};
}

} // namespace

AuthStandIn::AuthStandIn(ErrorHandler onError, const QString &path)
    : m_onError(std::move(onError))
    , m_path(QFile::encodeName(path))
{
}

void AuthStandIn::setPatience(int milliseconds)
{
    m_patience = qBound(1, milliseconds, INT_MAX / 2);
}

QJsonObject AuthStandIn::request(const QJsonObject &request)
{
    return this->request(written(request));
}

QJsonObject AuthStandIn::request(const QByteArray &json)
{
    return answerTo(json, m_path, m_patience, EventLoop::Stands, errorHandler());
}

QVector<QJsonObject> AuthStandIn::requests(const QVector<QByteArray> &texts)
{
    QByteArray lines;
    int patience = m_patience;
    for (const QByteArray &text : texts) {
        lines += lineOf(text);
        patience += qMin(delayOf(text), INT_MAX - patience);
    }
    QString problem;
    const QList<QByteArray> answers =
        Connection(m_path, patience).exchange(lines, texts.size(), EventLoop::Stands, &problem);
    QVector<QJsonObject> objects;
    if (!problem.isEmpty()) {
        errorHandler()(QStringLiteral("%1 (%2)").arg(problem, QString::fromUtf8(lines)));
        return objects;
    }
    for (const QByteArray &answer : answers)
        objects.append(QJsonDocument::fromJson(answer).object());
    return objects;
}

bool AuthStandIn::reset(double lockState)
{
    settleBus();
    // Held calls go with the daemon that has them.
    const bool isReset = tell("stop") && tell("drop-old") && tell("behave")
        && tell("accept", {{QStringLiteral("how"), QStringLiteral("normal")}}) && tell("reset-options")
        && tell("reset-secrets") && setLockState(lockState) && tell("start");
    if (!isReset)
        return false;
    settleBus();
    return clearCalls();
}

QJsonObject AuthStandIn::state()
{
    return request(doing("state"));
}

int AuthStandIn::lockState()
{
    constexpr int undefined = 4;
    return state().value(QLatin1String("lock-state")).toInt(undefined);
}

bool AuthStandIn::setLockState(double state)
{
    return tell("set-lock", {{QStringLiteral("state"), state}});
}

bool AuthStandIn::lock()
{
    return setLockState(1);
}

bool AuthStandIn::unlock()
{
    return setLockState(0);
}

bool AuthStandIn::lockout(const QString &kind)
{
    return tell("lockout", {{QStringLiteral("kind"), kind}});
}

bool AuthStandIn::answer(const QString &method, const QString &value, double times)
{
    return addRule(QStringLiteral("reply"), method, times, {{QStringLiteral("value"), value}});
}

bool AuthStandIn::fail(const QString &method, const QString &error, double times)
{
    return addRule(QStringLiteral("error"), method, times,
                   error.isEmpty() ? QJsonObject() : QJsonObject{{QStringLiteral("name"), error}});
}

bool AuthStandIn::delay(const QString &method, double milliseconds, double times)
{
    return addRule(QStringLiteral("delay"), method, times, {{QStringLiteral("ms"), milliseconds}});
}

bool AuthStandIn::mute(const QString &method, double times)
{
    return addRule(QStringLiteral("mute"), method, times);
}

bool AuthStandIn::hold(const QString &method, double times)
{
    return addRule(QStringLiteral("hold"), method, times);
}

bool AuthStandIn::release()
{
    return tell("release");
}

bool AuthStandIn::misbehave(const QString &method, const QString &how, double times)
{
    return addRule(how, method, times);
}

bool AuthStandIn::behave()
{
    return tell("behave");
}

bool AuthStandIn::stop()
{
    return tell("stop");
}

bool AuthStandIn::start()
{
    return tell("start");
}

bool AuthStandIn::restart()
{
    return tell("restart");
}

bool AuthStandIn::handover()
{
    return tell("handover");
}

bool AuthStandIn::dropPeers()
{
    return tell("drop-peers");
}

bool AuthStandIn::emitSignal(const QString &name, const QString &arguments, const QJsonObject &more)
{
    QJsonObject message = more;
    message.insert(QLatin1String("signal"), name);
    message.insert(QLatin1String("args"), arguments);
    return tell("emit", message);
}

QJsonArray AuthStandIn::calls(const QString &method)
{
    const QJsonObject which = method.isEmpty() ? QJsonObject() : QJsonObject{{QStringLiteral("method"), method}};
    return request(doing("calls", which)).value(QLatin1String("calls")).toArray();
}

QJsonArray AuthStandIn::waitForCalls(const QString &method, double count, double timeout)
{
    // Copies, because this object may go.
    const QByteArray path = m_path;
    return answerTo(written(waiting(method, count, timeout)), path, m_patience, EventLoop::Turns, errorHandler())
        .value(QLatin1String("calls"))
        .toArray();
}

QJsonArray AuthStandIn::waitCalls(const QString &method, double count, double timeout)
{
    return request(waiting(method, count, timeout)).value(QLatin1String("calls")).toArray();
}

bool AuthStandIn::clearCalls()
{
    return tell("clear-calls");
}

QJsonObject AuthStandIn::options(double uid)
{
    return request(doing("options", owner(uid))).value(QLatin1String("options")).toObject();
}

bool AuthStandIn::setOption(const QString &key, const QJsonValue &value, double uid)
{
    QJsonObject message = owner(uid);
    message.insert(QLatin1String("key"), key);
    message.insert(QLatin1String("value"), value);
    return tell("set-option", message);
}

QByteArray AuthStandIn::quoted(const QString &text)
{
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

AuthStandIn::ErrorHandler AuthStandIn::errorHandler() const
{
    return m_onError;
}

void AuthStandIn::settleBus()
{
}

bool AuthStandIn::tell(const char *what, const QJsonObject &more)
{
    return !request(doing(what, more)).isEmpty();
}

bool AuthStandIn::addRule(const QString &how, const QString &method, double times, QJsonObject more)
{
    more.insert(QLatin1String("method"), method);
    more.insert(QLatin1String("how"), how);
    if (times != 0)
        more.insert(QLatin1String("times"), times);
    return tell("misbehave", more);
}
