#include "messages.h"

#include <QtCore/QtEndian>
#include <QtTest/QtTest>

using namespace AuthScreens::Wire;

/** What screens and agents say to each other. */
class TestMessages : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fieldsArriveAsTheyWere();
    void framesFollowOneAnother();
    void framesArriveByteByByte();
    void largestFrameFits();
    void tooLargeFrameIsNotMade();
    void badHeaderIsRefused_data();
    void badHeaderIsRefused();
    void badFieldsAreRefused_data();
    void badFieldsAreRefused();
    void eachCutIsRefused();
    void secretsAreOverwritten();
};

namespace {

void feed(FrameReader *reader, const QByteArray &bytes)
{
    QVERIFY(size_t(bytes.size()) <= reader->room());
    memcpy(reader->space(), bytes.constData(), size_t(bytes.size()));
    reader->fill(size_t(bytes.size()));
}

Attempt attempt(const QByteArray &secret)
{
    Attempt result;
    result.service = QStringLiteral("unlock");
    result.factor = QStringLiteral("цифра\0");
    result.secret = secret;
    result.isText = false;
    result.uid = 4000000000;
    result.unlocks = true;
    return result;
}

Frame frameOf(const QByteArray &bytes)
{
    FrameReader reader;
    feed(&reader, bytes);
    Frame frame;
    if (reader.next(frame) != FrameReader::Whole)
        qFatal("There is no frame");
    return frame;
}

} // namespace

void TestMessages::fieldsArriveAsTheyWere()
{
    const QByteArray secret("a\0b\xff", 4);
    Attempt got;
    QVERIFY(decode(frameOf(encode(attempt(secret), 0)), got));
    QCOMPARE(got.service, QStringLiteral("unlock"));
    QCOMPARE(got.factor, attempt(secret).factor);
    QCOMPARE(got.secret, secret);
    QCOMPARE(got.isText, false);
    QCOMPARE(got.uid, 4000000000u);
    QCOMPARE(got.unlocks, true);

    State state;
    QVERIFY(decode(frameOf(encode(State{7, Q_UINT64_C(1) << 40, -3}, 0)), state));
    QCOMPARE(state.epoch, 7u);
    QCOMPARE(state.time, Q_UINT64_C(1) << 40);
    QCOMPARE(state.state, -3);
    QVERIFY(!decode(frameOf(encode(Follow(), 0)), state));
}

void TestMessages::framesFollowOneAnother()
{
    FrameReader reader;
    feed(&reader, encode(State{1, 2, 3}, 0) + encode(Ready(), 1) + encode(Gone(), 2));
    Frame frame;
    for (const Kind kind : {Kind::State, Kind::Ready, Kind::Gone}) {
        QCOMPARE(reader.next(frame), FrameReader::Whole);
        QCOMPARE(frame.kind, kind);
    }
    QCOMPARE(reader.next(frame), FrameReader::Nothing);
}

void TestMessages::framesArriveByteByByte()
{
    const QByteArray bytes = encode(State{1, 2, 3}, 0);
    FrameReader reader;
    Frame frame;
    for (int i = 0; i < bytes.size(); ++i) {
        QCOMPARE(reader.next(frame), FrameReader::Nothing);
        feed(&reader, bytes.mid(i, 1));
    }
    QCOMPARE(reader.next(frame), FrameReader::Whole);
}

void TestMessages::largestFrameFits()
{
    const int others = encode(attempt(QByteArray()), 0).size();
    const QByteArray secret(4 + MaxSize - others, 'x');
    const QByteArray bytes = encode(attempt(secret), 0);
    QCOMPARE(bytes.size(), 4 + MaxSize);
    Attempt got;
    QVERIFY(decode(frameOf(bytes), got));
    QCOMPARE(got.secret, secret);
    QVERIFY(encode(attempt(secret + 'x'), 0).isEmpty());
}

void TestMessages::tooLargeFrameIsNotMade()
{
    QVERIFY(encode(attempt(QByteArray(1 << 20, 'x')), 0).isEmpty());
}

void TestMessages::badHeaderIsRefused_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const auto with = [](int place, quint32 value, int size) {
        QByteArray bytes = encode(State{1, 2, 3}, 0);
        for (int i = 0; i < size; ++i)
            bytes[place + i] = char(value >> 8 * i);
        return bytes;
    };
    QTest::newRow("size 0") << with(0, 0, 4);
    QTest::newRow("size without a header") << with(0, 5, 4);
    QTest::newRow("size above the most") << with(0, MaxSize + 1, 4);
    QTest::newRow("size of 1 MiB") << with(0, 1 << 20, 4);
    QTest::newRow("size of 4 GiB") << with(0, 0xffffffff, 4);
    QTest::newRow("version 0") << with(4, 0, 1);
    QTest::newRow("next version") << with(4, Version + 1, 1);
    QTest::newRow("another serial number") << with(6, 1, 4);
}

void TestMessages::badHeaderIsRefused()
{
    QFETCH(QByteArray, bytes);
    FrameReader reader;
    feed(&reader, bytes);
    Frame frame;
    QCOMPARE(reader.next(frame), FrameReader::Broken);
    // What comes then may look well.
    feed(&reader, encode(State{1, 2, 3}, 0));
    QCOMPARE(reader.next(frame), FrameReader::Broken);
}

void TestMessages::badFieldsAreRefused_data()
{
    QTest::addColumn<int>("place");
    QTest::addColumn<QByteArray>("bytes");
    // Of the fields: the size of the service comes first, and after 6 letters that of the factor, 11 bytes, and the secret.
    QTest::newRow("text longer than the frame") << 0 << QByteArray("\xff\0\0\0", 4);
    QTest::newRow("text of 4 GiB") << 0 << QByteArray("\xff\xff\xff\xff", 4);
    QTest::newRow("text shorter than it is") << 0 << QByteArray("\x05\0\0\0", 4);
    QTest::newRow("secret longer than the frame") << 25 << QByteArray("\x0d\0\0\0", 4);
    QTest::newRow("truth of 2") << 32 << QByteArray("\x02");
}

void TestMessages::badFieldsAreRefused()
{
    QFETCH(int, place);
    QFETCH(QByteArray, bytes);
    Frame frame = frameOf(encode(attempt("abc"), 0));
    Attempt got;
    QVERIFY(decode(frame, got));
    frame.fields.replace(place, bytes.size(), bytes);
    QVERIFY(!decode(frame, got));
}

void TestMessages::eachCutIsRefused()
{
    const Frame frame = frameOf(encode(attempt("abc"), 0));
    Attempt got;
    for (int size = 0; size < frame.fields.size(); ++size)
        QVERIFY2(!decode(Frame{frame.kind, frame.fields.left(size)}, got), qPrintable(QString::number(size)));
    QVERIFY(!decode(Frame{frame.kind, frame.fields + 'x'}, got));
}

void TestMessages::secretsAreOverwritten()
{
    QByteArray bytes(8, 'x');
    const QByteArray other = bytes;
    wipe(bytes);
    QVERIFY(bytes.isEmpty());
    QCOMPARE(other, QByteArray(8, '\0'));
    QString text(8, QLatin1Char('x'));
    const QString otherText = text;
    wipe(text);
    QVERIFY(text.isEmpty());
    QCOMPARE(otherText, QString(8, QChar(0)));

    FrameReader reader;
    const char *memory = reader.space();
    const QByteArray frame = encode(attempt("s3cr3t"), 0);
    feed(&reader, frame);
    Frame got;
    QCOMPARE(reader.next(got), FrameReader::Whole);
    QCOMPARE(QByteArray(memory, frame.size()), QByteArray(frame.size(), '\0'));
}

QTEST_APPLESS_MAIN(TestMessages)

#include "tst_messages.moc"
