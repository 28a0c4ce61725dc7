#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QPair>
#include <QtCore/QStringList>
#include <QtCore/QVariant>
#include <QtCore/QVector>

// A second, plain implementation of the settings client and of the part of the daemon that it talks to. It shares no
// code with the library: lists and loops, nothing kept that can be looked up, and nothing asynchronous but one queue.

/** A value of an option in the three forms that are needed. */
struct OptionValue
{
    QByteArray json;   ///< as the stand-in's requests write it
    QString text;      ///< as GVariant writes it
    QString signature; ///< its type on the bus
    QVariant variant;  ///< as Qt D-Bus hands it out; invalid for what it does not decode
};

OptionValue boolValue(bool value);
OptionValue textValue(const QString &value);
OptionValue listValue(const QStringList &value);
/** @p text has a value of @p signature, which Qt D-Bus hands out as @p variant. */
OptionValue otherValue(const char *signature, const char *text, const QVariant &variant);

/** A text in GVariant notation. */
QString quotedText(const QString &text);

struct Row
{
    QString name;
    QString title;
    bool enabled;
    bool disabled;
    bool isUnlock;

    bool operator==(const Row &other) const;
};

/** What a host can read at any moment. */
struct Snapshot
{
    uint uid;
    bool showNotifications;
    bool canSwitchToUser;
    bool isMultiFactorable;
    bool isUserSettable;
    QString userWarning;
    QStringList unlockFactors;
    QVector<Row> rows;
    int loginFactorsCount;

    bool operator==(const Snapshot &other) const;
    QString text() const;
};

/** A signal, and what a host sees when it handles it. */
struct Emission
{
    QString name;
    Snapshot seen;

    bool operator==(const Emission &other) const;
};

struct Reply
{
    bool isError;
    QString message; ///< "*" for any
    QVariant value;
};

/** How the daemon is told to treat calls of a method. */
struct Rule
{
    QString method;
    QString how; ///< "error", "reply", "lose-signals" or "signal-first"
    QString message;
    OptionValue reply; ///< `text` is the whole reply's, `variant` is that of its one argument
    int times;         ///< 0: all
};

struct Announcement
{
    QString signal;
    uint uid;
    QString key;
    QVariant value;
};

/** What the daemon keeps, answers and announces; a stand-in with the options of its built-in scenario. */
class DaemonOracle
{
public:
    DaemonOracle();

    void addRule(const Rule &rule);
    void dropRules();
    void addToken(const QByteArray &token, uint uid);
    void setGlobal(const QString &key, const OptionValue &value, bool announced);
    void setUser(uint uid, const QString &key, const OptionValue &value, bool announced);
    void removeGlobal(const QString &key);
    void removeUser(uint uid, const QString &key);
    void announce(const Announcement &announcement);

    Reply getOption(const QString &key);
    Reply getUserOption(uint uid, const QString &key);
    Reply getUserOptions(uint uid, const QStringList &keys);
    Reply setUserOption(uint uid, const QByteArray &token, const QString &key, const OptionValue &value);

    QStringList takeCalls();
    /** What has been announced and not yet been delivered. */
    QVector<Announcement> takeAnnouncements();

private:
    bool takeRule(const char *method, Rule *rule);
    void announceUser(uint uid, const QString &key, const OptionValue &value);

    QMap<QString, OptionValue> m_global;
    QMap<uint, QMap<QString, OptionValue>> m_users;
    QVector<QPair<QByteArray, uint>> m_tokens;
    QVector<Rule> m_rules;
    QVector<Announcement> m_announcements;
    QStringList m_calls;
};

class SettingsOracle
{
public:
    explicit SettingsOracle(DaemonOracle *daemon);

    void setUid(uint uid);
    bool canTriggerFactor(int row);
    void triggerFactor(int row);
    void triggerUnlockFactor(const QString &name);
    void setShowNotifications(bool value);
    void setIsMultiFactorable(bool value);
    void setIsUserSettable(bool value);
    bool showLastLogin(uint uid);
    QString lastLoginDate(uint uid);
    bool hasFactor(const QString &name) const;
    bool hasEnabledFactor(const QString &name) const;
    bool hasChosenFactor(const QString &name) const;
    QStringList unlockFactors() const;
    Snapshot snapshot() const;

    void setToken(const QByteArray &token);
    QByteArray token() const;
    void hear(const QVector<Announcement> &announcements);

    QVector<Emission> takeEmissions();
    /** Messages that end with an asterisk stand for all that begin so. */
    QStringList takeWarnings();

private:
    struct Factor
    {
        QString type;
        QString name;
        QString title;
        bool enabled;
        bool selected;
        bool disabled;
    };

    void emitSignal(const QString &name);
    void warnAbout(const char *operation, const Reply &reply);
    QVariant getOption(const QString &key);
    QVariant getUserOption(uint uid, const QString &key);
    QVariantMap getUserOptions(uint uid, const QStringList &keys);
    bool setUserOption(const QString &key, const OptionValue &value);
    void hearOption(const QString &key, const QVariant &value);
    void hearUserOption(uint uid, const QString &key, const QVariant &value);
    void updateShowNotifications(bool value);
    void updateIsMultiFactorable(bool value);
    void updateIsUserSettable(bool value);
    void updateUserWarning(const QString &value);
    void updateChosenFactors();
    void rebuildRows();
    void save();
    bool isChosen(const Factor &factor) const;

    DaemonOracle *const m_daemon;
    QByteArray m_token;
    QVector<Emission> m_emissions;
    QStringList m_warnings;

    uint m_uid = 0;
    QStringList m_services;
    QHash<QString, QStringList> m_chosen;
    QStringList m_disabled;
    QVector<Factor> m_factors;
    QVector<int> m_rows;
    QHash<QString, int> m_rowOf;
    bool m_showNotifications = false;
    bool m_isMultiFactorable = false;
    bool m_isUserSettable = true;
    bool m_canSwitchToUser = false;
    QString m_userWarning;
    int m_enabledLoginFactors = 0;
};

/** The translations that the tests install; ids without one are shown themselves. */
QString translated(const QByteArray &latin1Id);
