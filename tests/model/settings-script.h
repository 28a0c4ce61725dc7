#pragma once

#include "dice.h"
#include "settings-oracle.h"

enum class Do {
    ArrangeGlobal,
    ArrangeUser,
    RemoveGlobal,
    RemoveUser,
    ChangeGlobal,
    ChangeUser,
    AnnounceGlobal,
    AnnounceUser,
    Announce, // a signal with any arguments
    Misbehave,
    Behave,
    Authenticate,
    DropAuthentication,
    SetUid,
    TriggerFactor,
    TriggerUnlockFactor,
    SetShowNotifications,
    SetIsMultiFactorable,
    SetIsUserSettable,
    ShowLastLogin,
    LastLoginDate,
    Wait,
};

struct Step
{
    Do what = Do::Wait;
    uint uid = 0;
    int row = 0;
    bool flag = false;
    QString name = {};
    OptionValue value = {};
    Rule rule = {};
    bool beforeClient = false;
    bool delivered = true; // whether what the daemon announces is waited for

    bool comesFirst() const
    {
        return beforeClient;
    }
    QString text() const;
};

/** What is done to a client and its daemon; any step can be left out. */
using Script = QVector<Step>;

/** The names of factors that scripts use. */
const QStringList &factorNames();

/** Random scripts. The steps do not depend on each other: any of them can be left out. */
class Author : private Dice
{
public:
    explicit Author(quint32 seed)
        : Dice(seed)
    {
    }

    Script script(int length);

private:
    QStringList some(const QStringList &of, int most);
    OptionValue odd();
    OptionValue valueFor(const QString &key);
    uint user();
    QString userKey();
    Step arrangedUserOption();
    Rule rule();
    Step step();
    void offer(Script *script);

    uint m_uid = 0;
};
