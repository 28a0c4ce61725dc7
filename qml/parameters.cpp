#include "parameters.h"

#include <QtQml/QJSEngine>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {
// More lists or maps inside each other than the library sends.
constexpr int MaximumDepth = 32;

// The largest whole number up to which JavaScript has all of them.
constexpr double MaximumInteger = 9007199254740992;

const char Kind[] = R"((function (value) {
    if (value === null || typeof value !== "object")
        return value === null ? "null" : typeof value;
    const tag = Object.prototype.toString.call(value).slice(8, -1);
    if (tag !== "Object")
        return tag;
    const prototype = Object.getPrototypeOf(value);
    return prototype === null || prototype === Object.prototype ? tag : "class instance";
}))";

const char Bytes[] = R"((function (value) {
    return ArrayBuffer.isView(value) ? Uint8Array.prototype.slice.call(value).buffer
                                     : ArrayBuffer.prototype.slice.call(value, 0);
}))";

QString notCarried()
{
    return QStringLiteral("cannot be sent over D-Bus");
}

QVariant numberOf(double number)
{
    if (!(std::abs(number) <= MaximumInteger) || std::trunc(number) != number)
        return number;
    const auto whole = qint64(number);
    if (whole < std::numeric_limits<int>::min() || whole > std::numeric_limits<int>::max())
        return whole;
    return int(whole);
}
} // namespace

ParameterReader::ParameterReader(QJSEngine *engine)
    : m_kind(engine->evaluate(QLatin1String(Kind)))
    , m_keys(engine->evaluate(QStringLiteral("Object.keys")))
    , m_bytes(engine->evaluate(QLatin1String(Bytes)))
{
}

QVariantMap ParameterReader::read(const QJSValue &params)
{
    const QVariant result = value(params);
    if (m_problem.isEmpty() && result.userType() != QMetaType::QVariantMap)
        refuse(m_kind.call({params}).toString(), notCarried());
    if (m_problem.isEmpty())
        return result.toMap();
    if (m_path.isEmpty())
        m_path = QStringLiteral("params");
    return {};
}

QString ParameterReader::problem() const
{
    return m_path + m_problem;
}

// Nothing of JavaScript's own goes through QJSValue::toVariant(), which crashes on a symbol in an object.
QVariant ParameterReader::value(const QJSValue &value)
{
    if (value.isBool())
        return value.toBool();
    if (value.isNumber())
        return numberOf(value.toNumber());
    if (value.isString())
        return value.toString();
    if (value.isQObject())
        return refuse(QStringLiteral("QObject"), notCarried());
    if (value.isVariant()) {
        QVariant variant = value.toVariant();
        if (variant.userType() == qMetaTypeId<AuthParameterMap>())
            return variant.value<AuthParameterMap>().values;
        return variant;
    }

    const QString kind = m_kind.call({value}).toString();
    if (kind == QLatin1String("QmlSequence"))
        return value.toVariant();
    if (kind == QLatin1String("ArrayBuffer") || kind == QLatin1String("Uint8Array")) {
        const QVariant bytes = m_bytes.call({value}).toVariant();
        return bytes.userType() == QMetaType::QByteArray ? bytes : refuse(kind, notCarried());
    }

    const bool isList = value.isArray();
    if (!isList && kind != QLatin1String("Object"))
        return refuse(kind, notCarried());
    const auto isSame = [&value](const QJSValue &other) { return other.strictlyEquals(value); };
    if (std::any_of(m_containers.cbegin(), m_containers.cend(), isSame))
        return refuse(kind, QStringLiteral("contains itself, which D-Bus cannot carry"));
    if (m_containers.size() == MaximumDepth)
        return refuse(kind, QStringLiteral("is nested too deeply for D-Bus"));
    m_containers.append(value);
    QVariant result = isList ? list(value) : map(value);
    m_containers.removeLast();
    return result;
}

QVariant ParameterReader::list(const QJSValue &array)
{
    QVariantList values;
    QStringList strings;
    const quint32 length = array.property(QStringLiteral("length")).toUInt();
    for (quint32 i = 0; i < length; ++i) {
        const QJSValue element = array.property(i);
        values.append(value(element));
        if (!m_problem.isEmpty()) {
            failAt(QStringLiteral("[%1]").arg(i));
            return {};
        }
        if (element.isString())
            strings.append(element.toString());
    }
    if (!strings.isEmpty() && strings.size() == values.size())
        return strings;
    return values;
}

QVariant ParameterReader::map(const QJSValue &object)
{
    QVariantMap values;
    const QJSValue keys = m_keys.call({object});
    if (!keys.isArray())
        return refuse(QStringLiteral("Object"), QStringLiteral("throws an error when it is read"));
    const quint32 length = keys.property(QStringLiteral("length")).toUInt();
    for (quint32 i = 0; i < length; ++i) {
        const QString key = keys.property(i).toString();
        values.insert(key, value(object.property(key)));
        if (!m_problem.isEmpty()) {
            failAt(key);
            return {};
        }
    }
    return values;
}

QVariant ParameterReader::refuse(const QString &type, const QString &problem)
{
    m_problem = QLatin1String(" of type ") + type + QLatin1Char(' ') + problem;
    return {};
}

// Puts the place of a failure in front of the path, from the inside to the outside.
void ParameterReader::failAt(const QString &step)
{
    if (!m_path.isEmpty() && !m_path.startsWith(QLatin1Char('[')))
        m_path.prepend(QLatin1Char('.'));
    m_path.prepend(step);
}

QVariant AuthParameters::from(const QJSValue &params)
{
    QJSEngine *engine = qjsEngine(this);
    ParameterReader reader(engine);
    const QVariantMap values = reader.read(params);
    if (!reader.problem().isEmpty())
        engine->throwError(QJSValue::TypeError, reader.problem());
    return QVariant::fromValue(AuthParameterMap{values});
}
