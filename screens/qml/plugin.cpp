#include <DeviceLock>
#include <FactorModel>
#include <SignIn>
#include <UserSettings>

#include <QtQml/QQmlEngine>
#include <QtQml/QQmlExtensionPlugin>

class VantoraAuthScreensPlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QQmlExtensionInterface_iid)

public:
    void registerTypes(const char *uri) override
    {
        qRegisterMetaType<AuthScreens::Reason>();
        qRegisterMetaType<AuthScreens::UserSettings::Setting>();
        qRegisterMetaType<AuthScreens::FactorModel *>();
        qmlRegisterType<AuthScreens::DeviceLock>(uri, 1, 0, "DeviceLock");
        qmlRegisterType<AuthScreens::SignIn>(uri, 1, 0, "SignIn");
        qmlRegisterType<AuthScreens::UserSettings>(uri, 1, 0, "UserSettings");
        qmlRegisterUncreatableType<AuthScreens::FactorModel>(
            uri, 1, 0, "FactorModel", QStringLiteral("FactorModel cannot be created: use those of UserSettings"));
        qmlRegisterUncreatableMetaObject(AuthScreens::staticMetaObject, uri, 1, 0, "Reason",
                                         QStringLiteral("Reason has values alone"));
    }
};

#include "plugin.moc"
