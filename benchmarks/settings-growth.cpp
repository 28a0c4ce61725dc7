// Does with an AuthSettingsClient what a settings page does, in the world that benchmarks/run makes for it: of the users
// there, 1000 has chosen every factor, 1001 none, and for 1002, who has chosen every one too, half of them are disabled.
// Under callgrind, each phase's instructions are dumped under its name.

#include <AuthSettingsClient>
#include <FactorListModel>

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>

#include <valgrind/callgrind.h>

namespace {

void check(bool condition, const char *expectation)
{
    if (!condition)
        qFatal("not so: %s", expectation);
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const int factors = argc == 2 ? atoi(argv[1]) : 0;
    const QString first = QStringLiteral("login0");
    const QString last = QStringLiteral("unlock%1").arg(factors / 2 - 1);

    AuthSettingsClient client(nullptr);
    CALLGRIND_DUMP_STATS_AT("construction");
    check(factors > 1 && client.factors()->rowCount() == factors / 2, "every login factor has a row");

    client.setUid(1001);
    CALLGRIND_ZERO_STATS;
    client.setUid(1000);
    CALLGRIND_DUMP_STATS_AT("switch");
    check(client.hasEnabledFactor(first) && client.hasEnabledFactor(last), "all are chosen");

    client.setUid(1001);
    check(!client.hasEnabledFactor(first) && !client.hasEnabledFactor(last), "none is chosen");
    CALLGRIND_ZERO_STATS;
    client.setUid(1002);
    CALLGRIND_DUMP_STATS_AT("switch-disabled");
    check(client.hasEnabledFactor(first) && client.hasEnabledFactor(last), "all are chosen again");
    check(client.hasFactor(first) && !client.hasFactor(last), "some are disabled");

    client.setUid(1000);
    QEventLoop loop;
    QObject::connect(&client, &AuthClient::authenticatedChanged, &loop, &QEventLoop::quit);
    client.authenticate(
        QStringLiteral("login"),
        {{QStringLiteral("factor"), QStringLiteral("code")}, {QStringLiteral("data"), QStringLiteral("1234")}});
    loop.exec();
    check(client.authenticated(), "the daemon takes the code");

    CALLGRIND_ZERO_STATS;
    client.triggerFactor(0);
    CALLGRIND_DUMP_STATS_AT("toggle");
    check(client.hasEnabledFactor(first) && !client.hasChosenFactor(first),
          "only one may be chosen, and no more is to be");

    // The daemon announces the choice for each service, that for unlocking last.
    QObject::connect(&client, &AuthSettingsClient::unlockFactorsChanged, &loop, &QEventLoop::quit);
    CALLGRIND_ZERO_STATS;
    loop.exec();
    CALLGRIND_DUMP_STATS_AT("announcements");
    check(!client.hasEnabledFactor(first) && !client.hasEnabledFactor(last), "none is chosen any more");
    return 0;
}
