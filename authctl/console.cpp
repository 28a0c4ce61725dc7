#include "console.h"

#include "awaited.h"
#include "command.h"
#include "secret-input.h"
#include "values.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonArray>
#include <QtCore/QMetaEnum>
#include <QtCore/QRegularExpression>
#include <QtCore/QSocketNotifier>
#include <QtDBus/QDBusConnection>

#include <memory>
#include <unistd.h>

namespace {

QString stateName(AuthDevlockClient::LockState state)
{
    const char *name = QMetaEnum::fromType<AuthDevlockClient::LockState>().valueToKey(state);
    return name ? QString::fromLatin1(name) : QString::number(int(state));
}

QJsonObject stateDetails(AuthDevlockClient::LockState state)
{
    return {{QStringLiteral("state"), stateName(state)}, {QStringLiteral("number"), int(state)}};
}

/** Enough of a token to tell it from another, too little to use it; nothing of a short one. */
QString tokenBeginning(const QByteArray &token)
{
    return token.size() > 8 ? QString::fromLatin1(token.left(2).toHex()) : QString();
}

/** The words of a line of a session, with the program's name before them; quotes of either kind group. */
QStringList splitLine(const QString &line)
{
    static const QRegularExpression part(QStringLiteral("\\s+|'([^']*)'|\"([^\"]*)\"|([^\\s'\"]+|.)"));
    QStringList words{QStringLiteral("authctl")};
    bool inWord = false;
    auto parts = part.globalMatch(line);
    while (parts.hasNext()) {
        const QRegularExpressionMatch match = parts.next();
        if (match.lastCapturedIndex() == 0) {
            inWord = false;
            continue;
        }
        if (!inWord)
            words.append(QString());
        inWord = true;
        words.last() += match.captured(match.lastCapturedIndex());
    }
    return words;
}

/** Whether the secret comes with the next line, as far as can be told of a line that is wrong. */
bool announcesSecret(const QString &line)
{
    static const QRegularExpression announcement(QStringLiteral("--?data['\"]?[\\s=]\\s*['\"]?-['\"]?(\\s|$)"));
    return announcement.match(line).hasMatch();
}

} // namespace

QString tokenText(const QByteArray &token)
{
    const QString begins = tokenBeginning(token);
    return QStringLiteral("token of %1 bytes").arg(token.size())
        + (begins.isEmpty() ? QString() : QStringLiteral(", %1…").arg(begins));
}

QJsonObject tokenDetails(const QByteArray &token)
{
    if (token.isEmpty())
        return {{QStringLiteral("token"), QJsonValue()}};
    QJsonObject details{{QStringLiteral("length"), token.size()}};
    const QString begins = tokenBeginning(token);
    if (!begins.isEmpty())
        details.insert(QStringLiteral("begins"), begins);
    return {{QStringLiteral("token"), details}};
}

Console::Console(Output &output)
    : m_output(output)
    , m_settings(*this)
    , m_daemon(QStringLiteral("vantora.AuthService"), QDBusConnection::systemBus(),
               QDBusServiceWatcher::WatchForOwnerChange)
{
    QObject::connect(&m_client, &AuthClient::progressChanged, &m_client,
                     [this] { m_output.setWaiting(m_client.progress()); });
    QObject::connect(&m_daemon, &QDBusServiceWatcher::serviceOwnerChanged, &m_daemon,
                     [this] { m_settings.distrust(); });
}

int Console::perform(const Request &request)
{
    m_command = request.command->name();
    m_deadline.setRemainingTime(request.timeout);

    std::optional<QByteArray> secret;
    if (!request.factor.isEmpty()) {
        secret = readSecret(request);
        if (!secret)
            return WrongUsage;
    }
    if (const auto *ofSettings = std::get_if<SettingsAction>(&request.command->action))
        return m_settings.perform(*ofSettings, request, secret);
    const int status = secret ? authenticate(m_client, request, *secret) : Done;
    const auto action = std::get<ConsoleAction>(request.command->action);
    return status == Done && action ? (this->*action)(request) : status;
}

int Console::drop(const Request &)
{
    m_client.dropAuthentication();
    m_settings.dropAuthentication();
    return finish(Done, QStringLiteral("Token dropped"));
}

int Console::quit(const Request &)
{
    m_hasQuit = true;
    return m_status;
}

int Console::finish(int status, const QString &text, const QJsonObject &details)
{
    m_output.result(m_command, status, details, text);
    return status;
}

QDeadlineTimer Console::deadline() const
{
    return m_deadline;
}

Output &Console::output() const
{
    return m_output;
}

int Console::authenticate(AuthClient &client, const Request &request, const QByteArray &secret)
{
    QVariantMap params{{QStringLiteral("factor"), request.factor}};
    // A byte array carries what a string cannot.
    const QString text = QString::fromUtf8(secret);
    const bool isText = text.toUtf8() == secret && !text.contains(QChar::Null);
    params.insert(QStringLiteral("data"), isText ? QVariant(text) : QVariant(secret));
    if (request.uid)
        params.insert(QStringLiteral("uid"), *request.uid);

    // A client drops what it has when it first hears that the device is locked; let that be over.
    if (!askState())
        return finish(NoOutcome, QStringLiteral("Undefined: the daemon did not tell its state in time"));

    Awaited<QByteArray> outcome;
    QObject::connect(&client, &AuthClient::authenticatedChanged, &outcome,
                     [&outcome](const QVariant &token) { outcome.set(token.toByteArray()); });
    client.authenticate(request.service, params);
    const auto token = outcome.wait(m_deadline);

    if (!token) {
        // Otherwise the request would count as being under way.
        client.dropAuthentication();
        return finish(NoOutcome, QStringLiteral("the daemon did not tell an outcome in time"));
    }
    if (token->isEmpty())
        return finish(Refused, QStringLiteral("not authenticated"));
    if (m_command == QLatin1String("authenticate")) {
        return finish(Done, QStringLiteral("Authenticated for %1 (%2)").arg(shown(request.service), tokenText(*token)),
                      tokenDetails(*token));
    }
    return Done;
}

int Console::lock(const Request &request)
{
    return changeState(request, AuthDevlockClient::Locked);
}

int Console::unlock(const Request &request)
{
    return changeState(request, AuthDevlockClient::Unlocked);
}

int Console::setState(const Request &request)
{
    return changeState(request, AuthDevlockClient::LockState(request.state));
}

int Console::changeState(const Request &request, AuthDevlockClient::LockState wanted)
{
    if (request.token || !request.factor.isEmpty()) {
        if (!m_client.setLocked(wanted))
            return finish(Refused, QStringLiteral("the state may not be set"));
    } else {
        m_devlock.setState(wanted);
    }

    // A refusal on the system bus is told to nobody; the state tells.
    const auto state = askState();
    if (!state)
        return finish(NoOutcome, QStringLiteral("Undefined: the daemon did not tell its state in time"));
    if (*state != wanted) {
        return finish(Refused, QStringLiteral("the daemon left the state at %1").arg(stateName(*state)),
                      stateDetails(*state));
    }
    return finish(Done, stateName(*state), stateDetails(*state));
}

int Console::tellState(const Request &)
{
    const auto state = askState();
    if (!state)
        return finish(NoOutcome, QStringLiteral("Undefined: the daemon did not tell its state in time"));
    return finish(Done, stateName(*state), stateDetails(*state));
}

// Asks anew, so that the answer is younger than everything done before; and twice, because what the first one hears may
// be the announcement of a change, which the other clients of this process may be told only after it. A new client
// hears nothing but a state other than Undefined.
std::optional<AuthDevlockClient::LockState> Console::askState()
{
    std::optional<AuthDevlockClient::LockState> answer;
    for (int i = 0; i < 2; ++i) {
        AuthDevlockClient asking;
        Awaited<AuthDevlockClient::LockState> state;
        QObject::connect(&asking, &AuthDevlockClient::stateChanged, &state, [&] { state.set(asking.state()); });
        answer = state.wait(m_deadline);
    }
    return answer;
}

int Console::unlockIfNeeded(const Request &)
{
    Awaited<bool> outcome;
    QObject::connect(&m_client, &AuthClient::unlockIfNeededFinished, &outcome, &Awaited<bool>::set);
    m_client.unlockIfNeeded();
    const auto unlocked = outcome.wait(m_deadline);
    if (!unlocked)
        return finish(NoOutcome, QStringLiteral("the daemon did not tell an outcome in time"));
    if (!*unlocked)
        return finish(Refused, QStringLiteral("not unlocked"));
    return finish(Done, QStringLiteral("Unlocked"));
}

int Console::callFactor(const Request &request)
{
    // The answer may come when nobody waits for it any more.
    const auto answer = std::make_shared<Awaited<QVariant>>();
    m_client.factorMethod(request.params, request.calledFactor,
                          [answer](const QVariant &value) { answer->set(value); });
    const auto value = answer->wait(m_deadline);
    if (!value)
        return finish(NoOutcome, QStringLiteral("the factor did not answer in time"));
    if (!value->isValid())
        return finish(Refused, QStringLiteral("the call failed"));
    return finish(Done, shown(toJson(*value)), {{QStringLiteral("value"), toJson(*value)}});
}

int Console::follow(const Request &request)
{
    printEvents();
    const int status = request.user ? m_settings.follow(request) : Done;
    return status == Done ? QCoreApplication::exec() : status;
}

void Console::printEvents()
{
    m_settings.printEvents();
    const auto print = [this](const char *name, const QString &text = QString(),
                              const QJsonObject &details = QJsonObject()) {
        m_output.event(QLatin1String(name), details, text);
    };
    QObject::connect(&m_client, &AuthClient::progressChanged, &m_client, [this, print] {
        print("progress", m_client.progress() ? QStringLiteral("begins") : QStringLiteral("ends"),
              {{QStringLiteral("progress"), m_client.progress()}});
    });
    QObject::connect(&m_client, &AuthClient::authenticatedChanged, &m_client, [print](const QVariant &value) {
        const QByteArray token = value.toByteArray();
        print("authenticated", token.isEmpty() ? QStringLiteral("no longer") : tokenText(token), tokenDetails(token));
    });
    QObject::connect(&m_client, &AuthClient::discredit, &m_client, [print] { print("discredit"); });
    QObject::connect(&m_client, &AuthClient::authDataChanged, &m_client, [print] { print("auth-data-changed"); });
    QObject::connect(&m_client, &AuthClient::changeAuthDataFailed, &m_client,
                     [print] { print("change-auth-data-failed"); });
    QObject::connect(&m_client, &AuthClient::unlockIfNeededFinished, &m_client, [print](bool success) {
        print("unlock-if-needed", success ? QStringLiteral("unlocked") : QStringLiteral("not unlocked"),
              {{QStringLiteral("success"), success}});
    });
    QObject::connect(&m_client, &AuthClient::factorSignal, &m_client,
                     [print](const QString &factor, const QVariantMap &params) {
                         const QJsonValue value = toJson(params);
                         print("factor", shown(factor) + QLatin1Char(' ') + shown(value),
                               {{QStringLiteral("factor"), factor}, {QStringLiteral("params"), value}});
                     });
    QObject::connect(&m_devlock, &AuthDevlockClient::stateChanged, &m_client,
                     [this, print] { print("state", stateName(m_devlock.state()), stateDetails(m_devlock.state())); });
    QObject::connect(&m_devlock, &AuthDevlockClient::enabledChanged, &m_client, [this, print] {
        print("enabled", m_devlock.enabled() ? QStringLiteral("yes") : QStringLiteral("no"),
              {{QStringLiteral("enabled"), m_devlock.enabled()}});
    });
}

int Console::runSession(const Request &session)
{
    m_session = true;
    printEvents();
    QByteArray line;
    while (!m_hasQuit && readLine(line)) {
        const QString text = QString::fromLocal8Bit(line).trimmed();
        if (text.isEmpty() || text.startsWith(QLatin1Char('#')))
            continue;
        QString problem;
        const QStringList words = splitLine(text);
        const auto request = parseRequest(words, &session, problem);
        if (!request) {
            const QString word = words.value(1);
            m_command = findCommand({word}) || !verbs(word).isEmpty() ? word : QString();
            const bool secretFollows = announcesSecret(text);
            if (secretFollows)
                problem += QStringLiteral("; the next line is dropped: it should be the secret");
            m_status = finish(WrongUsage, problem);
            if (secretFollows && !readLine(line))
                break;
            continue;
        }
        m_status = perform(*request);
    }
    return m_status;
}

std::optional<QByteArray> Console::readSecret(const Request &request)
{
    std::optional<QByteArray> secret;
    switch (request.secret) {
    case Request::Secret::Terminal: {
        const QByteArray prompt = shown(request.factor).toLocal8Bit() + ": ";
        secret = readSecretFromTerminal(prompt.constData());
        if (!secret)
            finish(WrongUsage,
                   QStringLiteral("there is no terminal to ask for the secret on; use --data - or --data-fd"));
        break;
    }
    case Request::Secret::StandardInput:
        if (m_session) {
            QByteArray line;
            if (readLine(line))
                secret = line;
        } else {
            secret = readSecretFromDescriptor(STDIN_FILENO);
        }
        if (!secret)
            finish(WrongUsage, QStringLiteral("the secret cannot be read from standard input"));
        break;
    case Request::Secret::Descriptor:
        secret = readSecretFromDescriptor(request.descriptor);
        if (!secret)
            finish(WrongUsage, QStringLiteral("the secret cannot be read from descriptor %1").arg(request.descriptor));
        break;
    }
    m_deadline.setRemainingTime(request.timeout);
    return secret;
}

// Lets everything else happen while it waits.
bool Console::readLine(QByteArray &line)
{
    QSocketNotifier notifier(STDIN_FILENO, QSocketNotifier::Read);
    QEventLoop loop;
    bool ended = false;
    QObject::connect(&notifier, &QSocketNotifier::activated, &loop, [&] {
        char buffer[4096];
        const ssize_t length = read(STDIN_FILENO, buffer, sizeof buffer);
        ended = length <= 0;
        m_input.append(buffer, int(qMax<ssize_t>(length, 0)));
        loop.quit();
    });
    while (!m_input.contains('\n')) {
        loop.exec();
        if (ended && m_input.isEmpty())
            return false;
        if (ended)
            m_input.append('\n');
    }
    const int length = m_input.indexOf('\n');
    line = m_input.left(length);
    m_input.remove(0, length + 1);
    return true;
}
