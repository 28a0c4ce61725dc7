#include "factor-settings-base.h"

#include "auth-settings-client.h"
#include "authd/options.h"

class FactorSettingsBasePrivate
{
public:
    AuthSettingsClient *const client;
    const QString method;
};

// The parent comes last: should the process end meanwhile, a parent that is a static object must not find a half-made
// child.
FactorSettingsBase::FactorSettingsBase(QObject *parent, const QString &method)
    : d(new FactorSettingsBasePrivate{AuthSettingsClient::get(), method})
{
    connect(d->client, &AuthClient::factorSignal, this, [this](const QString &factor, const QVariantMap &params) {
        const QVariant type = params.value(Authd::Key::Type);
        // QVariant of Qt 5.15 finds a byte array, and a list of one string, equal to a string.
        if (factor != d->method || type.userType() != QMetaType::QString
            || type.toString() != Authd::Request::OptionChanged)
            return;
        handleOptionChanged(params.value(Authd::Key::Uid).toUInt(), params.value(Authd::Key::Name).toString(),
                            params.value(Authd::Key::Value));
    });
    setParent(parent);
}

FactorSettingsBase::~FactorSettingsBase() = default;

QVariant FactorSettingsBase::getOption(uint uid, const QString &name) const
{
    return d->client->factorMethodWait(
        {
            {Authd::Key::Uid, uid},
            {Authd::Key::Type, Authd::Request::GetOption},
            {Authd::Key::Name, name},
        },
        d->method);
}

void FactorSettingsBase::setOption(uint uid, const QString &name, const QVariant &value)
{
    d->client->factorMethod(
        {
            {Authd::Key::Uid, uid},
            {Authd::Key::Type, Authd::Request::SetOption},
            {Authd::Key::Name, name},
            {Authd::Key::Value, value},
        },
        d->method, ValueCallBack());
}

void FactorSettingsBase::doAction(uint uid, const QString &name, const QVariantMap &params,
                                  const ValueCallBack &callback) const
{
    d->client->factorMethod(
        {
            {Authd::Key::Uid, uid},
            {Authd::Key::Type, Authd::Request::Action},
            {Authd::Key::Name, name},
            {Authd::Key::Params, params},
        },
        d->method, callback);
}

void FactorSettingsBase::handleOptionChanged(uint, const QString &, const QVariant &)
{
}
