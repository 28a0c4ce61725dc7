#include <AuthClient>
#include <AuthDevlockClient>

#include <QtCore/QMetaMethod>
#include <QtCore/QMetaProperty>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

/** What interfaces bind to: the meta-objects of the public classes, and what the library exports. */
class TestMetaObject : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void authClient();
    void authDevlockClient();
    void lockState();
    void inheritance();
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

QString output(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished() || process.exitCode() != 0)
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

void TestMetaObject::inheritance()
{
    QCOMPARE(AuthClient::staticMetaObject.superClass(), &QObject::staticMetaObject);
    QCOMPARE(AuthDevlockClient::staticMetaObject.superClass(), &QObject::staticMetaObject);
    QCOMPARE(sizeof(AuthClient), sizeof(QObject) + sizeof(void *));
    QCOMPARE(sizeof(AuthDevlockClient), sizeof(QObject) + sizeof(void *));
}

void TestMetaObject::libraryExportsThePublicClassesAlone()
{
    const QStringList lines =
        output(QStringLiteral(NM),
               {QStringLiteral("-DC"), QStringLiteral("--defined-only"), QStringLiteral(AUTH_CLIENT_LIBRARY)})
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    // The sanitizers add names of their own, and the type information of a toolkit class.
    const QRegularExpression exported(
        QStringLiteral("^[0-9a-f]+ [A-Za-z] (AuthClient::|AuthDevlockClient::|__odr_asan\\."
                       "|(vtable|typeinfo|typeinfo name) for (Auth(Devlock)?Client|QObjectData)$)"));
    QVERIFY(lines.size() > 40);
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
