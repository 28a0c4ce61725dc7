#pragma once

#include <QtCore/qglobal.h>

/** To be called before D-Bus is used for the first time: makes something that the thread of Qt D-Bus needs to its end. */
void makeTimerList();

/**
 * Something on the heap that uses Qt D-Bus. A host may own a client in a static object, which outlives the static
 * objects of Qt D-Bus. A BusUser that is left at the end of the process is deleted before those of Qt D-Bus.
 */
class BusUser
{
    Q_DISABLE_COPY(BusUser)

public:
    virtual ~BusUser();

protected:
    BusUser() = default;
    /** To be called at the end of construction. */
    void enlist();

private:
    BusUser *m_next = nullptr;
    /** What points to this object. */
    BusUser **m_link = nullptr;
};
