#pragma once

#include "settings-oracle.h"

#include <QtCore/QRandomGenerator>

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
class Author
{
public:
    explicit Author(quint32 seed)
        : m_random(seed)
    {
    }

    Script script(int length);

private:
    bool chance(int percent)
    {
        return int(m_random.bounded(100)) < percent;
    }
    template <typename T> T one(const QVector<T> &of)
    {
        return of[int(m_random.bounded(of.size()))];
    }
    QString one(const QStringList &of)
    {
        return of[int(m_random.bounded(of.size()))];
    }
    QStringList some(const QStringList &of, int most);
    OptionValue odd();
    OptionValue valueFor(const QString &key);
    uint user();
    QString userKey();
    Step arrangedUserOption();
    Rule rule();
    Step step();
    void offer(Script *script);

    QRandomGenerator m_random;
    uint m_uid = 0;
};
