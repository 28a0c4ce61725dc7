#pragma once

#include "option.h"
#include "scenario.h"

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>

/** Whose an option is: the daemon's, a user's, or a user's and a factor's. */
struct OptionOwner
{
    std::optional<uint32_t> uid;
    std::optional<std::string> factor; ///< not without a user

    bool operator<(const OptionOwner &other) const
    {
        return std::tie(uid, factor) < std::tie(other.uid, other.factor);
    }
};

/**
 * All options, as they are and as they were at the start.
 *
 * Those of the factor "worker" are the user's own whose keys begin with "worker/", named without it.
 */
class OptionStore
{
public:
    explicit OptionStore(const Scenario &scenario);

    bool has(const OptionOwner &owner) const;
    Options all(const OptionOwner &owner) const;
    Options atStart(const OptionOwner &owner) const;
    /** nullptr when there is none. */
    Variant value(const OptionOwner &owner, const std::string &name) const;
    void set(const OptionOwner &owner, const std::string &name, const Variant &value);
    /** Returns false when there is none. */
    bool remove(const OptionOwner &owner, const std::string &name);
    void reset();

private:
    using Stock = std::map<OptionOwner, Options>;

    static Options select(const Stock &stock, const OptionOwner &owner);

    Stock m_start;
    Stock m_stock;
};
