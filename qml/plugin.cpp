#include "parameters.h"

#include <AuthClient>
#include <AuthDevlockClient>
#include <AuthSettings>
#include <AuthSettingsClient>
#include <FactorListModel>

#include <QtCore/QDebug>
#include <QtQml/QQmlEngine>
#include <QtQml/QQmlExtensionPlugin>

/** The AuthClient that QML makes: to one made in C++, QML would hand a Uint8Array as a map, for instance. */
class QmlAuthClient : public AuthClient
{
    Q_OBJECT

public:
    Q_INVOKABLE void authenticate(const QString &service, const QJSValue &params)
    {
        QVariantMap values;
        if (read("authenticate", params, values))
            AuthClient::authenticate(service, values);
    }

    Q_INVOKABLE void changeAuthData(const QString &method, const QJSValue &params)
    {
        QVariantMap values;
        if (read("changeAuthData", params, values))
            AuthClient::changeAuthData(method, values);
    }

private:
    bool read(const char *call, const QJSValue &params, QVariantMap &values) const
    {
        ParameterReader reader(qjsEngine(this));
        values = reader.read(params);
        if (!reader.problem().isEmpty())
            qWarning() << call << "failed:" << reader.problem();
        return reader.problem().isEmpty();
    }
};

class VantoraAuthPlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QQmlExtensionInterface_iid)

public:
    void registerTypes(const char *uri) override
    {
        QMetaType::registerConverter<AuthParameterMap, QVariantMap>(
            [](const AuthParameterMap &params) { return params.values; });
        qmlRegisterType<QmlAuthClient>(uri, 1, 0, "AuthClient");
        qmlRegisterType<AuthDevlockClient>(uri, 1, 0, "AuthDevlockClient");
        qmlRegisterType<AuthSettings>(uri, 1, 0, "AuthSettings");
        qmlRegisterUncreatableType<FactorListModel>(
            uri, 1, 0, "FactorListModel",
            QStringLiteral("FactorListModel cannot be created: use the one of AuthSettingsClient.factors"));
        qmlRegisterSingletonType<AuthParameters>(
            uri, 1, 0, "AuthParameters", [](QQmlEngine *, QJSEngine *) -> QObject * { return new AuthParameters; });
        // Asked for when a binding first does, so that a screen that never does opens no connection.
        qmlRegisterSingletonType<AuthSettingsClient>(
            uri, 1, 0, "AuthSettingsClient", [](QQmlEngine *, QJSEngine *) -> QObject * {
                QQmlEngine::setObjectOwnership(AuthSettingsClient::get(), QQmlEngine::CppOwnership);
                return AuthSettingsClient::get();
            });
    }
};

#include "plugin.moc"
