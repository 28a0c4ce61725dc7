#pragma once

/** Files that are part of the program; see CMakeLists.txt. */
namespace Embedded {
extern const char mainXml[];
extern const char settingsXml[];
extern const char devlockXml[];
extern const char scenario[];
} // namespace Embedded
