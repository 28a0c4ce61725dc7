#pragma once

#include <QtCore/qglobal.h>

/** Marks what the library exports; everything else in it is hidden. */
#define AUTH_SCREENS_EXPORT Q_DECL_EXPORT
