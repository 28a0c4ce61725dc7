#include "values.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>

#include <limits>

namespace {

template <typename Number> QVariant integer(const QString &text)
{
    bool ok = false;
    if constexpr (std::numeric_limits<Number>::is_signed) {
        const qlonglong value = text.toLongLong(&ok, 0);
        ok = ok && value >= std::numeric_limits<Number>::min() && value <= std::numeric_limits<Number>::max();
        return ok ? QVariant::fromValue(Number(value)) : QVariant();
    } else {
        const qulonglong value = text.toULongLong(&ok, 0);
        ok = ok && value <= std::numeric_limits<Number>::max();
        return ok ? QVariant::fromValue(Number(value)) : QVariant();
    }
}

QVariant parseJson(const QString &text)
{
    // Wrapped, because a document holds nothing but arrays and objects.
    const QJsonDocument document = QJsonDocument::fromJson('[' + text.toUtf8() + ']');
    return document.array().size() == 1 ? document.array().first().toVariant() : QVariant();
}

QVariant parseValue(const QString &type, const QString &text)
{
    if (type == QLatin1String("s"))
        return text;
    if (type == QLatin1String("b")) {
        const bool yes = text == QLatin1String("true");
        return yes || text == QLatin1String("false") ? QVariant(yes) : QVariant();
    }
    if (type == QLatin1String("y"))
        return integer<uchar>(text);
    if (type == QLatin1String("n"))
        return integer<short>(text);
    if (type == QLatin1String("q"))
        return integer<ushort>(text);
    if (type == QLatin1String("i"))
        return integer<int>(text);
    if (type == QLatin1String("u"))
        return integer<uint>(text);
    if (type == QLatin1String("x"))
        return integer<qlonglong>(text);
    if (type == QLatin1String("t"))
        return integer<qulonglong>(text);
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
        return parseJson(text);
    return QVariant();
}

} // namespace

bool parseParameter(const QString &text, QVariantMap &params)
{
    static const QRegularExpression form(QStringLiteral("^([^=:]+)(?::([a-z]+))?=(.*)$"),
                                         QRegularExpression::DotMatchesEverythingOption);
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch())
        return false;
    const QString type = match.captured(2).isEmpty() ? QStringLiteral("s") : match.captured(2);
    const QVariant value = parseValue(type, match.captured(3));
    params.insert(match.captured(1), value);
    return value.isValid();
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
    case QMetaType::UInt:
    case QMetaType::LongLong:
        return value.toLongLong();
    case QMetaType::ULongLong: {
        const qulonglong number = value.toULongLong();
        if (number <= qulonglong(std::numeric_limits<qlonglong>::max()))
            return qlonglong(number);
        return QString::number(number);
    }
    default:
        return QStringLiteral("<%1>").arg(QLatin1String(value.typeName()));
    }
}
