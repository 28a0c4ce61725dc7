#include "stand-in.h"

#include <QtQml/qqml.h>
#include <QtQml/QQmlExtensionPlugin>

class VantoraAuthTestingPlugin : public QQmlExtensionPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QQmlExtensionInterface_iid)

public:
    void registerTypes(const char *uri) override
    {
        qmlRegisterType<StandIn>(uri, 1, 0, "StandIn");
    }
};

#include "plugin.moc"
