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
    void authClient();
    void authDevlockClient();
    void lockState();
    void authSettingsClient();
    void factorListModel();
    void factorSettingsBase();
    void authSettings();
    void inheritance();
    void classesHoldOnePointer();
    void oneVirtualFollowsTheObjectsOwn();
    void libraryExportsThePublicClassesAlone();
    void libraryHasItsName();
    void libraryNeedsTheToolkitAlone();
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

void TestMetaObject::authClient()
{
    const QStringList expected{
        QStringLiteral("public signal void progressChanged()"),
        QStringLiteral("public signal void authenticatedChanged(QVariant authToken)"),
        QStringLiteral("public signal void authDataChanged()"),
        QStringLiteral("public signal void changeAuthDataFailed()"),
        QStringLiteral("public signal void unlockIfNeededFinished(bool success)"),
        QStringLiteral("public signal void discredit()"),
        QStringLiteral("public signal void factorSignal(QString factor, QVariantMap params)"),
        QStringLiteral("public invokable void authenticate(QString service, QVariantMap params)"),
        QStringLiteral("public invokable void changeAuthData(QString method, QVariantMap params)"),
        QStringLiteral("public invokable void unlockIfNeeded()"),
        QStringLiteral("public invokable void cancel()"),
        QStringLiteral("public invokable void requestChallenge()"),
        QStringLiteral("public invokable bool setLocked(int state)"),
        QStringLiteral("public invokable void dropAuthentication()"),
        QStringLiteral("property bool authenticated notify 1 authenticatedChanged(QVariant)"),
        QStringLiteral("property bool progress notify 0 progressChanged()"),
    };
    QCOMPARE(described(AuthClient::staticMetaObject), expected);
}

void TestMetaObject::authDevlockClient()
{
    const QStringList expected{
        QStringLiteral("public signal void enabledChanged()"),
        QStringLiteral("public signal void stateChanged()"),
        QStringLiteral("property bool enabled notify 0 enabledChanged()"),
        QStringLiteral("property LockState state writable notify 1 stateChanged()"),
        QStringLiteral("enum LockState"),
    };
    QCOMPARE(described(AuthDevlockClient::staticMetaObject), expected);
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

void TestMetaObject::authSettingsClient()
{
    const QStringList expected{
        QStringLiteral("public signal void challengeChanged()"),
        QStringLiteral("public signal void authTokenChanged()"),
        QStringLiteral("public signal void showNotificationsChanged()"),
        QStringLiteral("public signal void uidChanged()"),
        QStringLiteral("public signal void canSwitchToUserChanged()"),
        QStringLiteral("public signal void isMultiFactorableChanged()"),
        QStringLiteral("public signal void isUserSettableChanged()"),
        QStringLiteral("public signal void userWarningChanged()"),
        QStringLiteral("public signal void unlockFactorsChanged()"),
        QStringLiteral("public invokable bool canTriggerFactor(int index)"),
        QStringLiteral("public invokable void triggerFactor(int index)"),
        QStringLiteral("public invokable bool showLastLogin(uint uid)"),
        QStringLiteral("public invokable QString lastLoginDate(uint uid)"),
        QStringLiteral("public invokable bool hasFactor(QString name)"),
        QStringLiteral("public invokable bool hasEnabledFactor(QString name)"),
        QStringLiteral("public invokable bool hasChosenFactor(QString name)"),
        QStringLiteral("public invokable void triggerUnlockFactor(QString name)"),
        QStringLiteral("property bool showNotifications writable notify 2 showNotificationsChanged()"),
        QStringLiteral("property QByteArray token notify 1 authTokenChanged()"),
        QStringLiteral("property uint uid writable notify 3 uidChanged()"),
        QStringLiteral("property bool canSwitchToUser notify 4 canSwitchToUserChanged()"),
        QStringLiteral("property bool isMultiFactorable writable notify 5 isMultiFactorableChanged()"),
        QStringLiteral("property bool isUserSettable writable notify 6 isUserSettableChanged()"),
        QStringLiteral("property QString userWarning notify 7 userWarningChanged()"),
        QStringLiteral("property QStringList unlockFactors notify 8 unlockFactorsChanged()"),
        QStringLiteral("property FactorListModel* factors notify 8 unlockFactorsChanged()"),
    };
    QCOMPARE(described(AuthSettingsClient::staticMetaObject), expected);
}

void TestMetaObject::factorListModel()
{
    const QStringList expected{
        QStringLiteral("public signal void loginFactorsCountChanged()"),
        QStringLiteral("property int loginFactorsCount notify 0 loginFactorsCountChanged()"),
    };
    QCOMPARE(described(FactorListModel::staticMetaObject), expected);
}

void TestMetaObject::factorSettingsBase()
{
    QCOMPARE(described(FactorSettingsBase::staticMetaObject), QStringList());
}

void TestMetaObject::authSettings()
{
    const QStringList expected{
        QStringLiteral("public signal void uidChanged()"),
        QStringLiteral("public signal void lastLoginDateChanged()"),
        QStringLiteral("property uint uid writable notify 0 uidChanged()"),
        QStringLiteral("property QString lastLoginDate notify 1 lastLoginDateChanged()"),
    };
    QCOMPARE(described(AuthSettings::staticMetaObject), expected);
}

void TestMetaObject::inheritance()
{
    QCOMPARE(AuthClient::staticMetaObject.superClass(), &QObject::staticMetaObject);
    QCOMPARE(AuthDevlockClient::staticMetaObject.superClass(), &QObject::staticMetaObject);
    QCOMPARE(AuthSettingsClient::staticMetaObject.superClass(), &AuthClient::staticMetaObject);
    QCOMPARE(FactorListModel::staticMetaObject.superClass(), &QAbstractListModel::staticMetaObject);
    QCOMPARE(FactorSettingsBase::staticMetaObject.superClass(), &QObject::staticMetaObject);
    QCOMPARE(AuthSettings::staticMetaObject.superClass(), &QObject::staticMetaObject);
}

// What hosts are compiled against: everything else is behind the pointer.
void TestMetaObject::classesHoldOnePointer()
{
    const size_t expected = sizeof(QObject) + sizeof(void *);
    QCOMPARE(sizeof(AuthClient), expected);
    QCOMPARE(sizeof(AuthDevlockClient), expected);
    QCOMPARE(sizeof(AuthSettingsClient), expected);
    QCOMPARE(sizeof(FactorSettingsBase), expected);
    QCOMPARE(sizeof(AuthSettings), expected);
    QCOMPARE(sizeof(FactorListModel), sizeof(QAbstractListModel));
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
    // The sanitizers add names of their own, and the type information of a toolkit class.
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

void TestMetaObject::libraryNeedsTheToolkitAlone()
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
