#include "settings-script.h"

#include "test-case.h"

#include <climits>

namespace {

const QStringList &allServices()
{
    static const QStringList names{"login"_s, "unlock"_s, "lock/screen"_s, "Login"_s};
    return names;
}

QString ruleText(const Rule &rule)
{
    const QString times = rule.times ? "the next %1 calls"_s.arg(rule.times) : "all calls"_s;
    const QString more = rule.how == "error"_s ? rule.message : rule.how == "reply"_s ? rule.reply.text : QString();
    return "daemon: %1 of %2 meet %3 %4"_s.arg(times, rule.method, rule.how, more).trimmed();
}

} // namespace

QString Step::text() const
{
    const QString user = "user %1's %2"_s.arg(uid).arg(name);
    const QString change = " becomes <%1>"_s.arg(value.text);
    const QString call = flag ? "(true)"_s : "(false)"_s;
    const auto body = [&]() -> QString {
        switch (what) {
        case Do::ArrangeGlobal:
            return "daemon: %1%2, silently"_s.arg(name, change);
        case Do::ArrangeUser:
            return "daemon: %1%2, silently"_s.arg(user, change);
        case Do::RemoveGlobal:
            return "daemon: %1 is removed"_s.arg(name);
        case Do::RemoveUser:
            return "daemon: %1 is removed"_s.arg(user);
        case Do::ChangeGlobal:
            return "daemon: %1%2, announced"_s.arg(name, change);
        case Do::ChangeUser:
            return "daemon: %1%2, announced"_s.arg(user, change);
        case Do::AnnounceGlobal:
            return "daemon: emits OptionChanged('%1', <%2>)"_s.arg(name, value.text);
        case Do::AnnounceUser:
            return "daemon: emits UserOptionChanged(%1, '%2', <%3>)"_s.arg(uid).arg(name, value.text);
        case Do::Announce:
            return "daemon: emits %1%2"_s.arg(name, value.text);
        case Do::Misbehave:
            return ruleText(rule);
        case Do::Behave:
            return "daemon: behaves"_s;
        case Do::Authenticate:
            return "client: authenticates user %1"_s.arg(uid);
        case Do::DropAuthentication:
            return "client: dropAuthentication()"_s;
        case Do::SetUid:
            return "client: setUid(%1)"_s.arg(uid);
        case Do::TriggerFactor:
            return "client: triggerFactor(%1)"_s.arg(row);
        case Do::TriggerUnlockFactor:
            return "client: triggerUnlockFactor(\"%1\")"_s.arg(name);
        case Do::SetShowNotifications:
            return "client: setShowNotifications"_s + call;
        case Do::SetIsMultiFactorable:
            return "client: setIsMultiFactorable"_s + call;
        case Do::SetIsUserSettable:
            return "client: setIsUserSettable"_s + call;
        case Do::ShowLastLogin:
            return "client: showLastLogin(%1)"_s.arg(uid);
        case Do::LastLoginDate:
            return "client: lastLoginDate(%1)"_s.arg(uid);
        case Do::Wait:
            return "all that was announced arrives"_s;
        }
        return {};
    }();
    if (beforeClient)
        return "before the client is made, "_s + body;
    return delivered || what == Do::Wait ? body : body + " (announcements wait)"_s;
}

const QStringList &factorNames()
{
    static const QStringList names{"code"_s, "smartcard"_s, "sudis"_s, "a"_s, "Code"_s, "a/b"_s, "schlüssel"_s};
    return names;
}

QStringList Author::some(const QStringList &of, int most)
{
    QStringList result;
    for (int count = m_random.bounded(most + 1); count > 0; --count) {
        const QString entry = one(of);
        if (!result.contains(entry) || chance(10))
            result.append(entry);
    }
    return result;
}

OptionValue Author::odd()
{
    static const QVector<OptionValue> values{
        boolValue(true),
        boolValue(false),
        textValue({}),
        textValue("0"_s),
        textValue("false"_s),
        textValue("FALSE"_s),
        textValue("true"_s),
        textValue("code"_s),
        textValue("smartcard"_s),
        listValue({}),
        listValue({"code"_s}),
        otherValue("u", "uint32 0", 0u),
        otherValue("u", "uint32 7", 7u),
        otherValue("i", "-1", -1),
        otherValue("x", "int64 0", qlonglong(0)),
        otherValue("d", "0.25", 0.25),
        otherValue("d", "1.5", 1.5),
        otherValue("y", "byte 0x01", QVariant::fromValue(uchar(1))),
        otherValue("ay", "[byte 0x61, 0x62]", QByteArray("ab")),
        otherValue("av", "[<'code'>, <'a'>]", {}),
        otherValue("v", "<true>", {}),
        otherValue("a{sv}", "{'code': <true>}", {}),
        otherValue("(s)", "('code',)", {}),
        otherValue("ai", "[1, 2]", {}),
    };
    return one(values);
}

OptionValue Author::valueFor(const QString &key)
{
    if (chance(8))
        return odd();
    if (key.startsWith("worker/service-factors"_s) || key == "worker/disabled-factors"_s)
        return listValue(some(factorNames(), key.endsWith("factors"_s) ? 3 : 4));
    if (key == "worker/last-login-date"_s)
        return textValue(one({"2026-11-20 08:15"_s, "yesterday"_s, QString()}));
    return boolValue(chance(50));
}

uint Author::user()
{
    return one(QVector<uint>{1000, 1000, 1000, 1001, 1001, 0, 4294967295, 7});
}

QString Author::userKey()
{
    if (chance(12)) {
        return one({"worker/service-factors"_s, "worker/service-factors-x/login"_s, "worker/service-factors//login"_s,
                    "worker/service-factors/"_s, "Worker/service-factors/login"_s, "worker/service-factor/login"_s,
                    "worker/show-notifications"_s, "devlock/is-user-settable"_s, "is-multi-factorable"_s,
                    "worker/disabled-factors/"_s, "worker/can-switch-to-user"_s, "login"_s});
    }
    if (chance(55))
        return "worker/service-factors/"_s
            + (chance(75) ? allServices()[int(m_random.bounded(2))] : one(allServices()));
    return one({"worker/disabled-factors"_s, "worker/disabled-factors"_s, "worker/is-multi-factorable"_s,
                "worker/is-user-settable"_s, "worker/is-user-settable"_s, "devlock/show-notifications"_s,
                "worker/show-last-login"_s, "worker/last-login-date"_s});
}

Step Author::arrangedUserOption()
{
    Step step{Do::ArrangeUser};
    step.uid = chance(60) ? 1000 : 1001;
    step.name = userKey();
    step.value = valueFor(step.name);
    return step;
}

Rule Author::rule()
{
    static const QVector<OptionValue> writeReplies{
        otherValue("(b)", "(true,)", true),
        otherValue("(b)", "(false,)", false),
        otherValue("(b)", "(false,)", false),
        otherValue("(b)", "(false,)", false),
        otherValue("(u)", "(uint32 7,)", 7u),
        otherValue("(u)", "(uint32 0,)", 0u),
        otherValue("(s)", "('false',)", "false"_s),
        otherValue("(s)", "('done',)", "done"_s),
        otherValue("()", "()", {}),
    };
    Rule rule;
    rule.times = one(QVector<int>{0, 1, 1, 2});
    if (chance(65)) {
        rule.method = "SetUserOption"_s;
        rule.how = one({"error"_s, "reply"_s, "lose-signals"_s, "signal-first"_s});
        rule.reply = one(writeReplies);
    } else {
        rule.method = one({"GetUserOptions"_s, "GetUserOption"_s});
        rule.how = rule.method == "GetUserOptions"_s && chance(30) ? "reply"_s : "error"_s;
        rule.reply = one(QVector<OptionValue>{
            otherValue("(a{sv})", "(@a{sv} {},)", QVariantMap()),
            otherValue("(a{sv})", "({'worker/is-user-settable': <false>, 'is-multi-factorable': <true>},)",
                       QVariantMap{{"worker/is-user-settable"_s, false}, {"is-multi-factorable"_s, true}})});
    }
    if (rule.how == "error"_s)
        rule.message = one({"refused at random"_s, "no"_s, "try again later"_s});
    return rule;
}

Step Author::step()
{
    Step step{Do::Wait};
    const int dice = int(m_random.bounded(100));
    if (dice < 14) {
        step.what = Do::TriggerFactor;
        step.row = chance(90) ? int(m_random.bounded(6)) : one(QVector<int>{-1, 9, 12, INT_MIN, INT_MAX});
    } else if (dice < 27) {
        step.what = Do::TriggerUnlockFactor;
        step.name = one(factorNames());
    } else if (dice < 36) {
        step.what = one(QVector<Do>{Do::SetShowNotifications, Do::SetIsMultiFactorable, Do::SetIsUserSettable});
        step.flag = chance(50);
    } else if (dice < 45) {
        step.what = Do::SetUid;
        step.uid = m_uid = user();
    } else if (dice < 58) {
        step.what = Do::AnnounceUser;
        step.uid = chance(75) ? m_uid : user();
        step.name = userKey();
        step.value = valueFor(step.name);
    } else if (dice < 67) {
        step = arrangedUserOption();
        step.what = Do::ChangeUser;
    } else if (dice < 70) {
        step.what = chance(50) ? Do::AnnounceGlobal : Do::ChangeGlobal;
        step.name = chance(70) ? "worker/can-switch-to-user"_s
                               : one({"worker/available-services"_s, "worker/is-user-settable"_s,
                                      "can-switch-to-user"_s, "worker/available-service-factors/login"_s});
        step.value = chance(50) ? boolValue(chance(50)) : odd();
    } else if (dice < 77) {
        step = arrangedUserOption();
    } else if (dice < 80) {
        step = arrangedUserOption();
        step.what = Do::RemoveUser;
    } else if (dice < 85) {
        step.what = Do::Misbehave;
        step.rule = rule();
    } else if (dice < 90) {
        step.what = Do::Behave;
    } else if (dice < 92) {
        step.what = chance(50) ? Do::ShowLastLogin : Do::LastLoginDate;
        step.uid = user();
    } else if (dice < 93) {
        step.what = Do::Authenticate;
        step.uid = chance(60) ? 1000 : 1001;
    } else if (dice < 94) {
        step.what = chance(30) ? Do::DropAuthentication : Do::Wait;
    } else if (dice < 95) {
        step.what = Do::Announce;
        step.name = one({"UserOptionChanged"_s, "OptionChanged"_s});
        step.value.text =
            "(%1, 'worker/is-user-settable', <%2>)"_s.arg(int(m_uid)).arg(chance(50) ? "true"_s : "false"_s);
    }
    step.delivered = step.what == Do::Wait || chance(65);
    return step;
}

void Author::offer(Script *script)
{
    const auto arrange = [script](Do what, uint uid, const QString &key, const OptionValue &value) {
        Step step{what};
        step.uid = uid;
        step.name = key;
        step.value = value;
        step.beforeClient = true;
        script->append(step);
    };
    QStringList offered{"login"_s, "unlock"_s};
    if (chance(40)) {
        offered = some(allServices(), 4);
        const OptionValue value = chance(15) ? odd() : listValue(offered);
        arrange(chance(5) ? Do::RemoveGlobal : Do::ArrangeGlobal, 0, "worker/available-services"_s, value);
    }
    for (const QString &service : allServices()) {
        if (chance(85)) {
            const OptionValue value = chance(5) ? odd() : listValue(some(factorNames(), 6));
            arrange(chance(3) ? Do::RemoveGlobal : Do::ArrangeGlobal, 0,
                    "worker/available-service-factors/"_s + service, value);
        }
        for (const uint uid : {1000u, 1001u}) {
            if (chance(80) && (uid != 1001 || offered.contains(service)))
                arrange(Do::ArrangeUser, uid, "worker/service-factors/"_s + service, listValue(some(factorNames(), 4)));
        }
    }
    if (chance(20))
        arrange(chance(20) ? Do::RemoveGlobal : Do::ArrangeGlobal, 0, "worker/can-switch-to-user"_s,
                chance(50) ? boolValue(false) : odd());
    if (chance(40))
        arrange(Do::ArrangeUser, 1000, "worker/is-multi-factorable"_s, boolValue(true));
    for (int i = int(m_random.bounded(4)); i > 0; --i) {
        Step step = arrangedUserOption();
        step.beforeClient = true;
        script->append(step);
    }
    if (chance(6)) {
        Step step{Do::Misbehave};
        step.rule = {"GetOption"_s, "error"_s, "not now"_s, {}, int(m_random.bounded(4))};
        step.beforeClient = true;
        script->append(step);
    }
}

Script Author::script(int length)
{
    Script result;
    offer(&result);
    if (chance(85)) {
        Step step{Do::Authenticate};
        step.uid = chance(85) ? 1000 : 1001;
        result.append(step);
    }
    if (chance(75)) {
        Step step{Do::SetUid};
        step.uid = m_uid = chance(85) ? 1000 : 1001;
        result.append(step);
    }
    for (int i = 0; i < length; ++i)
        result.append(step());
    return result;
}
