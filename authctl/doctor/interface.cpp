#include "interface.h"

#include <QtCore/QXmlStreamReader>

const Interface MainInterface{
    "/vantora/AuthService",
    "vantora.AuthService",
    {"method RequestChallenge()ay", "method Authenticate(sa{sv})b", "method ChangeAuthData(sa{sv})b",
     "method UnlockIfNeeded()", "method SetDevlockState(ayi)b", "method FactorMethod(aysa{sv})v",
     "signal Authenticated(ay)", "signal AuthenticationFailed()", "signal AuthDataChanged()",
     "signal ChangeAuthDataFailed()", "signal UnlockIfNeededFinished(b)"},
};
const Interface SettingsInterface{
    "/vantora/AuthService/Settings",
    "vantora.AuthService.Settings",
    {"method GetOption(s)v", "method GetUserOption(us)v", "method GetUserOptions(uas)a{sv}",
     "method SetUserOption(uaysv)b", "signal Factor(sa{sv})", "signal OptionChanged(sv)",
     "signal UserOptionChanged(usv)"},
};
const Interface DevlockInterface{
    "/vantora/AuthService/Devlock",
    "vantora.AuthService.Devlock",
    {"method GetState()i", "method SetState(i)", "signal StateChanged(i)"},
};

QStringList missing(const Interface &expected, const QString &description)
{
    QStringList offered;
    bool hasInterface = false;
    QXmlStreamReader xml(description);
    const auto attribute = [&xml](const char *name) { return xml.attributes().value(QLatin1String(name)).toString(); };
    xml.readNextStartElement();
    while (xml.readNextStartElement()) {
        if (xml.name() != QLatin1String("interface") || attribute("name") != QLatin1String(expected.name)) {
            xml.skipCurrentElement();
            continue;
        }
        hasInterface = true;
        while (xml.readNextStartElement()) {
            const QString kind = xml.name().toString();
            const QString name = attribute("name");
            QString in, out;
            while (xml.readNextStartElement()) {
                const bool toHost = kind == QLatin1String("method") && attribute("direction") == QLatin1String("out");
                if (xml.name() == QLatin1String("arg"))
                    (toHost ? out : in) += attribute("type");
                xml.skipCurrentElement();
            }
            offered.append(QStringLiteral("%1 %2(%3)").arg(kind, name, in));
            offered.append(offered.last() + out);
        }
    }
    if (!hasInterface)
        return {QStringLiteral("the interface %1").arg(QLatin1String(expected.name))};
    QStringList lacking;
    for (const char *const *member = expected.members; *member; ++member) {
        if (!offered.contains(QLatin1String(*member)))
            lacking.append(QLatin1String(*member));
    }
    return lacking;
}
