#include "auth-stand-in.h"
#include "bus-round-trip.h"
#include "probe.h"

#include <QtQml/QJSEngine>
#include <QtQml/qqml.h>
#include <QtQml/QQmlExtensionPlugin>

/** For tests written in QML: what fails is thrown as a JavaScript error. */
class StandIn : public AuthStandIn
{
    Q_OBJECT

public:
    StandIn()
        : AuthStandIn(nullptr)
    {
    }

protected:
    ErrorHandler errorHandler() const override
    {
        return [engine = qjsEngine(this)](const QString &error) {
            engine->throwError(QStringLiteral("StandIn: ") + error);
        };
    }
    void settleBus() override
    {
        roundTripToSystemBus();
    }
};

class VantoraAuthTestingPlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QQmlExtensionInterface_iid)

public:
    void registerTypes(const char *uri) override
    {
        Probe::takeDescriptor();
        qmlRegisterType<Probe>(uri, 1, 0, "Probe");
        qmlRegisterType<StandIn>(uri, 1, 0, "StandIn");
    }
};

#include "plugin.moc"
