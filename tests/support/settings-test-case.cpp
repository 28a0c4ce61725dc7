#include "settings-test-case.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <unistd.h>

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

void SettingsTestCase::arrangeTwoUsers()
{
    for (const uint uid : {1000U, 1001U}) {
        const bool first = uid == 1000;
        choose("login", names(first ? "code" : "smartcard"), uid);
        choose("unlock", names(first ? "code sudis" : "smartcard"), uid);
        disable(names(first ? "" : "code"), uid);
        for (const char *flag : {"worker/is-multi-factorable", "worker/is-user-settable", "devlock/show-notifications"})
            daemon.arrangeOption(flag, first ? "true" : "false", uid);
    }
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

class SettingsTestCase::Story
{
public:
    explicit Story(SettingsTestCase *test)
        : m_test(test)
    {
    }

    void play(const QString &step)
    {
        const QRegularExpression parts(R"(^(.+?)(?: = (.+?))?(?: > (.+?))?(?: ! (.+))?$)"_s);
        const QRegularExpressionMatch match = parts.match(step);
        const QString done = match.captured(1);
        if (done != "look"_s && !look(done, step))
            act(done);
        if (!match.captured(2).isEmpty())
            compare(rows(*client()), ofThisUserId(match.captured(2)), step);
        if (!match.captured(3).isEmpty())
            compare(m_test->daemon.calls(), writes(match.captured(3)), step);
        if (!match.captured(3).isEmpty())
            m_test->daemon.clearCalls();
        if (!match.captured(4).isEmpty()) {
            m_test->drain(client());
            compare(takeSignals(), emissions(ofThisUserId(match.captured(4))), step);
        } else if (done.contains("user "_s)) {
            m_heard->take();
        }
    }

private:
    AuthSettingsClient *client() const
    {
        if (!m_client)
            qFatal("The story has no user yet");
        return m_client->get();
    }

    static QStringList listed(const QString &text, const QString &separator = " "_s)
    {
        QStringList result = text == "nothing"_s ? QStringList() : text.split(separator, Qt::SkipEmptyParts);
        result.replaceInStrings("''"_s, QString());
        return result;
    }

    static QString ofThisUserId(const QString &text)
    {
        const QStringList both = text.split(" (100000: "_s);
        const QString own = both.size() == 2 && getuid() == 100000 ? both.at(1).chopped(1) : both.first();
        return own == "nothing"_s ? QString() : own;
    }

    QStringList writes(const QString &text) const
    {
        QStringList result;
        const auto append = [&](const QString &service, const QString &chosen) {
            result.append(settingsCall("SetUserOption", "uaysv",
                                       "(uint32 " + QByteArray::number(client()->uid())
                                           + ", @ay [], 'worker/service-factors/" + service.toUtf8() + "', <"
                                           + gvariant(listed(chosen)) + ">)"));
        };
        if (text.contains(": "_s)) {
            for (const QString &choice : listed(text, "; "_s))
                append(choice.section(": "_s, 0, 0), choice.section(": "_s, 1));
            return result;
        }
        for (const QString &choices : listed(text, ", "_s)) {
            append("login"_s, choices.section(" / "_s, 0, 0));
            append("unlock"_s, choices.section(" / "_s, 1));
        }
        return result;
    }

    static QStringList emissions(const QString &text)
    {
        const QHash<QString, QStringList> words{
            {"reset"_s, resetSignals},
            {"warning"_s, {"userWarningChanged()"_s}},
            {"unlock"_s, {"unlockFactorsChanged()"_s}},
            {"settable"_s, {"isUserSettableChanged()"_s}},
            {"uid"_s, {"uidChanged()"_s}},
            {"notifications"_s, {"showNotificationsChanged()"_s}},
        };
        QStringList result;
        for (const QString &word : listed(text, ", "_s)) {
            if (word.startsWith("mark "_s))
                result.append(enabledChanged(word.mid(5).toInt()));
            else if (words.contains(word))
                result += words.value(word);
            else
                qFatal("No signal %s", qPrintable(word));
        }
        return result;
    }

    template <typename T> static void compare(const T &actual, const T &expected, const QString &step)
    {
        const QString difference = "After \"%1\":\n%2\ninstead of\n%3"_s.arg(step, written(actual), written(expected));
        QVERIFY2(actual == expected, qPrintable(difference));
    }

    bool look(const QString &words, const QString &step)
    {
        const QHash<QString, std::function<bool(const QString &)>> questions{
            {"may toggle"_s, [this](const QString &row) { return client()->canTriggerFactor(row.toInt()); }},
            {"has"_s, [this](const QString &name) { return client()->hasFactor(name); }},
            {"enabled"_s, [this](const QString &name) { return client()->hasEnabledFactor(name); }},
            {"wants"_s, [this](const QString &name) { return client()->hasChosenFactor(name); }},
        };
        const QRegularExpressionMatch match =
            QRegularExpression("^(not )?(may toggle|has|enabled|wants) (.+)$"_s).match(words);
        if (match.hasMatch()) {
            for (const QString &name : listed(match.captured(3)))
                compare(questions[match.captured(2)](name), match.captured(1).isEmpty(), step + ", "_s + name);
        } else if (words == "warned"_s || words == "not warned"_s) {
            const QString warning = "settings_users-la-user_has_token_hint"_s;
            compare(client()->userWarning(), words == "warned"_s ? warning : QString(), step);
        } else if (words.startsWith("wishes "_s)) {
            QStringList wished;
            for (const QString &name : qAsConst(m_offered)) {
                if (client()->hasChosenFactor(name))
                    wished.append(name);
            }
            compare(wished, listed(words.mid(7)), step);
        } else if (words.startsWith("unlock factors "_s)) {
            compare(client()->unlockFactors(), listed(words.mid(15)), step);
            compare(client()->property("unlockFactors"), QVariant(listed(words.mid(15))), step);
        } else if (words.startsWith("login rows "_s)) {
            const int count = ofThisUserId(words.mid(11)).toInt();
            compare(client()->factors()->loginFactorsCount(), count, step);
            compare(client()->factors()->property("loginFactorsCount"), QVariant(count), step);
        } else if (words.startsWith("stored "_s)) {
            const QByteArray service = words.mid(7).section(": "_s, 0, 0).toUtf8();
            compare(m_test->daemon.option("worker/service-factors/" + service, client()->uid()),
                    QString::fromUtf8(gvariant(listed(words.section(": "_s, 1)))), step);
        } else if (words == "undelivered"_s) {
            compare(m_heard->list(), QStringList(), step);
        } else if (words == "failed"_s) {
            compare(m_test->log->takeComplaints(), {"warning setUserOption failed: \"must not\""_s}, step);
        } else if (words == "quiet"_s) {
            compare(m_test->log->take(), QStringList(), step);
        } else {
            return false;
        }
        return true;
    }

    // Without the other notice that the daemon gives of what is written.
    QStringList takeSignals()
    {
        return m_heard->take().filter(QRegularExpression("^(?!factorSignal\\(worker, )"_s));
    }

    void offer(const QString &text)
    {
        QList<Offer> offers;
        for (const QString &service : listed(text, "; "_s)) {
            const int colon = service.indexOf(": "_s);
            offers.append({service.left(colon), listed(service.mid(colon + 2))});
            m_offered += offers.last().names;
        }
        m_offered.removeDuplicates();
        m_test->offer(offers);
    }

    void select(uint uid, bool authenticated)
    {
        if (m_client) {
            client()->setUid(uid);
            return;
        }
        if (!authenticated)
            m_test->daemon.answer("SetUserOption", "(true,)");
        m_client = std::make_unique<WatchedClient>(m_test->newSettingsClient());
        if (authenticated)
            m_test->authenticate(client());
        m_heard = std::make_unique<SignalRecorder>(client());
        client()->setUid(uid);
        m_test->daemon.clearCalls();
    }

    // The newest rule comes first.
    void failWrite(int number)
    {
        m_test->daemon.misbehave("SetUserOption", "error", R"("message":"must not","times":1)");
        for (int i = 1; i < number; ++i)
            m_test->daemon.misbehave("SetUserOption", "delay", R"("ms":0,"times":1)");
    }

    // An option of user 1000, or of another who is named before its key.
    void set(const QString &name, const QString &value)
    {
        uint uid = 1000;
        QString key = name;
        if (key.section(QLatin1Char(' '), 0, 0).toUInt()) {
            uid = key.section(QLatin1Char(' '), 0, 0).toUInt();
            key = key.section(QLatin1Char(' '), 1);
        }
        const QHash<QString, QByteArray> others{
            {"disabled"_s, "worker/disabled-factors"},
            {"settable"_s, "worker/is-user-settable"},
            {"several"_s, "worker/is-multi-factorable"},
        };
        const QByteArray option = others.value(key, "worker/service-factors/" + key.toUtf8());
        const bool isFlag = value == "yes"_s || value == "no"_s;
        const QByteArray flag = value == "yes"_s ? "true" : "false";
        if (!m_client)
            m_test->daemon.arrangeOption(option, isFlag ? flag : json(listed(value)), uid);
        else
            m_test->announce(client(), option, isFlag ? flag : gvariant(listed(value)));
    }

    void act(const QString &step)
    {
        const int colon = step.indexOf(": "_s);
        if (step.startsWith("offer "_s))
            offer(step.mid(6));
        else if (step.startsWith("user "_s))
            select(step.mid(5).toUInt(), false);
        else if (step.startsWith("authenticated user "_s))
            select(step.mid(19).toUInt(), true);
        else if (step == "announce first"_s)
            m_test->daemon.misbehave("SetUserOption", "signal-first");
        else if (step == "lose news"_s)
            m_test->daemon.misbehave("SetUserOption", "lose-signals");
        else if (step == "deliver"_s)
            m_test->drain(client());
        else if (step.startsWith("fail write "_s))
            failWrite(step.mid(11).toInt());
        else if (step.startsWith("toggle unlock "_s))
            client()->triggerUnlockFactor(listed(step.mid(14)).value(0));
        else if (step.startsWith("toggle "_s))
            client()->triggerFactor(step.mid(7).toInt());
        else if (step == "refuse"_s)
            m_test->daemon.answer("SetUserOption", "(false,)");
        else if (step == "listen"_s)
            m_heard->take();
        else if (step == "forget calls"_s)
            m_test->daemon.clearCalls();
        else if (step.startsWith("services: "_s))
            m_test->daemon.arrangeOption("worker/available-services", json(listed(step.mid(10))));
        else if (colon > 0)
            set(step.left(colon), step.mid(colon + 2));
        else
            qFatal("No step %s", qPrintable(step));
    }

    SettingsTestCase *const m_test;
    std::unique_ptr<WatchedClient> m_client;
    std::unique_ptr<SignalRecorder> m_heard;
    QStringList m_offered;
};

void SettingsTestCase::play(const char *story)
{
    Story teller(this);
    for (const QString &step : QString::fromUtf8(story).split(" | "_s)) {
        teller.play(step);
        if (QTest::currentTestFailed())
            return;
    }
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
