#pragma once

#include "judge.h"

#include <AuthSettingsClient>
#include <FactorSettingsBase>

#include <QtCore/QTimer>

/**
 * Mirrors and changes a user's settings.
 *
 * AuthSettingsClient tells neither whether it could read something nor what has become of a choice, keeps a choice that was
 * refused for the next one, and lets a disabled factor be chosen. So choices are read and written here as the daemon's own
 * method offers them, each as a whole list, and each answered.
 */
class Settings : public FactorSettingsBase
{
    Q_OBJECT

public:
    /** Connects to the daemon: blocks, and ends the process where the daemon cannot be reached. */
    explicit Settings(Channel *channel);

    void mirror(uint uid);
    void write(const AuthScreens::Wire::Write &wish);
    void ask(AuthScreens::Wire::Attempt *attempt);
    void drop();

protected:
    void handleOptionChanged(uint uid, const QString &name, const QVariant &value) override;

private:
    void read();
    void tell();
    QVariant option(const char *name, bool *isGood) const;
    /** False where the change is none that a user may make. */
    bool chooseForLogin(const QString &factor, bool isWanted, QStringList *chosen) const;
    bool chooseForUnlocking(const QString &factor, bool isWanted, QStringList *chosen) const;
    /** Those of @p names that the user can use. */
    QStringList usable(const QStringList &names) const;
    void set(quint32 number, const QString &name, const QVariant &value);
    void finish(quint32 number, AuthScreens::Wire::Result result);

    Channel *const m_channel;
    AuthSettingsClient *const m_client;
    Judge *m_judge = nullptr;
    QTimer m_again;
    uint m_uid = 0;
    AuthScreens::Wire::Settings m_settings;
};
