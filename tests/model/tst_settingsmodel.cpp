// The settings client against a second implementation of it, the oracle: both take the same random steps, and after
// each everything that a host or the daemon could tell them apart by is compared. A difference is shrunk to a short script.
//
// AUTH_SETTINGSMODEL_SEED=N repeats the run of a seed, AUTH_SETTINGSMODEL_STEPS=N sets how many steps it takes. Without
// them each run also takes some steps with a seed that nobody has used before; it prints all of them.
// AUTH_SETTINGSMODEL_TRACE=1 prints each step before it is taken: what ends the process cannot be shrunk.

#include "model-test.h"
#include "settings-oracle.h"
#include "settings-script.h"

#include <QtCore/QIdentityProxyModel>
#include <QtCore/QJsonArray>
#include <QtCore/QTranslator>
#include <QtDBus/QDBusArgument>
#include <QtTest/QAbstractItemModelTester>

namespace {

// valgrind makes a step thirty times as slow, and what it looks for shows in a few of them.
const bool isUnderARunner = !qEnvironmentVariableIsEmpty("AUTH_TEST_RUNNER");
const int StepsOfFixedSeed = isUnderARunner ? 1500 : 22000;
const int StepsOfFreshSeed = isUnderARunner ? 200 : 3000;
constexpr int StepsPerClient = 120;

class Translations : public QTranslator
{
public:
    QString translate(const char *, const char *sourceText, const char *, int) const override
    {
        return translated(sourceText);
    }
    bool isEmpty() const override
    {
        return false;
    }
};

/** Watches the model as ModelWatch does, but complains in the log, so that a script can be shrunk. */
class Watch : public QIdentityProxyModel
{
public:
    explicit Watch(FactorListModel *model)
    {
        setSourceModel(model);
        m_tester =
            std::make_unique<QAbstractItemModelTester>(this, QAbstractItemModelTester::FailureReportingMode::Warning);
    }
    int rowCount(const QModelIndex &parent) const override
    {
        return parent.isValid() ? 0 : QIdentityProxyModel::rowCount(parent);
    }

private:
    std::unique_ptr<QAbstractItemModelTester> m_tester;
};

Snapshot snapshotOf(const AuthSettingsClient *client)
{
    const auto property = [client](const char *name, QMetaType::Type type) {
        QVariant value = client->property(name);
        if (value.userType() != type)
            qWarning("Property %s has another type", name);
        return value;
    };
    const FactorListModel *model = client->factors();
    Snapshot result{property("uid", QMetaType::UInt).toUInt(),
                    property("showNotifications", QMetaType::Bool).toBool(),
                    property("canSwitchToUser", QMetaType::Bool).toBool(),
                    property("isMultiFactorable", QMetaType::Bool).toBool(),
                    property("isUserSettable", QMetaType::Bool).toBool(),
                    property("userWarning", QMetaType::QString).toString(),
                    property("unlockFactors", QMetaType::QStringList).toStringList(),
                    {},
                    model->loginFactorsCount()};
    for (int row = 0; row < model->rowCount(); ++row) {
        const auto data = [model, row](int role, QMetaType::Type type) {
            QVariant value = model->data(model->index(row), role);
            if (value.userType() != type)
                qWarning("Role %d has another type", role);
            return value;
        };
        result.rows.append({data(256, QMetaType::QString).toString(), data(257, QMetaType::QString).toString(),
                            data(258, QMetaType::Bool).toBool(), data(259, QMetaType::Bool).toBool(),
                            data(260, QMetaType::Bool).toBool()});
    }
    return result;
}

/** The client's signals and its model's, each with what it could be seen to be at that moment. */
class Recorder : public QObject
{
public:
    explicit Recorder(AuthSettingsClient *client)
        : m_client(client)
        , m_signals(client)
    {
        // Made after m_signals, each of these runs right after it has recorded the same signal.
        const auto notice = [this] { note(m_signals.take()); };
        for (const auto signal :
             {&AuthSettingsClient::challengeChanged, &AuthSettingsClient::authTokenChanged,
              &AuthSettingsClient::showNotificationsChanged, &AuthSettingsClient::uidChanged,
              &AuthSettingsClient::canSwitchToUserChanged, &AuthSettingsClient::isMultiFactorableChanged,
              &AuthSettingsClient::isUserSettableChanged, &AuthSettingsClient::userWarningChanged,
              &AuthSettingsClient::unlockFactorsChanged})
            connect(client, signal, this, notice);
        connect(client->factors(), &QAbstractItemModel::modelAboutToBeReset, this, notice);
        connect(client->factors(), &QAbstractItemModel::modelReset, this, notice);
        connect(client->factors(), &QAbstractItemModel::dataChanged, this, notice);
        connect(client->factors(), &FactorListModel::loginFactorsCountChanged, this, notice);
        connect(client, &AuthClient::factorSignal, this, [this](const QString &factor, QVariantMap params) {
            QStringList names = m_signals.take();
            if (factor.startsWith(drainMark)) {
                m_mark = factor;
                note(names);
                return;
            }
            // What Qt D-Bus does not decode is unreadable for everybody.
            const QVariant value = params["value"_s];
            if (value.userType() == qMetaTypeId<QDBusArgument>() || value.userType() == qMetaTypeId<QDBusVariant>())
                params["value"_s] = QVariant();
            if (!names.isEmpty())
                names.last() = "factorSignal(%1, %2)"_s.arg(factor, written(params));
            note(names);
        });
    }

    QVector<Emission> take()
    {
        note(m_signals.take());
        QVector<Emission> result;
        result.swap(m_emissions);
        return result;
    }

    QString mark() const
    {
        return m_mark;
    }

private:
    void note(const QStringList &names)
    {
        for (const QString &name : names)
            m_emissions.append({name, snapshotOf(m_client)});
    }

    AuthSettingsClient *const m_client;
    SignalRecorder m_signals;
    QVector<Emission> m_emissions;
    QString m_mark;
};

QByteArray quotedJson(const QString &text)
{
    return textValue(text).json;
}

/** One client and its oracle, each with a daemon in the same condition. */
class Pair
{
public:
    Pair(Control *control, QuietLog *warnings)
        : m_control(control)
        , m_warnings(warnings)
    {
    }

    std::optional<Difference> run(const Script &script);

private:
    void trace(const Step &step) const;
    void arrange(const Step &step);
    void act(const Step &step);
    void authenticate(uint uid);
    void deliver();
    bool compare(const Step &step);
    QStringList newCalls();
    bool agree(const QStringList &expected, const QStringList &actual);
    bool differ(const QStringList &expected, const QStringList &actual);

    Control *const m_control;
    QuietLog *const m_warnings;
    DaemonOracle m_daemon;
    std::unique_ptr<AuthSettingsClient> m_client;
    std::unique_ptr<Recorder> m_recorder;
    std::unique_ptr<SettingsOracle> m_oracle;
    QString m_expectedAnswer;
    QString m_actualAnswer;
    int m_nextCall = 0;
    Difference m_difference{};
};

void Pair::arrange(const Step &step)
{
    const QByteArray user = ",\"uid\":" + QByteArray::number(step.uid);
    const QByteArray option = ",\"key\":" + quotedJson(step.name);
    const QByteArray set = R"({"do":"set-option","value":)" + step.value.json + option;
    const QByteArray silently = ",\"announce\":false}";
    const auto announce = [this](const QString &signal, const QString &args) {
        m_control->post(R"({"do":"emit","signal":)" + quotedJson(signal) + ",\"args\":" + quotedJson(args) + '}');
    };
    switch (step.what) {
    case Do::ArrangeGlobal:
        m_control->post(set + silently);
        m_daemon.setGlobal(step.name, step.value, false);
        break;
    case Do::ArrangeUser:
        m_control->post(set + user + silently);
        m_daemon.setUser(step.uid, step.name, step.value, false);
        break;
    case Do::RemoveGlobal:
        m_control->post(R"({"do":"remove-option")" + option + '}', true);
        m_daemon.removeGlobal(step.name);
        break;
    case Do::RemoveUser:
        m_control->post(R"({"do":"remove-option")" + option + user + '}', true);
        m_daemon.removeUser(step.uid, step.name);
        break;
    case Do::ChangeGlobal:
        m_control->post(set + '}');
        m_daemon.setGlobal(step.name, step.value, true);
        break;
    case Do::ChangeUser:
        m_control->post(set + user + '}');
        m_daemon.setUser(step.uid, step.name, step.value, true);
        break;
    case Do::AnnounceGlobal:
        announce("OptionChanged"_s, "(%1, <%2>)"_s.arg(quotedText(step.name), step.value.text));
        m_daemon.announce({"OptionChanged"_s, 0, step.name, step.value.variant});
        break;
    case Do::AnnounceUser:
        announce("UserOptionChanged"_s,
                 "(uint32 %1, %2, <%3>)"_s.arg(step.uid).arg(quotedText(step.name), step.value.text));
        m_daemon.announce({"UserOptionChanged"_s, step.uid, step.name, step.value.variant});
        break;
    case Do::Announce:
        announce(step.name, step.value.text);
        break;
    case Do::Misbehave: {
        QByteArray json =
            R"({"do":"misbehave","method":)" + quotedJson(step.rule.method) + ",\"how\":" + quotedJson(step.rule.how);
        if (step.rule.how == "error"_s)
            json += ",\"message\":" + quotedJson(step.rule.message);
        if (step.rule.how == "reply"_s)
            json += ",\"value\":" + quotedJson(step.rule.reply.text);
        if (step.rule.times)
            json += ",\"times\":" + QByteArray::number(step.rule.times);
        m_control->post(json + '}');
        m_daemon.addRule(step.rule);
        break;
    }
    case Do::Behave:
        m_control->post(R"({"do":"behave"})");
        m_daemon.dropRules();
        break;
    default:
        break;
    }
}

void Pair::authenticate(uint uid)
{
    m_client->dropAuthentication();
    m_client->authenticate("login"_s,
                           {{"factor"_s, "code"_s}, {"data"_s, uid == 1000 ? "1234"_s : "9876"_s}, {"uid"_s, uid}});
    if (!waitFor([this] { return m_client->authenticated(); }))
        qFatal("The client is not authenticated");
    const QByteArray token = m_client->token();
    m_daemon.addToken(token, uid);
    m_oracle->setToken(token);
    // Waiting has let in what was announced before.
    m_oracle->hear(m_daemon.takeAnnouncements());
}

void Pair::act(const Step &step)
{
    switch (step.what) {
    case Do::Authenticate:
        authenticate(step.uid);
        break;
    case Do::DropAuthentication:
        m_client->dropAuthentication();
        m_oracle->setToken({});
        break;
    case Do::SetUid:
        m_client->setUid(step.uid);
        m_oracle->setUid(step.uid);
        break;
    case Do::TriggerFactor:
        m_client->triggerFactor(step.row);
        m_oracle->triggerFactor(step.row);
        break;
    case Do::TriggerUnlockFactor:
        m_client->triggerUnlockFactor(step.name);
        m_oracle->triggerUnlockFactor(step.name);
        break;
    case Do::SetShowNotifications:
        m_client->setShowNotifications(step.flag);
        m_oracle->setShowNotifications(step.flag);
        break;
    case Do::SetIsMultiFactorable:
        m_client->setIsMultiFactorable(step.flag);
        m_oracle->setIsMultiFactorable(step.flag);
        break;
    case Do::SetIsUserSettable:
        m_client->setIsUserSettable(step.flag);
        m_oracle->setIsUserSettable(step.flag);
        break;
    case Do::ShowLastLogin:
        m_actualAnswer = m_client->showLastLogin(step.uid) ? "true"_s : "false"_s;
        m_expectedAnswer = m_oracle->showLastLogin(step.uid) ? "true"_s : "false"_s;
        break;
    case Do::LastLoginDate:
        m_actualAnswer = m_client->lastLoginDate(step.uid);
        m_expectedAnswer = m_oracle->lastLoginDate(step.uid);
        break;
    default:
        arrange(step);
        break;
    }
}

void Pair::deliver()
{
    static int marks = 0;
    const QString mark = drainMark + QString::number(++marks);
    m_control->post(R"~({"do":"emit","signal":"Factor","args":"(')~" + mark.toLatin1() + R"~(', @a{sv} {})"})~");
    m_control->await();
    QDeadlineTimer deadline(120000);
    QTimer wakening;
    wakening.start(1000);
    while (m_recorder->mark() != mark) {
        if (deadline.hasExpired())
            qFatal("The client does not hear the daemon");
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    m_oracle->hear(m_daemon.takeAnnouncements());
}

bool Pair::agree(const QStringList &expected, const QStringList &actual)
{
    return fit(expected, actual) || differ(expected, actual);
}

bool Pair::differ(const QStringList &expected, const QStringList &actual)
{
    m_difference.expected = expected;
    m_difference.actual = actual;
    return false;
}

QStringList texts(const QVector<Emission> &emissions)
{
    QStringList result;
    for (const Emission &emission : emissions)
        result.append("%1 when %2"_s.arg(emission.name, emission.seen.text()));
    return result;
}

bool Pair::compare(const Step &step)
{
    QVector<Emission> emissions = m_recorder->take();
    if (step.what == Do::Authenticate || step.what == Do::DropAuthentication) {
        // How authenticating shows at a host is no matter of this test.
        const auto others = [](const Emission &emission) {
            return emission.name == "progressChanged()"_s || emission.name == "discredit()"_s
                || emission.name.startsWith("authenticatedChanged("_s);
        };
        emissions.erase(std::remove_if(emissions.begin(), emissions.end(), others), emissions.end());
    }
    const QVector<Emission> expected = m_oracle->takeEmissions();
    if (emissions != expected)
        return differ(texts(expected), texts(emissions));

    const Snapshot snapshot = snapshotOf(m_client.get());
    const Snapshot oracleSnapshot = m_oracle->snapshot();
    if (!(snapshot == oracleSnapshot))
        return differ({"after it "_s + oracleSnapshot.text()}, {"after it "_s + snapshot.text()});

    if (!agree({"answer %1, token %2"_s.arg(m_expectedAnswer, QLatin1String(m_oracle->token().toHex()))},
               {"answer %1, token %2"_s.arg(m_actualAnswer, QLatin1String(m_client->token().toHex()))}))
        return false;

    if (!agree(m_oracle->takeWarnings(), m_warnings->take()))
        return false;
    for (int row = -1; row <= oracleSnapshot.rows.size(); ++row) {
        const bool can = m_oracle->canTriggerFactor(row);
        if (m_client->canTriggerFactor(row) != can) {
            const QString text = "canTriggerFactor(%1): %2"_s.arg(row);
            return differ({text.arg(can)}, {text.arg(!can)});
        }
    }
    if (!agree(m_oracle->takeWarnings(), m_warnings->take()))
        return false;

    static const QStringList names = factorNames() + QStringList{"broken"_s, "slow"_s, "nobody"_s, {}};
    for (const QString &name : names) {
        const QString text = "%1: hasFactor %2, hasEnabledFactor %3, hasChosenFactor %4"_s.arg(name);
        const bool has[] = {m_client->hasFactor(name), m_client->hasEnabledFactor(name),
                            m_client->hasChosenFactor(name)};
        const bool oracleHas[] = {m_oracle->hasFactor(name), m_oracle->hasEnabledFactor(name),
                                  m_oracle->hasChosenFactor(name)};
        if (!std::equal(std::begin(has), std::end(has), std::begin(oracleHas))) {
            return differ({text.arg(oracleHas[0]).arg(oracleHas[1]).arg(oracleHas[2])},
                          {text.arg(has[0]).arg(has[1]).arg(has[2])});
        }
    }
    return agree(m_daemon.takeCalls(), newCalls());
}

QStringList Pair::newCalls()
{
    // The base's own calls are nobody's concern here.
    static const QStringList others{"Authenticate"_s, "RequestChallenge"_s, "GetState"_s};
    m_control->post(R"({"do":"calls","since":)" + QByteArray::number(m_nextCall) + '}');
    const QJsonObject answer = m_control->await();
    m_nextCall = answer.value("next"_s).toInt();
    QStringList result;
    const QJsonArray calls = answer.value("calls"_s).toArray();
    for (const QJsonValue &value : calls) {
        const QJsonObject call = value.toObject();
        const auto text = [&call](const char *member) { return call.value(QLatin1String(member)).toString(); };
        if (!others.contains(text("method"))) {
            result.append("%1 %2 %3.%4 %5 %6"_s.arg(text("bus"), text("path"), text("interface"), text("method"),
                                                    text("signature"), text("args")));
        }
    }
    return result;
}

void Pair::trace(const Step &step) const
{
    static const bool isWanted = qEnvironmentVariableIsSet("AUTH_SETTINGSMODEL_TRACE");
    if (!isWanted)
        return;
    printf("%s\n", qPrintable(step.text()));
    fflush(stdout);
}

std::optional<Difference> Pair::run(const Script &script)
{
    m_control->post(R"({"do":"behave"})");
    m_control->post(R"({"do":"reset-options"})");
    m_control->post(R"({"do":"clear-calls"})");
    for (const Step &step : script) {
        if (step.beforeClient) {
            trace(step);
            arrange(step);
        }
    }
    m_control->await();

    m_client = std::make_unique<AuthSettingsClient>(nullptr);
    m_oracle = std::make_unique<SettingsOracle>(&m_daemon);
    m_recorder = std::make_unique<Recorder>(m_client.get());
    const Watch watch(m_client->factors());
    m_difference.step = -1;
    if (!compare({}))
        return m_difference;

    for (const Step &step : script) {
        ++m_difference.step;
        if (step.beforeClient)
            continue;
        trace(step);
        act(step);
        if (step.delivered)
            deliver();
        if (!compare(step))
            return m_difference;
    }
    return {};
}

} // namespace

class Test : public TestCase
{
    Q_OBJECT

private:
    Translations m_translations;

private Q_SLOTS:
    void initTestCase();
    void clientDoesWhatTheOracleDoes_data();
    void clientDoesWhatTheOracleDoes();
};

void Test::initTestCase()
{
    QVERIFY(QCoreApplication::installTranslator(&m_translations));
}

void Test::clientDoesWhatTheOracleDoes_data()
{
    QTest::addColumn<quint32>("seed");
    QTest::newRow("1") << 20261121u;
    QTest::newRow("2") << 314159265u;
    QTest::newRow("3") << 271828182u;
    QTest::newRow("4") << 141421356u;
}

void Test::clientDoesWhatTheOracleDoes()
{
    QFETCH(quint32, seed);
    Control control;
    const auto run = [&control](const Script &script, bool) {
        QuietLog warnings(false);
        return Pair(&control, &warnings).run(script);
    };
    QVERIFY2(Walk<Author>(run, StepsPerClient).take("AUTH_SETTINGSMODEL", seed, StepsOfFixedSeed, StepsOfFreshSeed),
             "the client and the oracle differ");
}

QTEST_GUILESS_MAIN(Test)

#include "tst_settingsmodel.moc"
