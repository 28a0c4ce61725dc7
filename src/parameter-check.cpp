#include "parameter-check.h"

#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusMetaType>
#include <QtDBus/QDBusUnixFileDescriptor>
#include <QtDBus/QDBusVariant>

namespace {

// A receiver turns away a message whose containers (arrays, dict entries, structures and variants) nest deeper than
// this, and the whole connection with it.
constexpr int MaximumDepth = 64;

// An array can have 64 MiB, and the whole map is one; what is left out here is room for the challenge.
constexpr qint64 MaximumSize = qint64(63) * 1024 * 1024;

// The most that a number takes, a structure of Qt D-Bus' own, and the signature, length and padding of another
// value.
constexpr qint64 NumberSize = 16;
constexpr qint64 StructureSize = 48;
constexpr qint64 ValueSize = 24;

/** Walks a parameter map as the marshaller will, and finds what it would stumble over. */
class ParameterCheck
{
public:
    explicit ParameterCheck(bool canPassDescriptors)
        : m_canPassDescriptors(canPassDescriptors)
    {
    }

    bool map(const QVariantMap &values, int depth);
    QString reason() const;

private:
    bool value(const QVariant &value, int depth);
    bool compound(const QVariant &value, int depth);
    bool argument(const QDBusArgument &argument, int depth);
    bool list(const QVariantList &values, int depth);
    bool enter(const QByteArray &signature, int depth);
    bool text(const QString &text);
    bool add(qint64 size);
    bool failAt(const QString &step);
    bool refuse(const QString &problem);

    const bool m_canPassDescriptors;
    qint64 m_size = 0;
    QString m_path;
    QString m_type;
    QString m_problem;
};

QString ParameterCheck::reason() const
{
    return m_path + QLatin1String(" of type ") + m_type + QLatin1Char(' ') + m_problem;
}

bool ParameterCheck::map(const QVariantMap &values, int depth)
{
    for (auto it = values.begin(); it != values.end(); ++it) {
        // An array, a dict entry and a variant enclose the value.
        if (!text(it.key()) || !value(it.value(), depth + 3)) {
            if (m_type.isEmpty())
                m_type = QStringLiteral("QString");
            return failAt(it.key());
        }
    }
    return true;
}

bool ParameterCheck::list(const QVariantList &values, int depth)
{
    for (int i = 0; i < values.size(); ++i) {
        if (!value(values.at(i), depth))
            return failAt(QStringLiteral("[%1]").arg(i));
    }
    return true;
}

bool ParameterCheck::value(const QVariant &value, int depth)
{
    bool good = false;
    if (depth > MaximumDepth) {
        good = refuse(QStringLiteral("is nested too deeply for D-Bus"));
    } else {
        switch (value.userType()) {
        case QMetaType::Bool:
        case QMetaType::UChar:
        case QMetaType::Short:
        case QMetaType::UShort:
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
        case QMetaType::Double:
            good = add(NumberSize);
            break;
        case QMetaType::QString:
            good = text(value.toString());
            break;
        case QMetaType::QByteArray:
            good = add(ValueSize + value.toByteArray().size());
            break;
        default:
            good = compound(value, depth);
        }
    }
    if (!good && m_type.isEmpty())
        m_type = value.isValid() ? QString::fromLatin1(value.typeName()) : QStringLiteral("Invalid");
    return good;
}

bool ParameterCheck::compound(const QVariant &value, int depth)
{
    const int type = value.userType();
    if (type == qMetaTypeId<QDBusVariant>())
        return this->value(value.value<QDBusVariant>().variant(), depth + 1);
    if (type == qMetaTypeId<QDBusArgument>())
        return argument(value.value<QDBusArgument>(), depth);

    // The signature of a type whose own operator is faulty is empty.
    const QByteArray signature = type == QMetaType::UnknownType ? nullptr : QDBusMetaType::typeToSignature(type);
    bool sendable = !signature.isEmpty();
    if (type == qMetaTypeId<QDBusObjectPath>())
        sendable = !value.value<QDBusObjectPath>().path().isEmpty();
    else if (type == qMetaTypeId<QDBusSignature>())
        sendable = !value.value<QDBusSignature>().signature().isEmpty();
    else if (type == qMetaTypeId<QDBusUnixFileDescriptor>())
        sendable = m_canPassDescriptors && value.value<QDBusUnixFileDescriptor>().isValid();
    if (!sendable)
        return refuse(QStringLiteral("cannot be sent over D-Bus"));

    if (!enter(signature, depth))
        return false;
    // Not QVariant::toMap() and toList(), which in Qt 5.15 give nothing for types that a host has registered.
    if (value.canConvert<QVariantMap>())
        return map(value.value<QVariantMap>(), depth);
    if (value.canConvert<QVariantList>())
        return list(value.value<QVariantList>(), type == QMetaType::QVariantList ? depth + 2 : depth + 1);
    return true;
}

// A structure that the bus delivered, and that nobody decoded, can be sent back.
bool ParameterCheck::argument(const QDBusArgument &argument, int depth)
{
    const QByteArray signature = argument.currentSignature().toLatin1();
    const QDBusArgument::ElementType type = argument.currentType();
    // The argument is empty, read to its end, or still being written.
    if (type == QDBusArgument::UnknownType)
        return refuse(QStringLiteral("cannot be sent over D-Bus"));
    if (type == QDBusArgument::BasicType || type == QDBusArgument::VariantType || signature == "ay"
        || signature == "as")
        return value(argument.asVariant(), depth);

    if (!enter(signature, depth))
        return false;
    bool good = true;
    // All containers are entered alike for reading.
    argument.beginStructure();
    while (good && !argument.atEnd())
        good = this->argument(argument, depth + 1);
    argument.endStructure();
    return good;
}

// Containers count even if there is nothing in them. Those side by side in a structure are counted as if they were
// nested: few structures have any.
bool ParameterCheck::enter(const QByteArray &signature, int depth)
{
    if (depth + signature.count('a') + signature.count('(') + signature.count('{') > MaximumDepth)
        return refuse(QStringLiteral("is nested too deeply for D-Bus"));
    return add(signature.startsWith('(') ? StructureSize : ValueSize);
}

// Strings that the bus would shorten or alter are refused like values that it cannot carry: they may be secrets.
bool ParameterCheck::text(const QString &text)
{
    qint64 size = ValueSize + text.size();
    // QString::at() would check each index.
    const QChar *const end = text.constData() + text.size();
    for (const QChar *c = text.constData(); c != end; ++c) {
        if (c->isNull())
            return refuse(QStringLiteral("holds a NUL character, which D-Bus cannot carry"));
        if (c->unicode() < 0x80)
            continue;
        if (c->isSurrogate()) {
            if (c->isLowSurrogate() || c + 1 == end || !(c + 1)->isLowSurrogate())
                return refuse(QStringLiteral("holds half a surrogate pair, which D-Bus cannot carry"));
            ++c;
            size += 2;
        } else {
            size += c->unicode() < 0x800 ? 1 : 2;
        }
    }
    return add(size);
}

bool ParameterCheck::add(qint64 size)
{
    m_size += size;
    return m_size <= MaximumSize || refuse(QStringLiteral("makes the parameters too large for D-Bus"));
}

// Puts the place of a failure in front of the path, from the inside to the outside.
bool ParameterCheck::failAt(const QString &step)
{
    if (!m_path.isEmpty() && !m_path.startsWith(QLatin1Char('[')))
        m_path.prepend(QLatin1Char('.'));
    m_path.prepend(step);
    return false;
}

bool ParameterCheck::refuse(const QString &problem)
{
    m_problem = problem;
    return false;
}

} // namespace

QString unsendableReason(const QVariantMap &parameters, const QDBusConnection &bus)
{
    ParameterCheck check(bus.connectionCapabilities() & QDBusConnection::UnixFileDescriptorPassing);
    return check.map(parameters, 0) ? QString() : check.reason();
}
