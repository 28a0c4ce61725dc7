#include "settings-test-case.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

WatchedClient::WatchedClient(std::unique_ptr<AuthSettingsClient> client, uint uid)
    : m_client(std::move(client))
    , m_watch(m_client->factors())
{
    m_client->setUid(uid);
}

void SettingsTestCase::offer(const QList<Offer> &offers)
{
    QStringList services;
    for (const Offer &offer : offers) {
        services.append(offer.service);
        daemon.arrangeOption("worker/available-service-factors/" + offer.service.toUtf8(), json(offer.names));
        daemon.arrangeOption("worker/service-factors/" + offer.service.toUtf8(), "[]", 1000);
        daemon.arrangeOption("worker/service-factors/" + offer.service.toUtf8(), "[]", 1001);
    }
    daemon.arrangeOption("worker/available-services", json(services));
    disable({}, 1001);
}

void SettingsTestCase::choose(const char *service, const QStringList &names, uint uid)
{
    daemon.arrangeOption("worker/service-factors/" + QByteArray(service), json(names), uid);
}

void SettingsTestCase::disable(const QStringList &names, uint uid)
{
    daemon.arrangeOption("worker/disabled-factors", json(names), uid);
}

void SettingsTestCase::answerOnce(const QByteArray &value)
{
    daemon.misbehave("GetOption", "reply", "\"times\":1,\"value\":\"(" + value + ",)\"");
}

std::unique_ptr<AuthSettingsClient> SettingsTestCase::newClientOf(uint uid)
{
    auto client = newSettingsClient();
    client->setUid(uid);
    daemon.clearCalls();
    return client;
}

void SettingsTestCase::authenticate(AuthSettingsClient *client)
{
    client->authenticate("login"_s, {{"factor"_s, "code"_s}, {"data"_s, "1234"_s}});
    if (!waitFor([client] { return client->authenticated() && !client->progress(); }))
        qFatal("The daemon does not take the code");
    LogRecorder::forbid(client->token());
}

void SettingsTestCase::announce(uint uid, const QByteArray &key, const QByteArray &value)
{
    daemon.emitSignal("UserOptionChanged", "(uint32 " + QByteArray::number(uid) + ", '" + key + "', <" + value + ">)");
}

void SettingsTestCase::announce(AuthSettingsClient *client, const QByteArray &key, const QByteArray &value)
{
    announce(client->uid(), key, value);
    drain(client);
}

void SettingsTestCase::announceChosen(AuthSettingsClient *client, const char *service, const QStringList &names)
{
    announce(client, "worker/service-factors/" + QByteArray(service), gvariant(names));
}

void SettingsTestCase::announceDisabled(AuthSettingsClient *client, const QStringList &names)
{
    announce(client, "worker/disabled-factors", gvariant(names));
}

void SettingsTestCase::announceSettable(AuthSettingsClient *client, bool settable)
{
    announce(client, "worker/is-user-settable", settable ? "true" : "false");
}

QStringList names(const char *text)
{
    return QString::fromUtf8(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

QByteArray json(const QStringList &texts)
{
    return QJsonDocument(QJsonArray::fromStringList(texts)).toJson(QJsonDocument::Compact);
}

QByteArray gvariant(const QStringList &texts)
{
    return texts.isEmpty() ? "@as []" : "['" + texts.join("', '"_s).toUtf8() + "']";
}

QString rows(const AuthSettingsClient &client)
{
    const FactorListModel *model = client.factors();
    QStringList result;
    for (int row = 0; row < model->rowCount(); ++row) {
        const auto data = [&](int role) { return model->data(model->index(row), role); };
        result.append(data(256).toString() + (data(258).toBool() ? " chosen"_s : QString())
                      + (data(259).toBool() ? " disabled"_s : QString())
                      + (data(260).toBool() ? " unlock"_s : QString()));
    }
    return result.join(", "_s);
}

QString enabledChanged(int row)
{
    return "model dataChanged(row %1, [258])"_s.arg(row);
}
