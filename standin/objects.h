#pragma once

#include "util.h"

#include <memory>
#include <string>
#include <vector>

enum class Bus {
    Peer,
    System,
};

const char *nameOf(Bus bus);

/** One of the daemon's objects, each of which lives on one bus and has one interface of its own name. */
struct Object
{
    Bus bus;
    std::string path;
    const char *xml;
    std::shared_ptr<GDBusInterfaceInfo> interface;
};

const std::vector<Object> &objects();

/** Return nullptr when there is none. */
const Object *objectAt(Bus bus, const std::string &path);
const Object *objectOfInterface(const std::string &interface);
const Object *objectWithSignal(const std::string &signal);
const Object *objectWithMethod(const std::string &method);

/** The introspection data of an object or of one of their parents; empty for any other path. */
std::string introspect(Bus bus, const std::string &path);

/** The type string of a method's arguments as a tuple. */
std::string signatureOf(const GDBusMethodInfo *method);
