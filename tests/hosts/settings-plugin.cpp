// Uses all that the settings part of the library offers, for unload-host, which loads it and unloads it again. It hands
// out nothing that dies with it: no text literals, which Qt Core 5.15 keeps, and no callbacks.

#include <AuthSettings>
#include <AuthSettingsClient>
#include <FactorListModel>
#include <FactorSettingsBase>

#include <QtCore/QMetaProperty>
#include <QtCore/QVariant>

#include <cstdio>

#define EXPECT(condition)                                                                                              \
    if (!(condition)) {                                                                                                \
        fprintf(stderr, "plugin, line %d: %s\n", __LINE__, #condition);                                                \
        return 3;                                                                                                      \
    }

namespace {
// As any host that binds to properties by name.
int read(QObject *client)
{
    for (int i = client->metaObject()->propertyOffset(); i < client->metaObject()->propertyCount(); ++i)
        EXPECT(client->metaObject()->property(i).read(client).isValid());
    const QVariant factors = client->property("factors");
    EXPECT(factors.userType() == QMetaType::type("FactorListModel*"));
    const QVariant copy = factors; // NOLINT(performance-unnecessary-copy-initialization): it is what is tested
    EXPECT(copy == factors);
    auto *model = copy.value<QAbstractItemModel *>();
    EXPECT(model && model == factors.value<QObject *>());
    EXPECT(model->rowCount() == 5);
    EXPECT(model->index(0, 0).data(Qt::UserRole).toString() == QLatin1String("code"));
    EXPECT(model->metaObject()->className() == QByteArray("FactorListModel"));
    EXPECT(QMetaType::metaObjectForType(factors.userType()) == model->metaObject());
    EXPECT(client->property("unlockFactors").toStringList().size() == 2);
    return 0;
}
} // namespace

extern "C" Q_DECL_EXPORT int useLibrary(bool flight)
{
    AuthSettingsClient *client = AuthSettingsClient::get();
    client->setUid(1000);
    if (const int status = read(client))
        return status;
    AuthSettingsClient other(nullptr);
    other.setUid(1000);
    if (const int status = read(&other))
        return status;

    FactorSettingsBase code(nullptr, QString::fromLatin1("code"));
    EXPECT(code.getOption(1000, QString::fromLatin1("keypad")).toString() == QLatin1String("digits"));
    AuthSettings settings;
    settings.setUid(1000);
    EXPECT(settings.property("lastLoginDate").toString() == QLatin1String("2026-11-20 08:15"));
    if (flight) {
        const QVariantMap params{{QString::fromLatin1("challenge"), 1}};
        client->authenticate(QString::fromLatin1("login"), params);
        client->unlockIfNeeded();
        client->factorMethod(params, QString::fromLatin1("code"), ValueCallBack());
        code.doAction(1000, QString::fromLatin1("echo"), QVariantMap(), ValueCallBack());
    }
    return 0;
}
