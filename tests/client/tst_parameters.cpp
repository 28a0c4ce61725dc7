#include "test-case.h"

#include <QtCore/QDate>
#include <QtCore/QJsonObject>
#include <QtCore/QLine>
#include <QtCore/QRect>
#include <QtCore/QUrl>
#include <QtCore/QUuid>
#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusMetaType>
#include <QtDBus/QDBusUnixFileDescriptor>
#include <QtQml/QJSEngine>
#include <QtQml/QJSValue>

struct Unregistered
{
    int number = 5;
};
Q_DECLARE_METATYPE(Unregistered)

struct Registered
{
    QString text;
    QList<int> numbers;
};
Q_DECLARE_METATYPE(Registered)

QDBusArgument &operator<<(QDBusArgument &argument, const Registered &value)
{
    argument.beginStructure();
    argument << value.text << value.numbers;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, Registered &value)
{
    argument.beginStructure();
    argument >> value.text >> value.numbers;
    argument.endStructure();
    return argument;
}

struct Faulty
{
};
Q_DECLARE_METATYPE(Faulty)

// Writes nothing, which no signature is for.
QDBusArgument &operator<<(QDBusArgument &argument, const Faulty &)
{
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, Faulty &)
{
    return argument;
}

using MapOfMaps = QMap<QString, QVariantMap>;
using MapOfVariants = QMap<QString, QDBusVariant>;

/** Parameter maps: what the bus can carry arrives as it is, what it cannot carry never reaches it. */
class TestParameters : public TestCase
{
    Q_OBJECT

private:
    void checkRefused(const QVariantMap &params, const QStringList &words);
    QByteArray sent(AuthClient *client, const QVariantMap &params);
    int deepest(const QVariant &innermost, const QByteArray &innermostText, int kind);

private Q_SLOTS:
    void initTestCase();

    void carriedValues_data();
    void carriedValues();
    void carriedReceivedArguments();
    void refusedValues_data();
    void refusedValues();
    void refusedElements_data();
    void refusedElements();
    void refusedKeys_data();
    void refusedKeys();
    void refusalKeepsStateAndConnection();
    void deepNesting_data();
    void deepNesting();
    void mapsOfSomeSizeAreCarried();
    void mapsTooLargeAreRefused_data();
    void mapsTooLargeAreRefused();
    void largestMapIsCarried();
};

void TestParameters::initTestCase()
{
    qDBusRegisterMetaType<Registered>();
    qDBusRegisterMetaType<MapOfMaps>();
    qDBusRegisterMetaType<MapOfVariants>();
    qDBusRegisterMetaType<QList<QVariantMap>>();
    qDBusRegisterMetaType<QList<QVariantList>>();
    qDBusRegisterMetaType<Faulty>();
    // QDBusMetaType of Qt 5.15 complains of the faulty operator, the first time only.
    QCOMPARE(QByteArray(QDBusMetaType::typeToSignature(qMetaTypeId<Faulty>())), QByteArray());
}

// How the stand-in receives the map.
QByteArray TestParameters::sent(AuthClient *client, const QVariantMap &params)
{
    daemon.clearCalls();
    client->factorMethod(params, "m"_s, {});
    const QString call = daemon.waitCalls("FactorMethod").value(0);
    const QString before = R"(peer /vantora/AuthService vantora.AuthService.FactorMethod aysa{sv} (@ay [], 'm', )"_s;
    if (!call.startsWith(before))
        qFatal("Another call: %s", qPrintable(call));
    return call.mid(before.size()).chopped(1).toUtf8();
}

void TestParameters::carriedValues_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("text");
    const auto row = [](const char *name, const QVariant &value, const QByteArray &text) {
        QTest::newRow(name) << value << text;
    };
    row("bool", true, "true");
    row("uchar", QVariant::fromValue(uchar(7)), "byte 0x07");
    row("short", QVariant::fromValue(short(-7)), "int16 -7");
    row("ushort", QVariant::fromValue(ushort(65535)), "uint16 65535");
    row("int", std::numeric_limits<int>::min(), "-2147483648");
    row("uint", std::numeric_limits<uint>::max(), "uint32 4294967295");
    row("qlonglong", std::numeric_limits<qlonglong>::min(), "int64 -9223372036854775808");
    row("qulonglong", std::numeric_limits<qulonglong>::max(), "uint64 18446744073709551615");
    row("double", 0.5, "0.5");
    row("QString", "s3cr3t"_s, "'s3cr3t'");
    row("null QString", QString(), "''");
    row("QString beyond the basic plane", "вход 🔒"_s, "'вход 🔒'");
    row("QByteArray", QByteArray("s3cr3t"), bytes("s3cr3t"));
    row("empty QByteArray", QByteArray(), "@ay []");
    row("QByteArray with NUL", QByteArray("\0\xff\x80", 3), "[byte 0x00, 0xff, 0x80]");
    row("QStringList", QStringList{"a"_s, "b"_s}, "['a', 'b']");
    row("empty QStringList", QStringList(), "@as []");
    row("QVariantList", QVariantList{1, "a"_s, true}, "[<1>, <'a'>, <true>]");
    row("empty QVariantList", QVariantList(), "@av []");
    row("QVariantMap", QVariantMap{{"a"_s, 1}, {"b"_s, "s3cr3t"_s}}, "{'a': <1>, 'b': <'s3cr3t'>}");
    row("empty QVariantMap", QVariantMap(), "@a{sv} {}");
    row("QVariantMap with an empty key", QVariantMap{{QString(), 1}}, "{'': <1>}");
    row("QVariantHash", QVariantHash{{"a"_s, 1}}, "{'a': <1>}");
    row("empty QVariantHash", QVariantHash(), "@a{sv} {}");
    row("QDBusVariant", QVariant::fromValue(QDBusVariant(5)), "<5>");
    row("QDBusVariant in QDBusVariant", QVariant::fromValue(QDBusVariant(QVariant::fromValue(QDBusVariant("a"_s)))),
        "<<'a'>>");
    row("QDBusObjectPath", QVariant::fromValue(QDBusObjectPath("/a/b"_s)), "objectpath '/a/b'");
    row("QDBusSignature", QVariant::fromValue(QDBusSignature("a{sv}"_s)), "signature 'a{sv}'");
    row("QDate", QDate(2020, 2, 29), "(2020, 2, 29)");
    row("QTime", QTime(1, 2, 3, 4), "(1, 2, 3, 4)");
    row("QDateTime", QDateTime(QDate(2020, 2, 29), QTime(1, 2, 3, 4), Qt::UTC), "((2020, 2, 29), (1, 2, 3, 4), 1)");
    row("QPoint", QPoint(1, 2), "(1, 2)");
    row("QPointF", QPointF(0.5, 1.5), "(0.5, 1.5)");
    row("QSize", QSize(1, 2), "(1, 2)");
    row("QSizeF", QSizeF(0.5, 1.5), "(0.5, 1.5)");
    row("QRect", QRect(1, 2, 3, 4), "(1, 2, 3, 4)");
    row("QRectF", QRectF(0.5, 1.5, 2.5, 3.5), "(0.5, 1.5, 2.5, 3.5)");
    row("QLine", QLine(1, 2, 3, 4), "((1, 2), (3, 4))");
    row("QLineF", QLineF(0.5, 1.5, 2.5, 3.5), "((0.5, 1.5), (2.5, 3.5))");
    row("QList<bool>", QVariant::fromValue(QList<bool>{true, false}), "[true, false]");
    row("QList<int>", QVariant::fromValue(QList<int>{1, 2}), "[1, 2]");
    row("QList<double>", QVariant::fromValue(QList<double>{0.5}), "[0.5]");
    row("QList<QDBusObjectPath>", QVariant::fromValue(QList<QDBusObjectPath>{QDBusObjectPath("/a"_s)}),
        "[objectpath '/a']");
    row("a type that the host registered", QVariant::fromValue(Registered{"s3cr3t"_s, {1, 2}}), "('s3cr3t', [1, 2])");
    row("the same, empty", QVariant::fromValue(Registered()), "('', @ai [])");
    row("QMap<QString, QVariantMap>", QVariant::fromValue(MapOfMaps{{"a"_s, {{"b"_s, 1}}}}), "{'a': {'b': <1>}}");
    row("QMap<QString, QDBusVariant>", QVariant::fromValue(MapOfVariants{{"a"_s, QDBusVariant(1)}}), "{'a': <1>}");
    row("QList<QVariantMap>", QVariant::fromValue(QList<QVariantMap>{{{"a"_s, 1}}, {}}), "[{'a': <1>}, {}]");
    row("QList<QVariantList>", QVariant::fromValue(QList<QVariantList>{{1, "a"_s}, {}}), "[[<1>, <'a'>], []]");
    row("maps in lists in maps",
        QVariantMap{{"a"_s, QVariantList{QVariantMap{{"b"_s, QVariantList{QStringList{"c"_s}}}}}}},
        "{'a': <[<{'b': <[<['c']>]>}>]>}");
}

void TestParameters::carriedValues()
{
    QFETCH(QVariant, value);
    QFETCH(QByteArray, text);
    const auto client = newClient();
    QCOMPARE(sent(client.get(), {{"k"_s, value}}), "{'k': <" + text + ">}");
    QCOMPARE(sent(client.get(), {{"k"_s, QVariantMap{{"i"_s, value}}}}), "{'k': <{'i': <" + text + ">}>}");
    QCOMPARE(sent(client.get(), {{"k"_s, QVariantHash{{"i"_s, value}}}}), "{'k': <{'i': <" + text + ">}>}");
    QCOMPARE(sent(client.get(), {{"k"_s, QVariantList{value, value}}}), "{'k': <[<" + text + ">, <" + text + ">]>}");
    QCOMPARE(sent(client.get(), {{"k"_s, QVariant::fromValue(QDBusVariant(value))}}), "{'k': <<" + text + ">>}");

    const QVariantMap params{{"challenge"_s, 1}, {"k"_s, value}};
    client->authenticate("m"_s, params);
    client->changeAuthData("m"_s, params);
    const QByteArray args = "('m', {'challenge': <1>, 'k': <" + text + ">})";
    QCOMPARE(daemon.waitCalls("Authenticate"), QStringList{peerCall("Authenticate", "sa{sv}", args)});
    QCOMPARE(daemon.waitCalls("ChangeAuthData"), QStringList{peerCall("ChangeAuthData", "sa{sv}", args)});
    QCOMPARE(client->factorMethodWait(echo(value), "code"_s).isValid(), true);
    QCOMPARE(log->takeComplaints(), QStringList());
}

// What the bus delivered and nobody decoded can be sent back.
void TestParameters::carriedReceivedArguments()
{
    const auto client = newClient();
    const char *const values[] = {"{'a': <5>, 'b': <{'c': <'s3cr3t'>}>}",
                                  "(1, 's3cr3t')",
                                  "[(1, 'a'), (2, 'b')]",
                                  "{'a': {1: <true>}}",
                                  "[[1, 2], [3]]",
                                  "(['a'], [byte 0x01], <(1, <2>)>)",
                                  "@a(is) []"};
    for (const char *value : values) {
        daemon.request(R"({"do":"behave"})");
        daemon.answer("FactorMethod", "(<" + QByteArray(value) + ">,)");
        const QVariant received = client->factorMethodWait({}, "code"_s);
        QCOMPARE(received.userType(), qMetaTypeId<QDBusArgument>());
        QCOMPARE(sent(client.get(), {{"k"_s, received}}), "{'k': <" + QByteArray(value) + ">}");
    }
    QCOMPARE(log->takeComplaints(), QStringList());
}

void TestParameters::refusedValues_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("type");
    // The type is that of the value that is to blame, which may be inside.
    const auto row = [](const char *name, const QVariant &value, const char *type = nullptr) {
        QTest::newRow(name) << value << " of type %1 "_s.arg(QLatin1String(type ? type : value.typeName()));
    };
    row("invalid", QVariant(), "Invalid");
    row("nullptr", QVariant::fromValue(nullptr));
    row("QJSValue", QVariant::fromValue(QJSValue(5)));
    row("undefined QJSValue", QVariant::fromValue(QJSValue()));
    row("QUrl", QUrl("s3cr3t:"_s));
    row("QChar", QChar(QLatin1Char('a')));
    row("float", 0.5F);
    row("long", QVariant::fromValue(5L));
    row("ulong", QVariant::fromValue(5UL));
    row("char", QVariant::fromValue('a'));
    row("signed char", QVariant::fromValue(static_cast<signed char>(1)));
    row("QUuid", QUuid::createUuid());
    row("QObject", QVariant::fromValue(static_cast<QObject *>(this)));
    row("void", QVariant::fromValue(static_cast<void *>(this)));
    row("QJsonObject", QJsonObject{{"a"_s, 1}});
    row("QJsonValue", QJsonValue(1));
    row("QByteArrayList", QVariant::fromValue(QByteArrayList{"s3cr3t"}));
    row("QList<QUrl>", QVariant::fromValue(QList<QUrl>{QUrl("s3cr3t:"_s)}));
    row("empty QDBusArgument", QVariant::fromValue(QDBusArgument()));
    row("a type of the host", QVariant::fromValue(Unregistered()));
    row("a type of the host with a faulty operator", QVariant::fromValue(Faulty()));
    row("QString with NUL", QString("s3cr3t"_s + QChar(0) + "s3cr3t"_s));
    row("QString with half a pair", QString("s3cr3t"_s + QChar(0xd800)));
    row("QString with the other half", QString(QChar(0xdc00) + "s3cr3t"_s));
    row("QStringList with NUL", QStringList{"a"_s, QString("s3cr3t"_s + QChar(0))}, "QString");
    row("empty QDBusObjectPath", QVariant::fromValue(QDBusObjectPath()));
    row("empty QDBusSignature", QVariant::fromValue(QDBusSignature()));
    row("invalid QDBusUnixFileDescriptor", QVariant::fromValue(QDBusUnixFileDescriptor()));
    row("empty QDBusVariant", QVariant::fromValue(QDBusVariant()), "Invalid");
}

void TestParameters::checkRefused(const QVariantMap &params, const QStringList &words)
{
    const auto client = newClient();
    SignalRecorder heard(client.get());
    const auto check = [&](const QString &start) {
        const QStringList lines = log->take();
        QCOMPARE(lines.size(), 1);
        const QString &line = lines.first();
        QVERIFY2(line.startsWith("warning "_s + start + " \""_s) && line.endsWith(QLatin1Char('"')), qPrintable(line));
        for (const QString &word : words)
            QVERIFY2(line.contains(word), qPrintable(line + " lacks "_s + word));
        QCOMPARE(heard.list(), QStringList());
        QVERIFY(!client->progress());
    };

    client->authenticate("m"_s, params);
    check("authenticate failed:"_s);
    client->changeAuthData("m"_s, params);
    check("changeAuthData failed:"_s);
    QVERIFY(!client->factorMethodWait(params, "m"_s).isValid());
    check("factorMethodWait failed:"_s);

    QList<QVariant> results;
    QStringList linesAtCallback;
    client->factorMethod(params, "m"_s, [&](const QVariant &result) {
        results.append(result);
        linesAtCallback = log->lines();
    });
    QVERIFY(results.isEmpty());
    QCOMPARE(log->lines(), QStringList());
    QVERIFY(waitFor([&] { return !results.isEmpty(); }));
    QVERIFY(!results.first().isValid());
    QCOMPARE(linesAtCallback.size(), 1);
    client->factorMethod(params, "m"_s, {});
    drain(client.get());
    QCOMPARE(results.size(), 1);
    const QStringList lines = log->lines();
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines.at(0), lines.at(1));
    log->take();
    QVERIFY2(lines.first().startsWith(R"(warning reply isError: ")"_s), qPrintable(lines.first()));
    for (const QString &word : words)
        QVERIFY2(lines.first().contains(word), qPrintable(lines.first() + " lacks "_s + word));

    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(daemon.calls(), QStringList());
    QCOMPARE(daemon.peerCount(), 1);
}

void TestParameters::refusedValues()
{
    QFETCH(QVariant, value);
    QFETCH(QString, type);
    const auto check = [&](const QVariantMap &params, const QString &path) {
        checkRefused(params, {path, type});
        return !QTest::currentTestFailed();
    };
    QVERIFY(check({{"key"_s, value}}, "\"key"_s));
    QVERIFY(check({{"challenge"_s, value}}, "\"challenge"_s));
    QVERIFY(check({{"a"_s, 1}, {"data"_s, "s3cr3t"_s}, {"key"_s, value}, {"z"_s, QVariantMap{{"a"_s, 1}}}}, "\"key"_s));
    QVERIFY(check({{"key"_s, QVariantMap{{"inner"_s, value}}}}, "\"key.inner"_s));
    QVERIFY(check({{"key"_s, QVariantHash{{"inner"_s, value}}}}, "\"key.inner"_s));
    QVERIFY(check({{"key"_s, QVariantList{1, value}}}, "\"key[1]"_s));
    QVERIFY(check({{"key"_s, QVariant::fromValue(QDBusVariant(value))}}, "\"key"_s));
    QVERIFY(check({{"key"_s, QVariantList{QVariantMap{{"inner"_s, QVariantList{value}}}}}}, "\"key[0].inner[0]"_s));
}

void TestParameters::refusedElements_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("place");
    const auto row = [](const char *name, const QVariant &value, const char *place) {
        QTest::newRow(name) << value << "\"key%1 "_s.arg(QLatin1String(place));
    };
    const QVariant url = QUrl("s3cr3t:"_s);
    row("map of maps", QVariant::fromValue(MapOfMaps{{"a"_s, {}}, {"b"_s, {{"c"_s, 1}, {"d"_s, url}}}}),
        ".b.d of type QUrl");
    row("map of maps, invalid", QVariant::fromValue(MapOfMaps{{"a"_s, {{"b"_s, QVariant()}}}}), ".a.b of type Invalid");
    row("map of variants", QVariant::fromValue(MapOfVariants{{"a"_s, QDBusVariant(1)}, {"b"_s, QDBusVariant(url)}}),
        ".b of type QUrl");
    row("map of variants, empty", QVariant::fromValue(MapOfVariants{{"a"_s, QDBusVariant()}}), ".a of type Invalid");
    row("list of maps", QVariant::fromValue(QList<QVariantMap>{{{"a"_s, 1}}, {{"b"_s, url}}}), "[1].b of type QUrl");
    row("list of lists", QVariant::fromValue(QList<QVariantList>{{1}, {2, url}}), "[1][1] of type QUrl");
    row("list of object paths", QVariant::fromValue(QList<QDBusObjectPath>{QDBusObjectPath("/a"_s), QDBusObjectPath()}),
        "[1] of type QDBusObjectPath");
    row("inside of another",
        QVariantList{QVariant::fromValue(
            QList<QVariantMap>{{{"a"_s, QVariant::fromValue(MapOfMaps{{"b"_s, {{"c"_s, url}}}})}}})},
        "[0][0].a.b.c of type QUrl");
}

// In the containers that a host has registered.
void TestParameters::refusedElements()
{
    QFETCH(QVariant, value);
    QFETCH(QString, place);
    checkRefused({{"key"_s, value}}, {place});
}

void TestParameters::refusedKeys_data()
{
    QTest::addColumn<QString>("key");
    QTest::newRow("NUL") << QString("a"_s + QChar(0) + "b"_s);
    QTest::newRow("half a pair") << QString("a"_s + QChar(0xd800) + "b"_s);
}

void TestParameters::refusedKeys()
{
    QFETCH(QString, key);
    checkRefused({{key, 1}}, {});
    checkRefused({{"outer"_s, QVariantMap{{key, 1}}}}, {"\"outer."_s});
    checkRefused({{"outer"_s, QVariantHash{{key, 1}}}}, {"\"outer."_s});
}

void TestParameters::refusalKeepsStateAndConnection()
{
    daemon.misbehave("Authenticate", "hold");
    const auto client = newClient();
    grant(client.get(), "s3cr3t token");
    client->authenticate("login"_s, {});
    daemon.waitCalls("Authenticate");
    SignalRecorder heard(client.get());
    client->authenticate("login"_s, {{"key"_s, QVariant()}});
    drain(client.get());
    QVERIFY(client->progress());
    QVERIFY(client->authenticated());
    QCOMPARE(heard.list(), QStringList());
    QCOMPARE(log->takeComplaints().size(), 1);
    QCOMPARE(daemon.waitCalls("Authenticate").size(), 1);
}

enum Nesting {
    Maps,
    Lists,
    Variants,
    MapsInLists,
};

QVariant enclosed(const QVariant &value, int kind)
{
    switch (kind) {
    case Maps:
        return QVariantMap{{"k"_s, value}};
    case Lists:
        return QVariantList{value};
    case Variants:
        return QVariant::fromValue(QDBusVariant(value));
    default:
        return QVariantList{QVariantMap{{"k"_s, value}}};
    }
}

// The deepest nesting that is sent, having seen each arrive as it is; the next one has to be refused.
int TestParameters::deepest(const QVariant &innermost, const QByteArray &innermostText, int kind)
{
    const char *const begins[] = {"{'k': <", "[<", "<", "[<{'k': <"};
    const char *const ends[] = {">}", ">]", ">", ">}>]"};
    const auto client = newClient();
    QVariantMap params{{"k"_s, innermost}};
    QByteArray text = innermostText;
    for (int depth = 0; depth < 100; ++depth) {
        daemon.clearCalls();
        client->factorMethodWait(params, "m"_s);
        const QStringList refusals = log->takeComplaints().filter(QRegularExpression("too deeply"_s));
        if (!refusals.isEmpty()) {
            checkRefused(params, {"\"k"_s});
            return depth - 1;
        }
        if (sent(client.get(), params) != "{'k': <" + text + ">}")
            qFatal("Nesting of %d does not arrive as it is", depth);
        drain(client.get());
        log->takeComplaints();
        if (daemon.peerCount() != 1)
            qFatal("Nesting of %d costs the connection", depth);
        params["k"_s] = enclosed(params["k"_s], kind);
        text = begins[kind] + text + ends[kind];
    }
    return 100;
}

void TestParameters::deepNesting_data()
{
    QTest::addColumn<QVariant>("innermost");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("expected");
    const auto row = [](const char *name, const QVariant &innermost, const char *text, int kind, int expected) {
        QTest::newRow(name) << innermost << QByteArray(text) << kind << expected;
    };
    // Each map is an array, a dict entry and a variant, and so is the map around them.
    row("maps", 5, "5", Maps, 20);
    row("lists", 5, "5", Lists, 30);
    row("variants", 5, "5", Variants, 61);
    row("maps in lists", "a"_s, "'a'", MapsInLists, 12);
    // Containers nest even when nothing is in them.
    const QDateTime time(QDate(2020, 2, 29), QTime(1, 2, 3, 4), Qt::UTC);
    row("QPoint in maps", QPoint(1, 2), "(1, 2)", Maps, 20);
    row("QPoint in variants", QPoint(1, 2), "(1, 2)", Variants, 60);
    row("empty list in maps", QVariantList(), "@av []", Maps, 20);
    row("empty list in variants", QVariantList(), "@av []", Variants, 60);
    row("empty string list in maps", QStringList(), "@as []", Maps, 20);
    row("empty string list in variants", QStringList(), "@as []", Variants, 60);
    row("empty map in maps", QVariantMap(), "@a{sv} {}", Maps, 19);
    row("empty map in variants", QVariantMap(), "@a{sv} {}", Variants, 59);
    row("QDateTime in maps", time, "((2020, 2, 29), (1, 2, 3, 4), 1)", Maps, 19);
    row("QDateTime in variants", time, "((2020, 2, 29), (1, 2, 3, 4), 1)", Variants, 58);
}

void TestParameters::deepNesting()
{
    QFETCH(QVariant, innermost);
    QFETCH(QByteArray, text);
    QFETCH(int, kind);
    QTEST(deepest(innermost, text, kind), "expected");
}

void TestParameters::mapsOfSomeSizeAreCarried()
{
    const auto client = newClient();
    const QString text(1024 * 1024, QLatin1Char('x'));
    QCOMPARE(sent(client.get(), {{"k"_s, text}}), "{'k': <'" + text.toLatin1() + "'>}");
}

void TestParameters::mapsTooLargeAreRefused_data()
{
    QTest::addColumn<QVariant>("value");
    const int size = 64 * 1024 * 1024;
    QTest::newRow("QByteArray") << QVariant(QByteArray(size, 'x'));
    QTest::newRow("QString") << QVariant(QString(size, QLatin1Char('x')));
    QTest::newRow("QString of two bytes a character") << QVariant(QString(size / 2, QChar(0x436)));
    const QByteArray part(size / 16, 'x');
    QVariantList parts;
    QStringList texts;
    for (int i = 0; i < 16; ++i) {
        parts.append(part);
        texts.append(QString::fromLatin1(part));
    }
    QTest::newRow("QVariantList") << QVariant(parts);
    QTest::newRow("QStringList") << QVariant(texts);
    QList<double> numbers;
    numbers.reserve(9000000);
    for (int i = 0; i < 9000000; ++i)
        numbers.append(i);
    QTest::newRow("QList<double>") << QVariant::fromValue(numbers);
}

void TestParameters::mapsTooLargeAreRefused()
{
    QFETCH(QVariant, value);
    checkRefused({{"key"_s, value}}, {"\"key"_s});
}

// A little is left for the challenge and what is around the values.
void TestParameters::largestMapIsCarried()
{
    const auto client = newClient();
    const int size = 62 * 1024 * 1024;
    // Not waited for: with everything checked on the way, the call may take longer than the 25 s of Qt D-Bus.
    client->factorMethod({{"key"_s, QString(size, QLatin1Char('x'))}}, "m"_s, {});
    const QString call = daemon.waitCalls("FactorMethod").value(0);
    QCOMPARE(call.count(QLatin1Char('x')), size);
    QCOMPARE(daemon.peerCount(), 1);
}

QTEST_GUILESS_MAIN(TestParameters)
#include "tst_parameters.moc"
