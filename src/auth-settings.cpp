#include "auth-settings.h"

#include "authd/options.h"
#include "factor-settings-base.h"

#include <QtCore/QPointer>

class AuthSettingsPrivate : public FactorSettingsBase
{
public:
    explicit AuthSettingsPrivate(AuthSettings *publicObject)
        : FactorSettingsBase(publicObject, Authd::Option::Worker)
        , q(publicObject)
    {
    }

    AuthSettings *const q;
    uint uid = 0;

protected:
    void handleOptionChanged(uint changedUid, const QString &name, const QVariant &) override
    {
        if (changedUid == uid && name == Authd::Option::LastLoginDate)
            emit q->lastLoginDateChanged();
    }
};

// The parent comes last: should the process end meanwhile, a parent that is a static object must not find a half-made
// child.
AuthSettings::AuthSettings(QObject *parent)
    : d(new AuthSettingsPrivate(this))
{
    setParent(parent);
}

AuthSettings::~AuthSettings() = default;

uint AuthSettings::uid() const
{
    return d->uid;
}

void AuthSettings::setUid(uint uid)
{
    if (d->uid == uid)
        return;
    d->uid = uid;
    const QPointer<AuthSettings> self(this);
    emit uidChanged();
    if (self)
        emit lastLoginDateChanged();
}

QString AuthSettings::lastLoginDate() const
{
    return d->getOption(d->uid, Authd::Option::LastLoginDate).toString();
}
