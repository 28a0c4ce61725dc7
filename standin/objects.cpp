#include "objects.h"

#include "embedded.h"

#include <algorithm>
#include <set>

namespace {

Object object(Bus bus, const char *xml)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(xml, &error);
    if (!node)
        g_error("%s", error->message);
    return {bus, node->path, xml, {g_dbus_interface_info_ref(node->interfaces[0]), g_dbus_interface_info_unref}};
}

template <typename Predicate> const Object *find(Predicate predicate)
{
    const auto found = std::find_if(objects().begin(), objects().end(), predicate);
    return found == objects().end() ? nullptr : &*found;
}

} // namespace

const char *nameOf(Bus bus)
{
    return bus == Bus::Peer ? "peer" : "system";
}

const std::vector<Object> &objects()
{
    static const std::vector<Object> all = {
        object(Bus::Peer, Embedded::mainXml),
        object(Bus::Peer, Embedded::settingsXml),
        object(Bus::System, Embedded::devlockXml),
    };
    return all;
}

const Object *objectAt(Bus bus, const std::string &path)
{
    return find([&](const Object &object) { return object.bus == bus && object.path == path; });
}

const Object *objectOfInterface(const std::string &interface)
{
    return find([&](const Object &object) { return object.interface->name == interface; });
}

const Object *objectWithSignal(const std::string &signal)
{
    return find([&](const Object &object) {
        return g_dbus_interface_info_lookup_signal(object.interface.get(), signal.c_str()) != nullptr;
    });
}

const Object *objectWithMethod(const std::string &method)
{
    return find([&](const Object &object) {
        return g_dbus_interface_info_lookup_method(object.interface.get(), method.c_str()) != nullptr;
    });
}

std::string introspect(Bus bus, const std::string &path)
{
    if (const Object *object = objectAt(bus, path))
        return object->xml;

    const std::string prefix = path == "/" ? path : path + "/";
    std::set<std::string> children;
    for (const Object &object : objects()) {
        if (object.bus == bus && g_str_has_prefix(object.path.c_str(), prefix.c_str()))
            children.insert(object.path.substr(prefix.size(), object.path.find('/', prefix.size()) - prefix.size()));
    }
    if (children.empty())
        return {};
    std::string xml = "<node>\n";
    for (const std::string &child : children)
        xml += "  <node name=\"" + child + "\"/>\n";
    return xml + "</node>\n";
}

std::string signatureOf(const GDBusMethodInfo *method)
{
    std::string signature = "(";
    for (GDBusArgInfo **argument = method->in_args; argument && *argument; ++argument)
        signature += (*argument)->signature;
    return signature + ")";
}
