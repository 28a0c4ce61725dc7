// Three sides spell the daemon's names, each by itself: the library, the interface files and the stand-in. They must
// agree.

#include "authd/options.h"

#include <QtCore/QFile>
#include <QtCore/QMap>
#include <QtCore/QSet>
#include <QtCore/QXmlStreamReader>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusReply>
#include <QtTest/QtTest>

namespace {

// "method SetDevlockState(ayi) -> b", "signal Factor(sa{sv})"
using Members = QMap<QString, QStringList>;

/** The members of each interface in an introspection document. */
Members membersOf(const QByteArray &xml)
{
    Members members;
    QXmlStreamReader reader(xml);
    QString interface;
    QString kind;
    QString name;
    QString in;
    QString out;
    while (!reader.atEnd()) {
        const auto token = reader.readNext();
        const QString element = reader.name().toString();
        const QXmlStreamAttributes attributes = reader.attributes();
        if (token == QXmlStreamReader::StartElement) {
            if (element == QLatin1String("interface")) {
                interface = attributes.value(QLatin1String("name")).toString();
                members.insert(interface, {});
            } else if (element == QLatin1String("method") || element == QLatin1String("signal")) {
                kind = element;
                name = attributes.value(QLatin1String("name")).toString();
                in.clear();
                out.clear();
            } else if (element == QLatin1String("arg")) {
                const bool isOut = attributes.value(QLatin1String("direction")) == QLatin1String("out");
                (isOut ? out : in) += attributes.value(QLatin1String("type")).toString();
            }
        } else if (token == QXmlStreamReader::EndElement && !kind.isEmpty() && element == kind) {
            const QString result = kind == QLatin1String("method") ? QStringLiteral(" -> ") + out : QString();
            members[interface].append(QStringLiteral("%1 %2(%3)%4").arg(kind, name, in, result));
        }
    }
    if (reader.hasError())
        qFatal("bad XML: %s", qPrintable(reader.errorString()));
    for (QStringList &list : members)
        list.sort();
    return members;
}

struct Object
{
    QString file;
    QString path;
    QString interface;
    QStringList members;
};

/** What the library counts on, in its own spelling. */
QVector<Object> library()
{
    using namespace Authd;
    const auto method = [](const QString &name, const char *in, const char *out) {
        return QStringLiteral("method %1(%2) -> %3").arg(name, QLatin1String(in), QLatin1String(out));
    };
    const auto signal = [](const QString &name, const char *arguments) {
        return QStringLiteral("signal %1(%2)").arg(name, QLatin1String(arguments));
    };
    QVector<Object> objects{
        {QStringLiteral("vantora.AuthService.xml"),
         Path,
         Interface,
         {method(Method::Authenticate, "sa{sv}", "b"), method(Method::ChangeAuthData, "sa{sv}", "b"),
          method(Method::UnlockIfNeeded, "", ""), method(Method::SetDevlockState, "ayi", "b"),
          method(Method::RequestChallenge, "", "ay"), method(Method::FactorMethod, "aysa{sv}", "v"),
          signal(Signal::Authenticated, "ay"), signal(Signal::AuthenticationFailed, ""),
          signal(Signal::AuthDataChanged, ""), signal(Signal::ChangeAuthDataFailed, ""),
          signal(Signal::UnlockIfNeededFinished, "b")}},
        {QStringLiteral("vantora.AuthService.Settings.xml"),
         SettingsPath,
         SettingsInterface,
         {method(Method::GetOption, "s", "v"), method(Method::GetUserOption, "us", "v"),
          method(Method::GetUserOptions, "uas", "a{sv}"), method(Method::SetUserOption, "uaysv", "b"),
          signal(Signal::Factor, "sa{sv}"), signal(Signal::OptionChanged, "sv"),
          signal(Signal::UserOptionChanged, "usv")}},
        {QStringLiteral("vantora.AuthService.Devlock.xml"),
         DevlockPath,
         DevlockInterface,
         {method(Method::GetState, "", "i"), method(Method::SetState, "i", ""), signal(Signal::StateChanged, "i")}},
    };
    for (Object &object : objects)
        object.members.sort();
    return objects;
}

QByteArray interfaceFile(const QString &name)
{
    QFile file(QStringLiteral(DBUS_DIRECTORY "/") + name);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("no %s", qPrintable(name));
    return file.readAll();
}

} // namespace

class ContractTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void interfaceFilesAreWhatTheLibraryCountsOn_data()
    {
        objects();
    }
    void interfaceFilesAreWhatTheLibraryCountsOn();
    void standInIntrospectsAsTheInterfaceFiles_data()
    {
        objects();
    }
    void standInIntrospectsAsTheInterfaceFiles();
    void standInOwnsTheNameAndListensAtTheAddress();
    void namesAreAsOnTheDevice();

private:
    static void objects();
};

void ContractTest::objects()
{
    QTest::addColumn<int>("index");
    const QVector<Object> all = library();
    for (int i = 0; i < all.size(); ++i)
        QTest::newRow(qPrintable(all.at(i).interface)) << i;
}

void ContractTest::interfaceFilesAreWhatTheLibraryCountsOn()
{
    QFETCH(int, index);
    const Object object = library().at(index);
    const Members members = membersOf(interfaceFile(object.file));
    QCOMPARE(members.keys(), QStringList{object.interface});
    QCOMPARE(members.value(object.interface), object.members);
}

void ContractTest::standInIntrospectsAsTheInterfaceFiles()
{
    QFETCH(int, index);
    const Object object = library().at(index);
    const bool onSystemBus = object.path == Authd::DevlockPath;
    const QDBusConnection connection = onSystemBus
        ? QDBusConnection::systemBus()
        : QDBusConnection::connectToPeer(Authd::SocketAddress, QStringLiteral("contract"));
    const QDBusReply<QString> reply = connection.call(QDBusMessage::createMethodCall(
        Authd::Service, object.path, QStringLiteral("org.freedesktop.DBus.Introspectable"),
        QStringLiteral("Introspect")));
    QVERIFY2(reply.isValid(), qPrintable(reply.error().message()));
    QCOMPARE(reply.value().toUtf8(), interfaceFile(object.file));
}

void ContractTest::standInOwnsTheNameAndListensAtTheAddress()
{
    const QDBusReply<QString> owner = QDBusConnection::systemBus().call(
        QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                                       QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetNameOwner"))
        << Authd::Service);
    QVERIFY2(owner.isValid(), qPrintable(owner.error().message()));
    QVERIFY(QDBusConnection::connectToPeer(Authd::SocketAddress, QStringLiteral("contract")).isConnected());
}

// What travels inside messages no interface file knows; each is written out here once more.
void ContractTest::namesAreAsOnTheDevice()
{
    using namespace Authd;
    const QVector<QPair<QString, const char *>> names{
        {Service, "vantora.AuthService"},
        {Path, "/vantora/AuthService"},
        {Interface, "vantora.AuthService"},
        {SettingsPath, "/vantora/AuthService/Settings"},
        {SettingsInterface, "vantora.AuthService.Settings"},
        {DevlockPath, "/vantora/AuthService/Devlock"},
        {DevlockInterface, "vantora.AuthService.Devlock"},
        {SocketAddress, "unix:path=/var/run/authd/authd.socket"},
        {ClientConnectionName, "authd_p2p_client"},
        {SettingsConnectionName, "authd_p2p_settings_client"},
        {MethodsDirectory, "/var/lib/authd/methods/"},
        {FactorPrefix, "authd-factor-"},
        {Method::SetUserMethodOption, "SetUserMethodOption"},
        {Method::GetUserMethodOption, "GetUserMethodOption"},
        {Method::SetMethodOption, "SetMethodOption"},
        {Method::GetMethodOption, "GetMethodOption"},
        {Method::SetOption, "SetOption"},
        {Method::ActionUserMethod, "ActionUserMethod"},
        {Method::ActionMethod, "ActionMethod"},
        {Signal::UserMethodActionCompleted, "UserMethodActionCompleted"},
        {Signal::UserMethodOptionChanged, "UserMethodOptionChanged"},
        {Signal::MethodOptionChanged, "MethodOptionChanged"},
        {Signal::MethodActionCompleted, "MethodActionCompleted"},
        {Option::Worker, "worker"},
        {Option::WorkerPrefix, "worker/"},
        {Option::WorkerPrefix + Option::CanSwitchToUser, "worker/can-switch-to-user"},
        {Option::DevlockPrefix + Option::ShowNotifications, "devlock/show-notifications"},
        {Option::ServiceFactors, "service-factors"},
        {Option::IsUserSettable, "is-user-settable"},
        {Option::IsMultiFactorable, "is-multi-factorable"},
        {Option::DisabledFactors, "disabled-factors"},
        {Option::LastLoginDate, "last-login-date"},
        {Option::ShowLastLogin, "show-last-login"},
        {Option::AvailableServices, "available-services"},
        {Option::AvailableServiceFactors, "available-service-factors"},
        {Option::PermissiveMode, "permissive-mode"},
        {Value::Login, "login"},
        {Value::Unlock, "unlock"},
        {Value::Sudis, "sudis"},
        {Value::Smartcard, "smartcard"},
        {Key::Challenge, "challenge"},
        {Key::Type, "type"},
        {Key::Uid, "uid"},
        {Key::Name, "name"},
        {Key::Value, "value"},
        {Key::Params, "params"},
        {Key::TextForButton, "textForButton"},
        {Key::ForConfirm, "forConfirm"},
        {Key::InputRequestType, "input-request-type"},
        {Key::ResultCode, "result-code"},
        {Key::CancelEnabled, "cancel-enabled"},
        {Key::ShowMainPage, "show-main-page"},
        {Key::InfoPage, "info-page"},
        {Key::AuthPage, "auth-page"},
        {Key::PrePage, "pre-page"},
        {Key::FactorName, "factor-name"},
        {Request::GetOption, "get-option"},
        {Request::SetOption, "set-option"},
        {Request::Action, "action"},
        {Request::OptionChanged, "option-changed"},
    };
    for (const auto &[name, text] : names)
        QCOMPARE(name, QLatin1String(text));
}

QTEST_GUILESS_MAIN(ContractTest)
#include "tst_contract.moc"
