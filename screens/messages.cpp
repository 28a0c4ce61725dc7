#include "messages.h"

#include <QtCore/QtEndian>

#include <cstring>
#include <ctime>

namespace AuthScreens::Wire {

namespace {

constexpr int SizeBytes = 4;
constexpr int HeaderBytes = 6; // version, kind, serial
// Frames are written into memory that does not grow under way, which would leave copies of secrets behind.
constexpr int Reserved = SizeBytes + MaxSize;
// The most elements that a list may have.
constexpr quint32 MaxElements = 1024;

template <typename Number> void append(QByteArray &data, Number value)
{
    char bytes[sizeof value];
    qToLittleEndian(value, bytes);
    data.append(bytes, int(sizeof value));
}

} // namespace

quint64 bootTime()
{
    timespec time = {};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return quint64(time.tv_sec) * 1000000000 + quint64(time.tv_nsec);
}

// Not by data(), which would make a copy of what is shared, and overwrite that.
void wipe(QByteArray &data)
{
    explicit_bzero(const_cast<char *>(data.constData()), size_t(data.size()));
    data.clear();
}

void wipe(QString &text)
{
    explicit_bzero(const_cast<QChar *>(text.constData()), size_t(text.size()) * sizeof(QChar));
    text.clear();
}

Encoder::Encoder(Kind kind)
{
    m_data.reserve(kind == Kind::Attempt ? Reserved : 64);
    append(m_data, quint32(0));
    m_data.append(char(Version));
    m_data.append(char(kind));
    append(m_data, quint32(0));
}

Encoder::~Encoder()
{
    wipe(m_data);
}

void Encoder::operator()(quint8 value)
{
    append(m_data, value);
}

void Encoder::operator()(bool value)
{
    append(m_data, quint8(value));
}

void Encoder::operator()(quint32 value)
{
    append(m_data, value);
}

void Encoder::operator()(qint32 value)
{
    append(m_data, value);
}

void Encoder::operator()(quint64 value)
{
    append(m_data, value);
}

void Encoder::operator()(Result value)
{
    append(m_data, quint8(value));
}

void Encoder::operator()(Setting value)
{
    append(m_data, quint8(value));
}

void Encoder::operator()(const QByteArray &value)
{
    append(m_data, quint32(value.size()));
    m_data.append(value);
}

void Encoder::operator()(const QString &value)
{
    QByteArray text = value.toUtf8();
    operator()(text);
    wipe(text);
}

void Encoder::operator()(const QStringList &value)
{
    append(m_data, quint32(value.size()));
    for (const QString &text : value)
        operator()(text);
}

QByteArray Encoder::frame(quint32 serial)
{
    if (m_data.size() > SizeBytes + MaxSize)
        return QByteArray();
    qToLittleEndian(quint32(m_data.size() - SizeBytes), m_data.data());
    qToLittleEndian(serial, m_data.data() + SizeBytes + 2);
    QByteArray frame;
    frame.swap(m_data);
    return frame;
}

Decoder::Decoder(const QByteArray &fields)
    : m_data(fields)
{
}

quint64 Decoder::number(int bytes)
{
    m_isGood = m_isGood && m_data.size() - m_position >= bytes;
    if (!m_isGood)
        return 0;
    quint64 value = 0;
    for (int i = 0; i < bytes; ++i)
        value |= quint64(quint8(m_data.at(m_position++))) << 8 * i;
    return value;
}

template <typename Enumeration> void Decoder::choice(Enumeration &value)
{
    const quint64 byte = number(1);
    m_isGood = m_isGood && byte <= quint64(Enumeration::Last);
    if (m_isGood)
        value = Enumeration(byte);
}

void Decoder::operator()(quint8 &value)
{
    value = quint8(number(1));
}

void Decoder::operator()(bool &value)
{
    const quint64 byte = number(1);
    m_isGood = m_isGood && byte <= 1;
    value = byte == 1;
}

void Decoder::operator()(quint32 &value)
{
    value = quint32(number(4));
}

void Decoder::operator()(qint32 &value)
{
    value = qint32(quint32(number(4)));
}

void Decoder::operator()(quint64 &value)
{
    value = number(8);
}

void Decoder::operator()(Result &value)
{
    choice(value);
}

void Decoder::operator()(Setting &value)
{
    choice(value);
}

void Decoder::operator()(QByteArray &value)
{
    const quint64 size = number(4);
    m_isGood = m_isGood && size <= quint64(m_data.size() - m_position);
    if (!m_isGood)
        return;
    value = m_data.mid(m_position, int(size));
    m_position += int(size);
}

void Decoder::operator()(QString &value)
{
    QByteArray bytes;
    operator()(bytes);
    value = QString::fromUtf8(bytes.constData(), bytes.size()); // The overload for QByteArray stops at a NUL.
    wipe(bytes);
}

void Decoder::operator()(QStringList &value)
{
    const quint64 count = number(4);
    m_isGood = m_isGood && count <= MaxElements;
    for (quint64 i = 0; m_isGood && i < count; ++i) {
        QString text;
        operator()(text);
        value.append(text);
    }
}

bool Decoder::isComplete() const
{
    return m_isGood && m_position == m_data.size();
}

FrameReader::FrameReader()
    : m_buffer(new char[Capacity])
{
}

FrameReader::~FrameReader()
{
    explicit_bzero(m_buffer.get(), m_size);
}

char *FrameReader::space()
{
    return m_buffer.get() + m_size;
}

size_t FrameReader::room() const
{
    return Capacity - m_size;
}

void FrameReader::fill(size_t bytes)
{
    m_size += bytes;
}

FrameReader::Found FrameReader::next(Frame &frame)
{
    if (m_isBroken)
        return Broken;
    if (m_size < size_t(SizeBytes))
        return Nothing;
    const auto size = qFromLittleEndian<quint32>(m_buffer.get());
    m_isBroken = size < quint32(HeaderBytes) || size > quint32(MaxSize);
    if (m_isBroken)
        return Broken;
    if (m_size < SizeBytes + size)
        return Nothing;

    const char *header = m_buffer.get() + SizeBytes;
    m_isBroken = quint8(header[0]) != Version || qFromLittleEndian<quint32>(header + 2) != m_serial;
    if (m_isBroken)
        return Broken;
    ++m_serial;
    frame.kind = Kind(quint8(header[1]));
    frame.fields = QByteArray(header + HeaderBytes, int(size) - HeaderBytes);
    drop(SizeBytes + size);
    return Whole;
}

void FrameReader::drop(size_t bytes)
{
    m_size -= bytes;
    memmove(m_buffer.get(), m_buffer.get() + bytes, m_size);
    explicit_bzero(m_buffer.get() + m_size, bytes);
}

} // namespace AuthScreens::Wire
