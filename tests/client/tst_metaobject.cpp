#include <AuthClient>
#include <AuthDevlockClient>
#include <AuthSettings>
#include <AuthSettingsClient>
#include <FactorListModel>
#include <FactorSettingsBase>

#include <QtCore/QMetaMethod>
#include <QtCore/QMetaProperty>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

#include <cstddef>
#include <cstring>
#include <type_traits>

/** What interfaces bind to: the meta-objects of the public classes, and what the library exports. */
class TestMetaObject : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void classes_data();
    void classes();
    void lockState();
    void oneVirtualFollowsTheObjectsOwn();
    void libraryExportsThePublicClassesAlone();
    void libraryHasItsName();
    void libraryNeedsQtAlone();
};

namespace {
// Methods and properties of the class itself, in their order, with all that can be asked of them.
QStringList described(const QMetaObject &meta)
{
    QStringList result;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        const char *const kinds[] = {"invokable", "signal", "slot", "constructor"};
        const char *const accesses[] = {"private", "protected", "public"};
        QByteArrayList arguments;
        for (int j = 0; j < method.parameterCount(); ++j)
            arguments.append(method.parameterTypes().at(j) + ' ' + method.parameterNames().at(j));
        result.append(QLatin1String(accesses[method.access()]) + QLatin1Char(' ')
                      + QLatin1String(kinds[method.methodType()]) + QLatin1Char(' ') + QLatin1String(method.typeName())
                      + QLatin1Char(' ') + QString::fromLatin1(method.name() + '(' + arguments.join(", ") + ')'));
    }
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        result.append(QStringLiteral("property %1 %2%3 notify %4 %5")
                          .arg(QLatin1String(property.typeName()), QLatin1String(property.name()),
                               QLatin1String(property.isWritable() ? " writable" : ""))
                          .arg(property.notifySignalIndex() - meta.methodOffset())
                          .arg(QLatin1String(property.notifySignal().methodSignature())));
    }
    for (int i = meta.constructorCount(); i > 0; --i)
        result.append(QStringLiteral("constructor"));
    for (int i = meta.classInfoOffset(); i < meta.classInfoCount(); ++i)
        result.append(QStringLiteral("class info"));
    for (int i = meta.enumeratorOffset(); i < meta.enumeratorCount(); ++i)
        result.append(QStringLiteral("enum ") + QLatin1String(meta.enumerator(i).name()));
    return result;
}

// Overriding what is not virtual is an error.
class ExtendedSettings : public FactorSettingsBase
{
public:
    using FactorSettingsBase::FactorSettingsBase;

    void handleOptionChanged(uint uid, const QString &name, const QVariant &value) override
    {
        FactorSettingsBase::handleOptionChanged(uid, name, value);
    }
    using FactorSettingsBase::disconnectNotify;
};

static_assert(std::is_constructible<ExtendedSettings, QObject *, QString>::value, "can be extended");
static_assert(!std::is_default_constructible<FactorSettingsBase>::value, "a method has to be named");
static_assert(!std::is_default_constructible<FactorListModel>::value, "a parent has to be named");
static_assert(std::is_constructible<FactorListModel, QObject *>::value, "a parent may be named");
static_assert(!std::is_convertible<QObject *, FactorListModel>::value, "a parent is no model");
static_assert(!std::is_default_constructible<AuthSettingsClient>::value, "a parent has to be named");
static_assert(!std::is_convertible<QObject *, AuthSettingsClient>::value, "a parent is no client");
static_assert(std::is_default_constructible<AuthSettings>::value, "QML makes it without a parent");

// Where the compiled code of hosts looks up a virtual function, as the C++ ABI lays out a pointer to one.
template <typename Function> std::ptrdiff_t slotOffset(Function function)
{
    std::ptrdiff_t offset;
    static_assert(sizeof function == 2 * sizeof offset, "the offset and an adjustment");
    memcpy(&offset, &function, sizeof offset);
    return offset - 1;
}

QString output(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(180000) || process.exitCode() != 0)
        qFatal("%s: %s", qPrintable(program), process.readAllStandardError().constData());
    return QString::fromLocal8Bit(process.readAllStandardOutput());
}
} // namespace

Q_DECLARE_METATYPE(const QMetaObject *)

void TestMetaObject::classes_data()
{
    QTest::addColumn<const QMetaObject *>("meta");
    QTest::addColumn<const QMetaObject *>("super");
    QTest::addColumn<size_t>("size");
    QTest::addColumn<size_t>("expectedSize");
    QTest::addColumn<QString>("expected");
    const auto row = [](const QMetaObject *meta, const QMetaObject *super, size_t size, size_t expectedSize,
                        const char *expected) {
        QTest::newRow(meta->className()) << meta << super << size << expectedSize << QString::fromLatin1(expected + 1);
    };
    // What hosts are compiled against: everything else is behind the pointer.
    const size_t onePointer = sizeof(QObject) + sizeof(void *);
    row(&AuthClient::staticMetaObject, &QObject::staticMetaObject, sizeof(AuthClient), onePointer, R"(
public signal void progressChanged()
public signal void authenticatedChanged(QVariant authToken)
public signal void authDataChanged()
public signal void changeAuthDataFailed()
public signal void unlockIfNeededFinished(bool success)
public signal void discredit()
public signal void factorSignal(QString factor, QVariantMap params)
public invokable void authenticate(QString service, QVariantMap params)
public invokable void changeAuthData(QString method, QVariantMap params)
public invokable void unlockIfNeeded()
public invokable void cancel()
public invokable void requestChallenge()
public invokable bool setLocked(int state)
public invokable void dropAuthentication()
property bool authenticated notify 1 authenticatedChanged(QVariant)
property bool progress notify 0 progressChanged()
)");
    row(&AuthDevlockClient::staticMetaObject, &QObject::staticMetaObject, sizeof(AuthDevlockClient), onePointer, R"(
public signal void enabledChanged()
public signal void stateChanged()
property bool enabled notify 0 enabledChanged()
property LockState state writable notify 1 stateChanged()
enum LockState
)");
    row(&AuthSettingsClient::staticMetaObject, &AuthClient::staticMetaObject, sizeof(AuthSettingsClient), onePointer,
        R"(
public signal void challengeChanged()
public signal void authTokenChanged()
public signal void showNotificationsChanged()
public signal void uidChanged()
public signal void canSwitchToUserChanged()
public signal void isMultiFactorableChanged()
public signal void isUserSettableChanged()
public signal void userWarningChanged()
public signal void unlockFactorsChanged()
public invokable bool canTriggerFactor(int index)
public invokable void triggerFactor(int index)
public invokable bool showLastLogin(uint uid)
public invokable QString lastLoginDate(uint uid)
public invokable bool hasFactor(QString name)
public invokable bool hasEnabledFactor(QString name)
public invokable bool hasChosenFactor(QString name)
public invokable void triggerUnlockFactor(QString name)
property bool showNotifications writable notify 2 showNotificationsChanged()
property QByteArray token notify 1 authTokenChanged()
property uint uid writable notify 3 uidChanged()
property bool canSwitchToUser notify 4 canSwitchToUserChanged()
property bool isMultiFactorable writable notify 5 isMultiFactorableChanged()
property bool isUserSettable writable notify 6 isUserSettableChanged()
property QString userWarning notify 7 userWarningChanged()
property QStringList unlockFactors notify 8 unlockFactorsChanged()
property FactorListModel* factors notify 8 unlockFactorsChanged()
)");
    row(&FactorListModel::staticMetaObject, &QAbstractListModel::staticMetaObject, sizeof(FactorListModel),
        sizeof(QAbstractListModel), R"(
public signal void loginFactorsCountChanged()
property int loginFactorsCount notify 0 loginFactorsCountChanged()
)");
    row(&FactorSettingsBase::staticMetaObject, &QObject::staticMetaObject, sizeof(FactorSettingsBase), onePointer,
        "\n");
    row(&AuthSettings::staticMetaObject, &QObject::staticMetaObject, sizeof(AuthSettings), onePointer, R"(
public signal void uidChanged()
public signal void lastLoginDateChanged()
property uint uid writable notify 0 uidChanged()
property QString lastLoginDate notify 1 lastLoginDateChanged()
)");
}

void TestMetaObject::classes()
{
    QFETCH(const QMetaObject *, meta);
    QFETCH(const QMetaObject *, super);
    QFETCH(size_t, size);
    QFETCH(size_t, expectedSize);
    QFETCH(QString, expected);
    QCOMPARE(described(*meta), expected.split(QLatin1Char('\n'), Qt::SkipEmptyParts));
    QCOMPARE(meta->superClass(), super);
    QCOMPARE(size, expectedSize);
}

void TestMetaObject::lockState()
{
    const QMetaEnum states = QMetaEnum::fromType<AuthDevlockClient::LockState>();
    QStringList names;
    for (int i = 0; i < states.keyCount(); ++i)
        names.append(QStringLiteral("%1 %2").arg(QLatin1String(states.key(i))).arg(states.value(i)));
    QCOMPARE(names,
             (QStringList{QStringLiteral("Unlocked 0"), QStringLiteral("Locked 1"), QStringLiteral("ManagerLockout 2"),
                          QStringLiteral("CodeEntryLockout 3"), QStringLiteral("Undefined 4"),
                          QStringLiteral("SecurityUi 5")}));
    QVERIFY(!states.isFlag());
    QCOMPARE(sizeof(AuthDevlockClient::LockState), sizeof(int));
}

void TestMetaObject::oneVirtualFollowsTheObjectsOwn()
{
    QCOMPARE(slotOffset(&ExtendedSettings::handleOptionChanged),
             slotOffset(&ExtendedSettings::disconnectNotify) + std::ptrdiff_t(sizeof(void *)));
}

void TestMetaObject::libraryExportsThePublicClassesAlone()
{
    const QStringList lines =
        output(QStringLiteral(NM),
               {QStringLiteral("-DC"), QStringLiteral("--defined-only"), QStringLiteral(AUTH_CLIENT_LIBRARY)})
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    // The sanitizers add names of their own, and the type information of QObjectData.
    const QRegularExpression exported(
        QStringLiteral("^[0-9a-f]+ [A-Za-z] ((%1)::|createFunc\\(AuthClient\\*\\)$|__odr_asan\\."
                       "|(vtable|typeinfo|typeinfo name) for (%1|QObjectData)$)")
            .arg(QStringLiteral("AuthClient|AuthDevlockClient|AuthSettings|AuthSettingsClient|FactorListModel"
                                "|FactorSettingsBase")));
    QVERIFY(lines.size() > 100);
    QCOMPARE(lines.filter(QRegularExpression(QStringLiteral(" T createFunc\\(AuthClient\\*\\)$"))).size(), 1);
    QStringList others;
    for (const QString &line : lines) {
        if (!exported.match(line).hasMatch())
            others.append(line);
    }
    QCOMPARE(others, QStringList());
}

void TestMetaObject::libraryHasItsName()
{
    QVERIFY(output(QStringLiteral("readelf"), {QStringLiteral("-dW"), QStringLiteral(AUTH_CLIENT_LIBRARY)})
                .contains(QStringLiteral("soname: [libauth-client.so.1]")));
}

void TestMetaObject::libraryNeedsQtAlone()
{
    const QString text =
        output(QStringLiteral("readelf"), {QStringLiteral("-dW"), QStringLiteral(AUTH_CLIENT_LIBRARY)});
    const QRegularExpression needed(QStringLiteral("\\(NEEDED\\).*\\[([^]]+)\\]"));
    for (auto it = needed.globalMatch(text); it.hasNext();) {
        const QString name = it.next().captured(1);
        QVERIFY2(QRegularExpression(
                     QStringLiteral("^lib(Qt5Core|Qt5DBus|stdc\\+\\+|m|gcc_s|c|(a|t|ub|l)san)\\.so\\.[0-9]+$"))
                     .match(name)
                     .hasMatch(),
                 qPrintable(name));
    }
}

QTEST_APPLESS_MAIN(TestMetaObject)
#include "tst_metaobject.moc"
