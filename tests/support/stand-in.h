#pragma once

#include <AuthStandIn>

#include <QtCore/QStringList>

/**
 * The stand-in daemon, for tests that write its requests as JSON text.
 *
 * A refused request and a stand-in that does not answer end the test program. No function turns the event loop under test.
 */
class StandIn : public AuthStandIn
{
    Q_OBJECT

public:
    StandIn();

    /** A new, well-behaved daemon in an unlocked device, with its scenario's options and nothing in its call log. */
    void reset();

    /** A rule for calls of @p method; @p more holds further members, such as "\"times\":1". */
    void misbehave(const char *method, const char *how, const QByteArray &more = QByteArray());
    /** Answers calls of @p method with @p value, in GVariant text. */
    void answer(const char *method, const QByteArray &value);
    /** An option gets a value, in the scenario's JSON notation, and nobody is told; global without @p uid. */
    void arrangeOption(const QByteArray &key, const QByteArray &json, uint uid = 0);
    /** The same, announced to all clients. */
    void changeOption(const QByteArray &key, const QByteArray &json, uint uid = 0);
    void removeOption(const QByteArray &key, uint uid = 0);
    /** The value of an option in GVariant text; empty if it is not there. */
    QString option(const QByteArray &key, uint uid = 0);
    void emitSignal(const char *name, const QByteArray &args, const QByteArray &more = QByteArray());

    /** The calls since the last clearCalls(), as peerCall() and systemCall() write them. */
    QStringList calls();
    /** Waits until @p count calls of @p method are in the log; returns these. */
    QStringList waitCalls(const char *method, int count = 1);

    /** The daemon instance that logged each call of @p method. */
    QList<int> instancesOf(const char *method);
    int peerCount();
    /** The unique bus name of the present instance. */
    QString owner();

protected:
    void settleBus() override;
};

/** How a call of the main object is written by StandIn::calls(). */
QString peerCall(const char *method, const char *signature, const QByteArray &args);
/** How a call of the settings object is written by StandIn::calls(). */
QString settingsCall(const char *method, const char *signature, const QByteArray &args);
/** How a call of the device-lock object is written by StandIn::calls(). */
QString systemCall(const char *method, const char *signature, const QByteArray &args);
/** A byte array in GVariant text. */
QByteArray bytes(const QByteArray &value);
