// A host with secrets, whose memory, log and files a test looks through from outside:
//     secrets-host client|settings careful|careless
// It makes an AuthClient, or an AuthSettingsClient of user 1000, writes "ready" and obeys lines on its standard input:
//     authenticate CODE, change OLD NEW, method TEXT, wait TEXT, ask, lock, write
//                  make calls; "ask" is a call of a factor's method without a secret of the host. It writes "started"
//                  when an asynchronous one has been made, and "answered" when a call has ended
//     keep TEXT    keeps the text, once as QString and once as QByteArray
//     drop         drops the authentication
//     delete       deletes the client
// After the last three it writes "done"; and "authenticated" when it gets a token. A careful host overwrites its own
// secrets where they are, as soon as the call has returned; a careless one just lets go of them.

#include <AuthSettingsClient>

#include <QtCore/QCoreApplication>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <cstring>
#include <memory>
#include <utility>

#include <unistd.h>

namespace {

bool isCareful = true;
bool awaitsFailure = false;
std::unique_ptr<AuthClient> client;
QString keptText;
QByteArray keptBytes;

// Without a buffer.
void say(const char *word)
{
    const QByteArray line = QByteArray(word) + '\n';
    if (write(STDOUT_FILENO, line.constData(), size_t(line.size())) < 0)
        _exit(3);
}

/** Says so when all that has been scheduled for deletion is gone. */
void sayLater(const char *word)
{
    QTimer::singleShot(0, [word] { QTimer::singleShot(0, [word] { say(word); }); });
}

/** A word of the order, taken out of it. */
class Secret
{
public:
    explicit Secret(char **order)
    {
        char *word = strsep(order, " ");
        m_text = QString::fromUtf8(word);
        explicit_bzero(word, strlen(word));
    }
    ~Secret()
    {
        // Also what shares the text.
        if (isCareful)
            explicit_bzero(const_cast<QChar *>(m_text.constData()), size_t(m_text.size()) * sizeof(QChar));
    }
    Q_DISABLE_COPY(Secret)

    const QString &text() const
    {
        return m_text;
    }

private:
    QString m_text;
};

void obey(char *order)
{
    const QByteArray verb(strsep(&order, " "));
    const QString code = QStringLiteral("code");
    const QString type = QStringLiteral("type");
    const QString value = QStringLiteral("value");
    const auto sayAnswered = [](const QVariant &) { sayLater("answered"); };
    if (verb == "authenticate") {
        const Secret secret(&order);
        awaitsFailure = true;
        client->authenticate(QStringLiteral("login"),
                             {{QStringLiteral("factor"), code}, {QStringLiteral("data"), secret.text()}});
    } else if (verb == "change") {
        const Secret old(&order);
        const Secret fresh(&order);
        client->changeAuthData(code, {{QStringLiteral("old"), old.text()}, {QStringLiteral("new"), fresh.text()}});
    } else if (verb == "method") {
        const Secret secret(&order);
        client->factorMethod({{type, QStringLiteral("echo")}, {value, 7}, {QStringLiteral("secret"), secret.text()}},
                             code, sayAnswered);
    } else if (verb == "ask") {
        client->factorMethod({{type, QStringLiteral("echo")}, {value, 7}}, code, sayAnswered);
    } else if (verb == "wait") {
        const Secret secret(&order);
        client->factorMethodWait(
            {{type, QStringLiteral("echo")}, {value, 7}, {QStringLiteral("secret"), secret.text()}}, code);
        sayLater("answered");
    } else if (verb == "lock") {
        client->setLocked(5);
        sayLater("answered");
    } else if (verb == "write") {
        auto *settings = static_cast<AuthSettingsClient *>(client.get());
        settings->setShowNotifications(!settings->showNotifications());
        sayLater("answered");
    } else if (verb == "keep") {
        const Secret secret(&order);
        keptBytes = secret.text().toUtf8();
        keptText = QString(secret.text().constData(), secret.text().size());
        sayLater("done");
    } else if (verb == "drop") {
        client->dropAuthentication();
        sayLater("done");
    } else if (verb == "delete") {
        client.reset();
        sayLater("done");
    } else {
        _exit(2);
    }
}

bool isAsynchronous(const char *order)
{
    return order[0] == 'a' || order[0] == 'c' || order[0] == 'm';
}

void readOrder()
{
    static char order[4096];
    const ssize_t size = read(STDIN_FILENO, order, sizeof order - 1);
    if (size <= 0) {
        QCoreApplication::quit();
        return;
    }
    order[size - 1] = 0;
    const bool tells = isAsynchronous(order);
    obey(order);
    if (tells)
        say("started");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (argc != 3)
        return 2;
    isCareful = strcmp(argv[2], "careful") == 0;
    if (strcmp(argv[1], "settings") == 0) {
        auto settings = std::make_unique<AuthSettingsClient>(nullptr);
        settings->setUid(1000);
        client = std::move(settings);
    } else {
        client = std::make_unique<AuthClient>();
    }
    QObject::connect(client.get(), &AuthClient::authenticatedChanged, client.get(), [] {
        if (client->authenticated())
            sayLater("authenticated");
    });
    QObject::connect(client.get(), &AuthClient::changeAuthDataFailed, client.get(), [] { sayLater("answered"); });
    QObject::connect(client.get(), &AuthClient::discredit, client.get(), [] {
        if (std::exchange(awaitsFailure, false))
            sayLater("answered");
    });
    const QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &application, readOrder);
    sayLater("ready");
    return QCoreApplication::exec();
}
