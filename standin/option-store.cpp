#include "option-store.h"

namespace {

bool isWorker(const OptionOwner &owner)
{
    return owner.factor == workerFactor;
}

/** Under whom the options are kept. */
OptionOwner keeperOf(const OptionOwner &owner)
{
    return isWorker(owner) ? OptionOwner{owner.uid, std::nullopt} : owner;
}

std::string keyOf(const OptionOwner &owner, const std::string &name)
{
    return isWorker(owner) ? workerPrefix + name : name;
}

} // namespace

OptionStore::OptionStore(const Scenario &scenario)
{
    m_start[{}] = scenario.options;
    for (const auto &[uid, user] : scenario.users) {
        m_start[{uid, std::nullopt}] = user.options;
        for (const auto &[name, factor] : scenario.factors)
            m_start[{uid, name}] = factor.options;
    }
    m_stock = m_start;
}

bool OptionStore::has(const OptionOwner &owner) const
{
    return m_stock.count(keeperOf(owner)) != 0;
}

Options OptionStore::all(const OptionOwner &owner) const
{
    return select(m_stock, owner);
}

Options OptionStore::atStart(const OptionOwner &owner) const
{
    return select(m_start, owner);
}

Variant OptionStore::value(const OptionOwner &owner, const std::string &name) const
{
    const Options &options = m_stock.at(keeperOf(owner));
    const auto found = options.find(keyOf(owner, name));
    return found == options.end() ? nullptr : found->second;
}

void OptionStore::set(const OptionOwner &owner, const std::string &name, const Variant &value)
{
    m_stock.at(keeperOf(owner))[keyOf(owner, name)] = value;
}

bool OptionStore::remove(const OptionOwner &owner, const std::string &name)
{
    return m_stock.at(keeperOf(owner)).erase(keyOf(owner, name)) != 0;
}

void OptionStore::reset()
{
    m_stock = m_start;
}

Options OptionStore::select(const Stock &stock, const OptionOwner &owner)
{
    const Options &options = stock.at(keeperOf(owner));
    if (!isWorker(owner))
        return options;
    Options named;
    for (const auto &[key, value] : options) {
        if (g_str_has_prefix(key.c_str(), workerPrefix.c_str()))
            named[key.substr(workerPrefix.size())] = value;
    }
    return named;
}
