#include "reader.h"

#include <AuthSettingsClient>
#include <FactorSettingsBase>

// AuthSettingsClient shows no rows for factors that are chosen by somebody else for the user, and does not tell whether it
// could read them: the options are asked for as the daemon's own method offers them.
bool readChoice(uint uid, AuthScreens::Wire::Choice *choice)
{
    AuthSettingsClient *settings = AuthSettingsClient::get();
    settings->setUid(uid);
    const FactorSettingsBase daemon(nullptr, QStringLiteral("worker"));
    const auto read = [&](const QString &service, QStringList *names) {
        const QVariant value = daemon.getOption(uid, QStringLiteral("service-factors/") + service);
        for (const QString &name : value.toStringList()) {
            if (settings->hasFactor(name))
                names->append(name);
        }
        return value.isValid();
    };
    if (!read(QStringLiteral("login"), &choice->login) || !read(QStringLiteral("unlock"), &choice->unlock))
        return false;
    if (settings->showLastLogin(uid))
        choice->lastLogin = settings->lastLoginDate(uid);
    return true;
}
