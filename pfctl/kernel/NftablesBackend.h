// SPDX-License-Identifier: MIT
//
// The anchors as the kernel has them: which there are, what they hold, and their replacement. A
// load is one transaction: the old ruleset is in force until the new one is.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "netlink/Socket.h"
#include "pfctl/kernel/TableWriter.h"
#include "pfctl/language/CountedRule.h"

namespace tarnvale::pfctl {

struct Anchor {
    std::string name;
    Loader loader;
    bool dormant = false;
};

struct AnchorContent {
    Loader loader;
    std::vector<CountedRule> rules;  ///< in the order of the lines
};

/// All functions throw `std::system_error`, and `PfctlError` when rules cannot be read.
class NftablesBackend {
public:
    explicit NftablesBackend(netlink::Socket& socket) : socket_(socket) {}

    /// The anchors that have rules, without the tables of others.
    std::vector<Anchor> anchors();

    /// The anchor of that name, if it has rules.
    std::optional<Anchor> anchor(const std::string& name);

    /// Replaces the anchor's rules; without any the anchor ceases to exist.
    void load(const RulesetTable& table);

    /// Removes the anchor's rules, if it has any.
    void flush(const std::string& anchor);

    /// Puts into force the anchors that were loaded dormant.
    void activate(std::span<const std::string> anchors);

    /// What the anchor holds at one instant; nothing when it has no rules.
    std::optional<AnchorContent> content(const std::string& anchor);

private:
    std::uint32_t generation();
    std::optional<std::vector<std::string>> chains(const std::string& anchor);
    bool readChain(
        const std::string& anchor, const std::string& chain, std::vector<CountedRule>& rules);
    std::int32_t placeBehind(const std::string& anchor);

    netlink::Socket& socket_;
};

}  // namespace tarnvale::pfctl
