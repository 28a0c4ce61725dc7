#pragma once

#include "json.h"
#include "util.h"

#include <map>
#include <string>

/** Options by key. */
using Options = std::map<std::string, Variant>;

/** The daemon's own settings are options under this prefix, and are called as a factor's of this name. */
inline const std::string workerFactor = "worker";
inline const std::string workerPrefix = "worker/";

/** Why @p value cannot be an option's; empty when it can. */
std::string problemOfOption(GVariant *value);

/** Reads a value: true or false, a text, a list of texts, or an object with type and value. Throws JsonError. */
Variant readOption(const Json &node, const std::string &path);

/** Reads an object of such values. Throws JsonError. */
Options readOptions(const Json &node, const std::string &path);

Variant listOption(const std::vector<std::string> &texts);
