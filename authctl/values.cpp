#include "values.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>
#include <QtDBus/QDBusArgument>

#include <algorithm>
#include <limits>

namespace {

/** What is beyond it is not always exact in JSON. */
constexpr qlonglong LargestInteger = 1LL << 53;

template <typename Number> QVariant integer(const QString &text, QString &problem)
{
    using Limits = std::numeric_limits<Number>;
    using Widest = std::conditional_t<Limits::is_signed, qlonglong, qulonglong>;
    bool ok = false;
    Widest value = 0;
    if constexpr (Limits::is_signed)
        value = text.toLongLong(&ok, 0);
    else
        value = text.toULongLong(&ok, 0);
    if (ok && value >= Limits::min() && value <= Limits::max())
        return QVariant::fromValue(Number(value));
    problem =
        QStringLiteral("the value is not a number from %1 to %2").arg(Widest(Limits::min())).arg(Widest(Limits::max()));
    return QVariant();
}

bool holdsNull(const QJsonValue &value)
{
    if (value.isArray()) {
        const QJsonArray array = value.toArray();
        return std::any_of(array.begin(), array.end(), holdsNull);
    }
    const QJsonObject object = value.toObject();
    return value.isNull() || std::any_of(object.begin(), object.end(), holdsNull);
}

QVariant parseJson(const QString &text, QString &problem)
{
    // Wrapped, because a document holds nothing but arrays and objects.
    const QJsonArray values = QJsonDocument::fromJson('[' + text.toUtf8() + ']').array();
    if (values.size() != 1)
        return QVariant();
    if (!holdsNull(values.first()))
        return values.first().toVariant();
    problem = QStringLiteral("D-Bus has no null");
    return QVariant();
}

QVariant parseValue(const QString &type, const QString &text, QString &problem)
{
    if (type == QLatin1String("s"))
        return text;
    if (type == QLatin1String("b")) {
        const bool yes = text == QLatin1String("true");
        return yes || text == QLatin1String("false") ? QVariant(yes) : QVariant();
    }
    if (type == QLatin1String("y"))
        return integer<uchar>(text, problem);
    if (type == QLatin1String("n"))
        return integer<short>(text, problem);
    if (type == QLatin1String("q"))
        return integer<ushort>(text, problem);
    if (type == QLatin1String("i"))
        return integer<int>(text, problem);
    if (type == QLatin1String("u"))
        return integer<uint>(text, problem);
    if (type == QLatin1String("x"))
        return integer<qlonglong>(text, problem);
    if (type == QLatin1String("t"))
        return integer<qulonglong>(text, problem);
    if (type == QLatin1String("d")) {
        bool ok = false;
        const double value = text.toDouble(&ok);
        return ok ? QVariant(value) : QVariant();
    }
    if (type == QLatin1String("ay")) {
        static const QRegularExpression digits(QStringLiteral("^([0-9a-fA-F]{2})*$"));
        return digits.match(text).hasMatch() ? QVariant(QByteArray::fromHex(text.toLatin1())) : QVariant();
    }
    if (type == QLatin1String("as"))
        return text.isEmpty() ? QStringList() : text.split(QLatin1Char(','));
    if (type == QLatin1String("json"))
        return parseJson(text, problem);
    problem = QStringLiteral("there is no such type");
    return QVariant();
}

QJsonValue toJson(const QDBusArgument &argument)
{
    QJsonArray array;
    QJsonObject object;
    switch (argument.currentType()) {
    case QDBusArgument::ArrayType:
        argument.beginArray();
        while (!argument.atEnd())
            array.append(toJson(argument.asVariant()));
        argument.endArray();
        return array;
    case QDBusArgument::StructureType:
        argument.beginStructure();
        while (!argument.atEnd())
            array.append(toJson(argument.asVariant()));
        argument.endStructure();
        return array;
    case QDBusArgument::MapType:
        argument.beginMap();
        while (!argument.atEnd()) {
            argument.beginMapEntry();
            const QString key = toJson(argument.asVariant()).toVariant().toString();
            object.insert(key, toJson(argument.asVariant()));
            argument.endMapEntry();
        }
        argument.endMap();
        return object;
    default:
        return toJson(argument.asVariant());
    }
}

} // namespace

QString parseParameter(const QString &text, QVariantMap &params)
{
    static const QRegularExpression form(QStringLiteral("^([^=:]+)(?::([a-z]+))?=(.*)$"),
                                         QRegularExpression::DotMatchesEverythingOption);
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch())
        return QStringLiteral("not KEY=VALUE or KEY:TYPE=VALUE");
    if (params.contains(match.captured(1)))
        return QStringLiteral("the key is given twice, or it is \"type\", which TYPE stands for");
    const QString type = match.captured(2).isEmpty() ? QStringLiteral("s") : match.captured(2);
    QString problem = QStringLiteral("the value is not of its type");
    const QVariant value = parseValue(type, match.captured(3), problem);
    params.insert(match.captured(1), value);
    return value.isValid() ? QString() : problem;
}

QJsonValue toJson(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::QVariantMap: {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            object.insert(it.key(), toJson(it.value()));
        return object;
    }
    case QMetaType::QVariantList: {
        QJsonArray array;
        const QVariantList list = value.toList();
        for (const QVariant &element : list)
            array.append(toJson(element));
        return array;
    }
    case QMetaType::QByteArray:
        return QString::fromLatin1(value.toByteArray().toHex());
    case QMetaType::Bool:
    case QMetaType::QString:
    case QMetaType::QStringList:
    case QMetaType::Double:
        return QJsonValue::fromVariant(value);
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::UChar:
    case QMetaType::Int:
        return value.toInt();
    case QMetaType::UInt:
        return qint64(value.toUInt());
    case QMetaType::LongLong: {
        const qlonglong number = value.toLongLong();
        return number >= -LargestInteger && number <= LargestInteger ? QJsonValue(number) : value.toString();
    }
    case QMetaType::ULongLong: {
        const qulonglong number = value.toULongLong();
        return number <= qulonglong(LargestInteger) ? QJsonValue(qint64(number)) : value.toString();
    }
    default:
        if (value.userType() == qMetaTypeId<QDBusArgument>())
            return toJson(qvariant_cast<QDBusArgument>(value));
        if (value.userType() == qMetaTypeId<QDBusVariant>())
            return toJson(qvariant_cast<QDBusVariant>(value).variant());
        if (value.userType() == qMetaTypeId<QDBusObjectPath>())
            return qvariant_cast<QDBusObjectPath>(value).path();
        if (value.userType() == qMetaTypeId<QDBusSignature>())
            return qvariant_cast<QDBusSignature>(value).signature();
        return QStringLiteral("<%1>").arg(QLatin1String(value.typeName()));
    }
}
