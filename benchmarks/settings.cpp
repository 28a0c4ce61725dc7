// Does with an AuthSettingsClient what a settings page does, in the world that benchmarks/run makes for it: of the users
// there, 1000 has chosen every factor, 1001 none, and for 1002, who has chosen every one too, half of them are disabled.
// Its arguments are how many factors there are for login, and how many for unlocking.

#include "measure.h"

#include <AuthSettingsClient>
#include <FactorListModel>

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>

#include <memory>
#include <string>

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
    const int login = argc == 3 ? atoi(argv[1]) : 0;
    const int unlock = argc == 3 ? atoi(argv[2]) : 0;
    check(login > 1 && unlock > 0, "there are factors");
    const QString first = QStringLiteral("login0");
    const QString last = QStringLiteral("unlock%1").arg(unlock - 1);
    const auto phase = [suffix = "." + std::to_string(login + unlock)](const char *name, const auto &work) {
        measureOnce((name + suffix).c_str(), work);
    };

    std::unique_ptr<AuthSettingsClient> client;
    phase("construction", [&] { client = std::make_unique<AuthSettingsClient>(nullptr); });
    check(client->factors()->rowCount() == login, "every login factor has a row");

    client->setUid(1001);
    phase("switch", [&] { client->setUid(1000); });
    check(client->hasEnabledFactor(first) && client->hasEnabledFactor(last), "all are chosen");

    client->setUid(1001);
    check(!client->hasEnabledFactor(first) && !client->hasEnabledFactor(last), "none is chosen");
    phase("switch-disabled", [&] { client->setUid(1002); });
    check(client->hasEnabledFactor(first) && client->hasEnabledFactor(last), "all are chosen again");
    check(client->hasFactor(first) && !client->hasFactor(last), "some are disabled");

    client->setUid(1000);
    const FactorListModel *model = client->factors();
    check(model->rowCount() == login + unlock, "every factor has a row");
    const QList<int> roles = model->roleNames().keys();
    int shown = 0;
    phase("view", [&] {
        const int rows = model->rowCount();
        for (int row = 0; row < rows; ++row) {
            for (const int role : roles)
                shown += model->data(model->index(row), role).isValid() ? 1 : 0;
        }
    });
    check(shown == (login + unlock) * roles.size(), "every row has all its data");

    QEventLoop loop;
    QObject::connect(client.get(), &AuthClient::authenticatedChanged, &loop, &QEventLoop::quit);
    client->authenticate(
        QStringLiteral("login"),
        {{QStringLiteral("factor"), QStringLiteral("code")}, {QStringLiteral("data"), QStringLiteral("1234")}});
    loop.exec();
    check(client->authenticated(), "the daemon takes the code");

    phase("toggle", [&] { client->triggerFactor(0); });
    check(client->hasEnabledFactor(first) && !client->hasChosenFactor(first),
          "only one may be chosen, and no more is to be");

    // The daemon announces the choice for each service, that for unlocking last.
    QObject::connect(client.get(), &AuthSettingsClient::unlockFactorsChanged, &loop, &QEventLoop::quit);
    phase("announcements", [&] { loop.exec(); });
    check(!client->hasEnabledFactor(first) && !client->hasEnabledFactor(last), "none is chosen any more");
    return 0;
}
