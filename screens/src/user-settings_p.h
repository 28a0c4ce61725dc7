#pragma once

#include "factor-model_p.h"
#include "lock-follower.h"
#include "trial.h"
#include "UserSettings"

namespace AuthScreens {

class UserSettingsPrivate : public QObject
{
    Q_OBJECT

public:
    explicit UserSettingsPrivate(UserSettings *publicObject);

    Wire::Attempt request(const QString &factor) const;
    int obstacle() const;
    bool isAvailable() const;
    void setUid(uint newUid);
    void lock();
    bool change(Wire::Setting setting, const QString &factor, bool value);

    uint uid = 0;
    Wire::Settings settings;
    QVector<Wire::Write> pending;
    Trial trial;
    FactorModel loginFactors;
    FactorModel unlockFactors;

private:
    void handleState();
    void handleFrame(const Wire::Frame &frame);
    void handleLost();
    void handleSettings(const Wire::Settings &told);
    void handleWritten(const Wire::Written &written);
    /** Ends the agent, and what it was to do, with @p reason; another one begins at once, or after a pause. */
    void restart(Reason reason, int pause = 0);
    void start();
    void stop();
    void refuseNext();
    void showRows();
    void showRows(FactorModel *model, const QVector<FactorModelPrivate::Row> &rows);
    FactorModelPrivate::Row row(const QString &name, Wire::Setting setting, const QStringList &chosen) const;
    QStringList usable(const QStringList &names) const;

    UserSettings *const q;
    LockFollower m_follower;
    std::unique_ptr<Agent> m_agent;
    int m_state;
    quint32 m_number = 0;
    /** Changes that have been refused, and of which nobody has been told. */
    QVector<QPair<Wire::Write, Reason>> m_refusals;
    bool m_isAwaited = false;
    int m_pause;
    QTimer m_limit;
    QTimer m_restart;
    QTimer m_refusal;
};

} // namespace AuthScreens
