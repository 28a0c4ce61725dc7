#pragma once

#include "dice.h"

#include <QtCore/QStringList>
#include <QtCore/QVariant>
#include <QtCore/QVector>

/** What is done. Those up to SetState are a host's, and may be done by a handler of a signal or by a callback, too. */
enum class Do {
    Nothing,
    DeleteClient,
    DeleteClientLater,
    Authenticate,
    ChangeAuthData,
    UnlockIfNeeded,
    SetLocked,
    DropAuthentication,
    Cancel,
    RequestChallenge,
    FactorMethod,
    FactorMethodWait,
    DeleteDevlock,
    SetState,
    // a host alone
    MakeClient,
    MakeDevlock,
    Arm, // the next signal of this name has a handler
    ArmDevlock,
    // the daemon
    Misbehave, // all calls of a method
    Behave,
    Release,
    Emit,
    EmitFromOld,
    SetLock,
    Leave,
    Come,
    Handover,
    HandoverKeepingOld,
    DropOld,
    ReleaseName,
    OwnName,
    DropPeers,
    // the system bus
    Spoof,
};

/** What is sent, and what it means to its receiver: nothing when it has not the type that it should have. */
struct Value
{
    QString text; ///< in GVariant notation
    QVariant meaning;
};

/** A parameter map, and how the daemon logs its members. */
struct Parameters
{
    QVariantMap map;
    QVector<QPair<QString, QString>> texts; ///< in the order of the keys
    bool isSendable;
    Value echo; ///< what the stand-in's factors answer; no text when they refuse
};

const QVector<Parameters> &parameterMaps();

struct Step
{
    Do what = Do::Nothing;
    int who = 0; ///< which client or device-lock client
    int number = 0;
    int params = 0; ///< a row of parameterMaps()
    QString name = {};
    Value value = {};
    QString how = {};  ///< of a misbehaviour
    bool flag = false; ///< whether a factor method has a callback
    Do then = Do::Nothing;
    int thenNumber = 0;
    bool delivered = true;

    /** Whether a call that meets this misbehaviour costs its connection, and the whole instance with it. */
    bool closesConnection() const;
    bool endsInstance() const;
    bool comesFirst() const
    {
        return false;
    }
    QString text() const;
};

/** What is done to clients and their daemon. */
using Script = QVector<Step>;

/** Random scripts, whose steps make sense one after the other; any of them can be left out. */
class Author : private Dice
{
public:
    explicit Author(quint32 seed)
        : Dice(seed)
    {
    }

    Script script(int length);

private:
    int client();
    Value wrong(const QString &right);
    Step emission();
    Step misbehaviour();
    Step call(bool nested);
    Step handler();
    Step instance();
    Step step();

    /** With several steps at once more can happen, in more orders. */
    bool m_hasBatches = false;
    int m_tokens = 0;
};
