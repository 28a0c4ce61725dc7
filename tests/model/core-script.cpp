#include "core-oracle.h"
#include "test-case.h"

namespace {

QString text(Do what, const Step &step, int number)
{
    const QString params = "map %1"_s.arg(step.params);
    switch (what) {
    case Do::Nothing:
        return "nothing"_s;
    case Do::DeleteClient:
        return "delete client"_s;
    case Do::DeleteClientLater:
        return "client->deleteLater()"_s;
    case Do::Authenticate:
        return "authenticate(\"login\", %1)"_s.arg(params);
    case Do::ChangeAuthData:
        return "changeAuthData(\"code\", %1)"_s.arg(params);
    case Do::UnlockIfNeeded:
        return "unlockIfNeeded()"_s;
    case Do::SetLocked:
        return "setLocked(%1)"_s.arg(number);
    case Do::DropAuthentication:
        return "dropAuthentication()"_s;
    case Do::Cancel:
        return "cancel()"_s;
    case Do::RequestChallenge:
        return "requestChallenge()"_s;
    case Do::FactorMethod:
        return "factorMethod(%1, \"code\"%2)"_s.arg(params, step.flag ? ", a callback"_s : QString());
    case Do::FactorMethodWait:
        return "factorMethodWait(%1, \"code\")"_s.arg(params);
    case Do::DeleteDevlock:
        return "delete client"_s;
    case Do::SetState:
        return "setState(%1)"_s.arg(number);
    case Do::MakeClient:
    case Do::MakeDevlock:
        return "is made"_s;
    case Do::Arm:
    case Do::ArmDevlock:
        return "the next %1 has a handler"_s.arg(step.name);
    case Do::Misbehave:
        return "calls of %1 meet %2 %3"_s.arg(step.name, step.how, step.value.text);
    case Do::Behave:
        return "behaves"_s;
    case Do::Release:
        return "answers the calls that it holds"_s;
    case Do::Emit:
        return "emits %1%2"_s.arg(step.name, step.value.text);
    case Do::EmitFromOld:
        return "the instance before emits %1%2"_s.arg(step.name, step.value.text);
    case Do::SetLock:
        return "the state becomes %1"_s.arg(number);
    case Do::Leave:
        return "leaves"_s;
    case Do::Come:
        return "comes"_s;
    case Do::Handover:
        return "another instance takes over"_s;
    case Do::HandoverKeepingOld:
        return "another instance takes over, the old one keeps its connections"_s
            + (step.name.isEmpty() ? QString() : " and emits %1%2"_s.arg(step.name, step.value.text));
    case Do::DropOld:
        return "the old instances go"_s;
    case Do::ReleaseName:
        return "gives its name up"_s;
    case Do::OwnName:
        return "takes its name"_s;
    case Do::DropPeers:
        return "closes its connections"_s;
    case Do::Spoof:
        return "emits StateChanged%1"_s.arg(step.value.text);
    }
    return {};
}

const QStringList &asynchronous()
{
    static const QStringList methods{"Authenticate"_s, "ChangeAuthData"_s, "UnlockIfNeeded"_s, "FactorMethod"_s};
    return methods;
}

Value state(int number)
{
    return {"(%1,)"_s.arg(number), number};
}

Value byteArray(const QByteArray &value)
{
    return {QString::fromUtf8(byteTuple(value)), value};
}

const QVector<int> &states()
{
    static const QVector<int> numbers{0, 0, 1, 1, 1, 2, 3, 4, 5, 6, -1, 42};
    return numbers;
}

} // namespace

const QVector<Parameters> &parameterMaps()
{
    static const QVector<Parameters> maps{
        {{}, {}, true, {}},
        {{{"data"_s, "s3cr3t"_s}, {"a"_s, 1}}, {{"a"_s, "1"_s}, {"data"_s, "'s3cr3t'"_s}}, true, {}},
        {{{"challenge"_s, QByteArray("s3cr3t own")}},
         {{"challenge"_s, QString::fromUtf8(bytes("s3cr3t own"))}},
         true,
         {}},
        {{{"challenge"_s, QString()}, {"uid"_s, 1000U}},
         {{"challenge"_s, "''"_s}, {"uid"_s, "uint32 1000"_s}},
         true,
         {}},
        {{{"type"_s, "echo"_s}, {"value"_s, 7}},
         {{"type"_s, "'echo'"_s}, {"value"_s, "7"_s}},
         true,
         {"7"_s, "int 7"_s}},
        {{{"type"_s, "echo"_s}, {"value"_s, QStringList{"a"_s, "b"_s}}},
         {{"type"_s, "'echo'"_s}, {"value"_s, "['a', 'b']"_s}},
         true,
         {"['a', 'b']"_s, "QStringList a b"_s}},
        {{{"key"_s, QVariant()}}, {}, false, {}},
        {{{"challenge"_s, QVariant::fromValue(nullptr)}}, {}, false, {}},
    };
    return maps;
}

QString Step::text() const
{
    const QString body = ::text(what, *this, number);
    QString result;
    if (what >= Do::Spoof)
        result = "a stranger %1"_s.arg(body);
    else if (what >= Do::Misbehave)
        result = "daemon: %1"_s.arg(body);
    else if (what == Do::SetState || what == Do::DeleteDevlock || what == Do::MakeDevlock || what == Do::ArmDevlock)
        result = "device-lock client %1: %2"_s.arg(who).arg(body);
    else
        result = "client %1: %2"_s.arg(who).arg(body);
    if (then != Do::Nothing)
        result += ", which does %1"_s.arg(::text(then, *this, thenNumber));
    return delivered ? result : result + " (nothing is delivered)"_s;
}

bool Step::closesConnection() const
{
    return how == "drop"_s || endsInstance();
}

bool Step::endsInstance() const
{
    return how == "crash"_s || how == "restart"_s;
}

int Author::client()
{
    return one(QVector<int>{0, 0, 0, 0, 0, 0, 0, 0, 1, 2});
}

Value Author::wrong(const QString &right)
{
    static const QStringList texts{"()"_s,          "('s3cr3t',)"_s,   "(1,)"_s,           "(true,)"_s,
                                   "(uint32 1,)"_s, "(<true>,)"_s,     "([byte 0x61],)"_s, "([byte 0x61], 1)"_s,
                                   "((true,),)"_s,  "({'a': <1>},)"_s, "(@ai [],)"_s};
    for (;;) {
        const QString text = one(texts);
        if (text != right)
            return {text, {}};
    }
}

Step Author::emission()
{
    Step step{Do::Emit};
    const bool isRight = chance(88);
    const auto set = [&](const QString &name, const QString &like, const Value &right) {
        step.name = name;
        step.value = isRight ? right : wrong(like);
    };
    switch (m_random.bounded(12)) {
    case 0:
    case 1:
    case 2:
    case 3: {
        // Some come again, some are empty.
        const int number = chance(70) ? ++m_tokens : m_tokens;
        set("Authenticated"_s, "([byte 0x61],)"_s,
            byteArray(chance(10) ? QByteArray() : "s3cr3t " + QByteArray::number(number)));
        break;
    }
    case 4:
        set("AuthenticationFailed"_s, "()"_s, {"()"_s, true});
        break;
    case 5:
        set("AuthDataChanged"_s, "()"_s, {"()"_s, true});
        break;
    case 6:
        set("ChangeAuthDataFailed"_s, "()"_s, {"()"_s, true});
        break;
    case 7: {
        const bool value = chance(50);
        set("UnlockIfNeededFinished"_s, "(true,)"_s, {value ? "(true,)"_s : "(false,)"_s, value});
        break;
    }
    case 8: {
        static const QVector<Value> right{
            {"('', @a{sv} {})"_s, ", %1"_s.arg(written(QVariantMap()))},
            {"('code', {'a': <5>})"_s, "code, %1"_s.arg(written(QVariantMap{{"a"_s, 5}}))},
            {"('no such', {'b': <'s3cr3t'>, 'uid': <uint32 1>})"_s,
             "no such, %1"_s.arg(written(QVariantMap{{"b"_s, "s3cr3t"_s}, {"uid"_s, 1U}}))},
        };
        set("Factor"_s, QString(), one(right));
        break;
    }
    case 9: {
        const Value right = state(one(states()));
        set("StateChanged"_s, "(1,)"_s, right);
        break;
    }
    default:
        step.what = Do::SetLock;
        step.number = one(states());
        break;
    }
    if (step.what == Do::Emit && step.name != "StateChanged"_s && chance(20))
        step.what = Do::EmitFromOld;
    return step;
}

Step Author::misbehaviour()
{
    Step step{Do::Misbehave};
    step.name =
        one(asynchronous()
            + QStringList{"RequestChallenge"_s, "RequestChallenge"_s, "SetDevlockState"_s, "GetState"_s, "SetState"_s});
    const bool isChallenge = step.name == "RequestChallenge"_s;
    const bool isAsynchronous = asynchronous().contains(step.name);
    step.how = one(QStringList{"reply"_s, "reply"_s, "reply"_s, "reply"_s, "wrong"_s, "error"_s, "error"_s});
    if (chance(30) && (isAsynchronous || step.name == "GetState"_s))
        step.how = chance(75) ? "hold"_s : "mute"_s;
    else if (chance(8) && (isAsynchronous || step.name == "SetDevlockState"_s))
        step.how = one(QStringList{"drop"_s, "crash"_s, "restart"_s});
    else if (chance(4) && isChallenge)
        step.how = "drop"_s;
    else if (chance(30) && step.name == "UnlockIfNeeded"_s)
        step.how = "signal-first"_s;

    if (step.how == "error"_s) {
        step.value = {chance(25) ? QString() : "went wrong"_s, {}};
    } else if (step.how == "wrong"_s || step.how == "reply"_s) {
        const bool isRight = step.how == "reply"_s;
        step.how = "reply"_s;
        if (isChallenge) {
            step.value = !isRight ? wrong("([byte 0x61],)"_s)
                : chance(15)      ? byteArray({})
                                  : byteArray("s3cr3t c" + QByteArray::number(m_random.bounded(4)));
            if (step.value.text.startsWith("([byte 0x61], "_s))
                step.value = {"()"_s, {}};
        } else if (step.name == "GetState"_s) {
            step.value = isRight ? state(one(states())) : wrong("(1,)"_s);
        } else if (step.name == "UnlockIfNeeded"_s || step.name == "SetState"_s) {
            step.value = {isRight ? "()"_s : "(true, 'more')"_s, true};
        } else if (step.name == "FactorMethod"_s) {
            static const QVector<Value> values{{"(<5>,)"_s, "int 5"_s},
                                               {"(<'s3cr3t'>,)"_s, "QString s3cr3t"_s},
                                               {"(<true>,)"_s, "bool true"_s},
                                               {"(<false>,)"_s, "bool false"_s},
                                               {"(<uint32 7>,)"_s, "uint 7"_s},
                                               {"(<[byte 0x61, 0x62]>,)"_s, "QByteArray ab"_s},
                                               {"(<{'a': <1>}>,)"_s, "QDBusArgument a{sv}"_s},
                                               {"(<(1, 'a')>,)"_s, "QDBusArgument (is)"_s},
                                               {"(<<5>>,)"_s, "QDBusVariant int 5"_s}};
            step.value = isRight ? one(values) : wrong("(<true>,)"_s);
        } else {
            const bool value = chance(50);
            step.value = isRight ? Value{value ? "(true,)"_s : "(false,)"_s, value} : wrong("(true,)"_s);
        }
    }
    return step;
}

Step Author::call(bool nested)
{
    Step step;
    step.who = client();
    step.params = int(m_random.bounded(parameterMaps().size()));
    if (step.params >= 6 && chance(60))
        step.params = 0;
    step.number = one(states());
    step.flag = chance(75);
    step.what =
        one(QVector<Do>{Do::Authenticate, Do::Authenticate, Do::Authenticate, Do::ChangeAuthData, Do::ChangeAuthData,
                        Do::UnlockIfNeeded, Do::UnlockIfNeeded, Do::SetLocked, Do::SetLocked, Do::SetLocked,
                        Do::DropAuthentication, Do::Cancel, Do::RequestChallenge, Do::FactorMethod, Do::FactorMethod,
                        Do::FactorMethod, Do::FactorMethodWait, Do::FactorMethodWait});
    if (step.what == Do::FactorMethod && step.flag && !nested && chance(25)) {
        const Step inner = call(true);
        step.then = chance(15) ? Do::DeleteClient : inner.what;
        step.thenNumber = inner.number;
    }
    return step;
}

Step Author::handler()
{
    Step step = call(true);
    step.then = step.what;
    step.thenNumber = step.number;
    step.what = Do::Arm;
    step.name = one(QStringList{"progressChanged"_s, "progressChanged"_s, "authenticatedChanged"_s,
                                "authenticatedChanged"_s, "authDataChanged"_s, "changeAuthDataFailed"_s,
                                "unlockIfNeededFinished"_s, "discredit"_s, "discredit"_s, "factorSignal"_s});
    if (chance(20))
        step.then = chance(70) ? Do::DeleteClient : Do::DeleteClientLater;
    if (chance(8)) {
        step.what = Do::ArmDevlock;
        step.who = int(m_random.bounded(2));
        step.name = "stateChanged"_s;
        step.then = chance(70) ? Do::SetState : Do::DeleteDevlock;
    }
    return step;
}

Step Author::instance()
{
    Step step;
    step.what = one(QVector<Do>{Do::Leave, Do::Leave, Do::Come, Do::Come, Do::Come, Do::Handover, Do::Handover,
                                Do::HandoverKeepingOld, Do::HandoverKeepingOld, Do::DropOld, Do::ReleaseName,
                                Do::OwnName, Do::OwnName, Do::DropPeers});
    if (step.what == Do::HandoverKeepingOld && chance(60)) {
        const Step last = emission();
        if (last.what == Do::Emit && last.name != "StateChanged"_s) {
            step.name = last.name;
            step.value = last.value;
        }
    }
    return step;
}

Step Author::step()
{
    Step step;
    const int dice = int(m_random.bounded(200));
    if (dice < 74) {
        step = call(false);
    } else if (dice < 78) {
        step.what = one(QVector<Do>{Do::SetState, Do::SetState, Do::SetState, Do::MakeDevlock, Do::DeleteDevlock});
        step.who = int(m_random.bounded(2));
        step.number = one(states());
    } else if (dice < 81) {
        step.what = one(QVector<Do>{Do::MakeClient, Do::MakeClient, Do::MakeClient, Do::DeleteClient});
        step.who = int(m_random.bounded(3));
    } else if (dice < 94) {
        step = handler();
    } else if (dice < 142) {
        step = emission();
    } else if (dice < 148) {
        step.what = Do::Spoof;
        step.value = chance(80) ? state(one(states())) : wrong("(1,)"_s);
    } else if (dice < 178) {
        step = misbehaviour();
    } else if (dice < 182) {
        step.what = Do::Behave;
    } else if (dice < 192) {
        step.what = Do::Release;
    } else {
        step = instance();
    }
    step.delivered = !m_hasBatches || chance(60);
    return step;
}

Script Author::script(int length)
{
    Script result;
    m_hasBatches = chance(50);
    CoreOracle rehearsal(1);
    while (result.size() < length) {
        Step next = step();
        if (!rehearsal.hasClient(0) && rehearsal.can({Do::MakeClient}))
            next = {Do::MakeClient};
        if (!rehearsal.can(next))
            continue;
        rehearsal.take(next);
        while (!rehearsal.isSilent())
            rehearsal.choose(rehearsal.choices().first());
        rehearsal.takeSaid();
        rehearsal.takeCalls();
        result.append(next);
    }
    return result;
}
