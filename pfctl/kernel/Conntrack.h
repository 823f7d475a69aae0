// SPDX-License-Identifier: MIT
//
// The states. The kernel tracks every connection; those with a bit of ours (MarkBits.h) are what pf
// calls states.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "netlink/Socket.h"
#include "pfctl/kernel/Dispatch.h"
#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

/// One tracked connection.
struct Connection {
    Flow entering;           ///< its first packet as the rules for `in` see it
    Flow leaving;            ///< and as those for `out` do: with its source translated
    std::uint32_t mark = 0;  ///< MarkBits.h

    bool hasState() const;
};

/// All functions throw `std::system_error`.
class Conntrack {
public:
    /// About as many as fit into one page of /proc/net/nf_conntrack. Where they do, they are read
    /// there in a tenth of netlink's time.
    static constexpr std::size_t maxReadAsText = 25;

    explicit Conntrack(netlink::Socket& socket) : socket_(socket) {}

    /// Calls `take` for every IPv4 connection.
    void forEach(const std::function<void(const Connection&)>& take);

    /// Calls `take` for every IPv4 connection that has a state.
    void forEachState(const std::function<void(const Connection&)>& take);

    /// Forgets the connections whose initiator is in the first subnet and, if a second is given,
    /// whose responder is in that one. Returns how many of them had a state. Where it throws over
    /// one of them, it has forgotten the others.
    std::size_t kill(std::span<const Subnet> hosts);

    /// Whether the text, in the form of /proc/net/nf_conntrack, may hold a connection that `kill`
    /// forgets. A line that makes no sense counts as one.
    static bool mayName(std::string_view list, std::span<const Subnet> hosts);

    /// Whether the text may hold a connection that has a state, in the same sense.
    static bool mayHoldState(std::string_view list);

private:
    std::optional<std::string> shortList();
    std::uint64_t count();
    void forget(std::span<const std::vector<std::uint8_t>> entries);
    void forgetAtOnce(std::span<const std::vector<std::uint8_t>> entries);

    netlink::Socket& socket_;
};

}  // namespace tarnvale::pfctl
