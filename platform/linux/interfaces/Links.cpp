// SPDX-License-Identifier: MIT

#include "platform/linux/interfaces/Links.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>

#include "netlink/Messages.h"

namespace tarnvale::platform {
namespace {

using netlink::AttributeReader;
using netlink::Bytes;
using netlink::hostOrder;
using netlink::MessageWriter;
using netlink::textOf;

constexpr std::string_view vlanKind = "vlan";

/// How often a list is read again that changed while it was read.
constexpr int maxAttempts = 16;

/// What makes the interface a VLAN.
void putVLAN(MessageWriter& request, std::uint16_t tag) {
    request.nest(IFLA_LINKINFO, [&] {
        request.put(IFLA_INFO_KIND, vlanKind);
        request.nest(IFLA_INFO_DATA, [&] { request.putHostOrder(IFLA_VLAN_ID, tag); });
    });
}

std::optional<std::int64_t> tagOf(Bytes data) {
    std::optional<std::int64_t> tag;
    auto protocol = htons(ETH_P_8021Q);
    for (AttributeReader reader(data); reader.next();) {
        switch (reader.type()) {
            case IFLA_VLAN_ID:
                tag = hostOrder<std::uint16_t>(reader.value());
                break;
            case IFLA_VLAN_PROTOCOL:
                protocol = hostOrder<std::uint16_t>(reader.value());
                break;
            default:
                break;
        }
    }
    return protocol == htons(ETH_P_8021Q) ? tag : std::nullopt;
}

void readKind(Bytes information, Link& link) {
    Bytes data;
    for (AttributeReader reader(information); reader.next();) {
        switch (reader.type()) {
            case IFLA_INFO_KIND:
                link.isVLAN = textOf(reader.value()) == vlanKind;
                break;
            case IFLA_INFO_DATA:
                data = reader.value();
                break;
            default:
                break;
        }
    }
    if (link.isVLAN) {
        link.tag = tagOf(data);
    }
}

void readOtherNames(Bytes properties, Link& link) {
    for (AttributeReader reader(properties); reader.next();) {
        if (reader.type() == IFLA_ALT_IFNAME) {
            link.otherNames.emplace_back(textOf(reader.value()));
        }
    }
}

Link linkOf(const netlink::Message& message) {
    if (message.type != RTM_NEWLINK) {
        netlink::failMalformed();
    }
    const auto header = message.header<ifinfomsg>();
    Link link;
    link.index = header.ifi_index;
    link.isEthernet =
        header.ifi_type == ARPHRD_ETHER && (header.ifi_flags & unsigned{IFF_LOOPBACK}) == 0;

    bool parentIsElsewhere = false;
    for (AttributeReader reader(message.attributes<ifinfomsg>()); reader.next();) {
        switch (reader.type()) {
            case IFLA_IFNAME:
                link.name = textOf(reader.value());
                break;
            case IFLA_LINK:
                link.parent = hostOrder<int>(reader.value());
                break;
            case IFLA_GROUP:
                link.group = hostOrder<std::uint32_t>(reader.value());
                break;
            case IFLA_LINK_NETNSID:
                parentIsElsewhere = true;
                break;
            case IFLA_LINKINFO:
                readKind(reader.value(), link);
                break;
            case IFLA_PROP_LIST:
                readOtherNames(reader.value(), link);
                break;
            default:
                break;
        }
    }
    if (link.index <= 0 || link.name.empty()) {
        netlink::failMalformed();
    }
    if (parentIsElsewhere) {
        link.parent.reset();
    }
    return link;
}

}  // namespace

LinkSocket::LinkSocket() : socket_(NETLINK_ROUTE) {}

std::vector<Link> LinkSocket::links() {
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
        auto list = begin(RTM_GETLINK, NLM_F_DUMP);
        list.putHostOrder(IFLA_EXT_MASK, std::uint32_t{RTEXT_FILTER_SKIP_STATS});
        std::vector<Link> links;
        const bool complete = socket_.dump(
            list, [&](const netlink::Message& message) { links.push_back(linkOf(message)); });
        if (complete) {
            std::ranges::sort(links, {}, &Link::index);
            return links;
        }
    }
    netlink::fail(EAGAIN);
}

bool LinkSocket::supportsVLANs() {
    // A request that no kernel can grant, for 4095 is no tag and there is no parent. A kernel that
    // has VLANs finds fault with the tag.
    auto impossible = begin(RTM_NEWLINK, NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL);
    putVLAN(impossible, 4095);
    try {
        socket_.request(impossible);
    } catch (const std::system_error& error) {
        return error.code() == std::errc::result_out_of_range;
    }
    return false;
}

void LinkSocket::createVLAN(
    std::string_view name, int parent, std::uint16_t tag, std::uint32_t group) {
    auto creation = begin(RTM_NEWLINK, NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL);
    creation.put(IFLA_IFNAME, name.substr(0, IFNAMSIZ - 1));
    creation.putHostOrder(IFLA_LINK, static_cast<std::uint32_t>(parent));
    creation.putHostOrder(IFLA_GROUP, group);
    putVLAN(creation, tag);
    socket_.request(creation);
}

void LinkSocket::setUp(int index, std::string_view alias) {
    auto change = begin(RTM_SETLINK, NLM_F_ACK, index, IFF_UP);
    change.putHostOrder(IFLA_GROUP, std::uint32_t{0});
    if (!alias.empty()) {
        change.put(IFLA_IFALIAS, alias);
    }
    socket_.request(change);
}

void LinkSocket::remove(int index) {
    struct {
        nlmsghdr netlink;
        ifinfomsg link;
    } request{};
    request.netlink.nlmsg_len = sizeof request;
    request.netlink.nlmsg_type = RTM_DELLINK;
    request.netlink.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    request.netlink.nlmsg_seq = ++sequence_;
    request.link.ifi_family = AF_UNSPEC;
    request.link.ifi_index = index;
    socket_.request(
        {reinterpret_cast<const std::uint8_t*>(&request), sizeof request},
        request.netlink.nlmsg_seq);
}

/// Begins the next request, about the interface with that index. `interfaceFlags` are set on it.
MessageWriter LinkSocket::begin(
    std::uint16_t type, unsigned flags, int index, unsigned interfaceFlags) {
    ifinfomsg header{};
    header.ifi_family = AF_UNSPEC;
    header.ifi_index = index;
    header.ifi_flags = interfaceFlags;
    header.ifi_change = interfaceFlags;
    MessageWriter request(++sequence_);
    request.begin(type, flags, header);
    return request;
}

}  // namespace tarnvale::platform
