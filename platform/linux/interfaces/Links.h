// SPDX-License-Identifier: MIT
//
// The kernel's network interfaces over rtnetlink, as far as VLANs need them. The kernel is asked
// anew each time; its answer is taken whole or not at all.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "netlink/Socket.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {

/// One interface, as the kernel describes it.
struct Link {
    int index = 0;
    std::string name;
    std::vector<std::string> otherNames = {};  ///< no new interface may have one of these either
    bool isEthernet = false;                   ///< and not a loopback
    bool isVLAN = false;
    /// Of an 802.1Q VLAN; one of another kind has none.
    std::optional<std::int64_t> tag = std::nullopt;
    /// The parent's index, unless it is in another network namespace.
    std::optional<int> parent = std::nullopt;
    std::uint32_t group = 0;  ///< 0 for one that nobody has put into another

    bool operator==(const Link&) const = default;
};

/// How many bytes of an alias the kernel keeps.
inline constexpr std::size_t maxAliasSize = 255;

/// A conversation with the kernel. Its functions throw `std::system_error` with the kernel's error
/// number when it refuses, and with one of their own when the answer makes no sense. Those that
/// change something throw `netlink::AnswerLost` when they can't tell whether the kernel did it.
class LinkSocket {
public:
    LinkSocket();

    /// Talks to whoever is at the other end of a connected datagram socket.
    explicit LinkSocket(support::UniqueFd fd) : socket_(std::move(fd)) {}

    /// All interfaces of this network namespace, in the order of their indices.
    std::vector<Link> links();

    /// Whether the kernel can make VLANs at all. Asking may load the module for it.
    bool supportsVLANs();

    /// Makes a VLAN interface, which is down, in that group.
    void createVLAN(std::string_view name, int parent, std::uint16_t tag, std::uint32_t group);

    /// Takes the interface out of its group, gives it the alias unless that is empty, and sets it
    /// up, in one step; only the last part of it fails if the parent is down. The kernel refuses an
    /// alias of more than `maxAliasSize` bytes.
    void setUp(int index, std::string_view alias);

    /// Takes no memory, unless it fails.
    void remove(int index);

private:
    netlink::MessageWriter begin(
        std::uint16_t type, unsigned flags, int index = 0, unsigned interfaceFlags = 0);

    netlink::Socket socket_;
    std::uint32_t sequence_ = 0;  ///< of the last request
};

}  // namespace tarnvale::platform
