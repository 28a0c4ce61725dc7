#pragma once

#include "auth-client_p.h"
#include "auth-settings-client.h"
#include "factor-list-model.h"

#include <QtCore/QHash>
#include <QtCore/QSet>
#include <QtCore/QStringList>
#include <QtCore/QVector>
#include <QtDBus/QDBusVariant>

/** The roles of FactorListModel. */
enum Role : int {
    NameRole = Qt::UserRole,
    TitleRole,
    EnabledRole,
    DisabledRole,
    IsUnlockRole,
};

/** Finds names in a list that is asked for one after another, without searching all of it each time. */
class NameLookup
{
public:
    bool contains(const QStringList &list, const QString &name)
    {
        // A list shares its names with the copy until either is changed.
        if (!m_list.isSharedWith(list)) {
            m_list = list;
            m_names = QSet<QString>(list.begin(), list.end());
        }
        return m_names.contains(name);
    }

private:
    QStringList m_list;
    QSet<QString> m_names;
};

class AuthSettingsClientPrivate : public AuthClientPrivate
{
    Q_OBJECT

public:
    /** A factor that a service offers. */
    struct Factor
    {
        QString type; ///< The service.
        QString name;
        QString title;
        bool enabled;  ///< Chosen, as the daemon last said.
        bool selected; ///< Wanted to be chosen; what is written.
        bool disabled;
    };

    /** @param q the AuthSettingsClient, of which only the AuthClient need exist */
    explicit AuthSettingsClientPrivate(AuthClient *q);
    ~AuthSettingsClientPrivate() override;

    /** Subscribes the signals of the settings beside those of the base. */
    void setupConnection();

    QVariant getOption(const QString &key);
    QVariant getUserOption(uint uid, const QString &key);
    /** Unlike the single read, puts the worker prefix in front of each key. */
    QVariantMap getUserOptions(uint uid, const QStringList &keys);
    bool setUserOption(uint uid, const QString &key, const QVariant &value);

    void setUidInternal(uint uid);
    void setShowNotificationsInternal(bool value);
    void setIsMultiFactorable(bool value);
    void setIsUserSettable(bool value);

    bool factorIsChosen(const QString &service, const QString &name) const;
    bool hasFactor(const QString &name) const;
    bool hasEnabledFactor(const QString &name) const;
    bool hasChosenFactor(const QString &name) const;
    QStringList unlockFactors() const;

    bool canTriggerFactor(int row) const;
    void triggerFactorInternal(int row);
    void triggerUnlockFactor(const QString &name);

    uint m_uid = 0;
    QStringList m_availableServices;
    QHash<QString, QStringList> m_serviceFactors;
    QStringList m_disabledFactors;
    QVector<Factor> m_factors;
    /** The factor that each row of the model shows. */
    QVector<int> m_rows;
    QHash<QString, QList<int>> m_factorIndexes;
    QHash<QString, int> m_rowByName;
    /** Declared after what it shows, which so outlives it. */
    FactorListModel m_model;
    bool m_showNotifications = false;
    bool m_isMultiFactorable = false;
    /** Until a user is selected, every login factor is shown. */
    bool m_isUserSettable = true;
    bool m_canSwitchToUser;
    QString m_userWarning;
    /** The login rows whose factor is chosen. */
    int m_enabledLoginFactors = 0;

private:
    AuthSettingsClient *publicObject() const;

    bool factorIsDisabled(const QString &name) const;
    void getAvailableServiceFactors();
    void getPublicFactors();
    void updateChosenFactors();
    void updateShowNotifications(bool value);
    void updateIsMultiFactorable(bool value);
    void updateIsUserSettable(bool value);
    void updateUserWarning(const QString &text);

    template <typename Function> void forEachUnlockFactor(Function function);
    void saveFactorsInternal();

    /** How often a user has been selected. */
    int m_selections = 0;
    /** For each service of m_serviceFactors. */
    mutable QHash<QString, NameLookup> m_chosenLookups;
    mutable NameLookup m_disabledLookup;

private Q_SLOTS:
    void handleOptionChanged(QString key, QDBusVariant value);
    void handleUserOptionChanged(uint uid, QString key, QDBusVariant value);
};
