#include "examine.h"

#include "doctor/checks.h"
#include "table.h"

namespace {

Findings (*const Checks[])(Machine &) = {
    checkDirectory,     checkSocket,     checkHandshake,    checkMainObject, checkSettingsObject,
    checkChallenge,     checkBusAddress, checkBusHandshake, checkName,       checkProcess,
    checkDevlockObject, checkState,      checkPolicy,
};

/** What each level is called, what it makes the exit status, and what the worst one means. */
const struct
{
    const char *name;
    Status status;
    const char *summary;
} Levels[] = {
    {"ok", Done, "Nothing is wrong"},
    {"notice", Done, "Nothing is wrong, but see the notices"},
    {"warning", Refused, "a host would run here, but see the warnings"},
    {"warning", Refused, "it is not known whether a host would run here: see the warnings"},
    {"freeze", NoOutcome, "a host would freeze here"},
    {"fault", Unreachable, "a host would end with status 1 here"},
};

void tell(Output &output, bool json, const Finding &finding)
{
    const auto &level = Levels[int(finding.level)];
    if (json) {
        QJsonObject details{{QStringLiteral("check"), latin(finding.check)},
                            {QStringLiteral("level"), latin(level.name)},
                            {QStringLiteral("status"), level.status},
                            {QStringLiteral("finding"), finding.text}};
        if (*finding.consequence)
            details.insert(QStringLiteral("consequence"), latin(finding.consequence));
        if (!finding.remedy.isEmpty())
            details.insert(QStringLiteral("remedy"), finding.remedy);
        output.event(QStringLiteral("check"), details, {});
        return;
    }
    QVector<QStringList> rows{
        {latin(level.name).leftJustified(7), latin(finding.check).leftJustified(15), finding.text}};
    for (const QString &line : {latin(finding.consequence), finding.remedy}) {
        if (!line.isEmpty())
            rows.append({QString(), QString(), line});
    }
    output.print(stdout, toTable(rows));
}

} // namespace

int examine(Output &output, const Request &request)
{
    output.setWaiting(true);
    Machine machine;
    Level worst = Level::Fine;
    const auto tellAll = [&](const Findings &findings) {
        for (const Finding &finding : findings) {
            worst = qMax(worst, finding.level);
            tell(output, request.json, finding);
        }
    };
    for (const auto check : Checks) {
        tellAll(check(machine));
        if (machine.late) {
            tellAll({tooLate()});
            break;
        }
    }
    output.setWaiting(false);
    const auto &level = Levels[int(worst)];
    output.result(QStringLiteral("doctor"), level.status, {}, latin(level.summary));
    return level.status;
}
