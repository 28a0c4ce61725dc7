#pragma once

#include <QtCore/QStringList>

/** An object of the daemon's, and what hosts rely on of its interface. */
struct Interface
{
    const char *path;
    const char *name;
    /** Methods and signals with the types of their arguments, and of the answer if hosts look at the answer; a null. */
    const char *members[12];
};

extern const Interface MainInterface;
extern const Interface SettingsInterface;
extern const Interface DevlockInterface;

/** What a description, the XML of an introspection, lacks of what hosts rely on. */
QStringList missing(const Interface &expected, const QString &description);
