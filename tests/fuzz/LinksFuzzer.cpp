// SPDX-License-Identifier: MIT
//
// Whatever the kernel may answer when it is asked for its interfaces: the list is what a second
// reading of the answers finds, or there is none.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>

#include "netlink/Messages.h"
#include "netlink/Socket.h"
#include "platform/linux/interfaces/Links.h"
#include "tests/fuzz/KernelAnswers.h"
#include "tests/fuzz/Require.h"

namespace tarnvale::platform {
namespace {

using test::numberAt;
using test::require;
using test::SlowAttributes;

constexpr std::size_t headerSize = sizeof(ifinfomsg);

/// An interface with a small index; a byte says what it is.
std::string header(test::InputBytes& input) {
    const unsigned kind = input.next();
    std::string bytes(headerSize, '\0');
    bytes[2] = (kind & 1U) != 0 ? 0 : char{ARPHRD_ETHER};
    bytes[4] = static_cast<char>(kind >> 2U);
    bytes[8] = (kind & 2U) != 0 ? char{IFF_LOOPBACK} : 0;
    return bytes;
}

const test::MessageFamily& family() {
    static const test::MessageFamily links{
        .types = {RTM_NEWLINK, RTM_NEWLINK, RTM_NEWLINK, RTM_NEWADDR},
        .header = header,
        .firstSequence = 1};
    return links;
}

std::string textOf(const std::string& value) {
    return value.substr(0, value.find('\0'));
}

/// False where the bytes are no attributes, or one of them is of the wrong size.
bool readData(const std::string& data, Link& link) {
    const SlowAttributes attributes(data);
    if (!attributes.isWhole) {
        return false;
    }
    bool isOtherProtocol = false;
    for (const auto& [type, value] : attributes.list) {
        if ((type == IFLA_VLAN_ID || type == IFLA_VLAN_PROTOCOL) && value.size() != 2) {
            return false;
        }
        if (type == IFLA_VLAN_ID) {
            link.tag = numberAt<std::uint16_t>(value, 0);
        } else if (type == IFLA_VLAN_PROTOCOL) {
            isOtherProtocol = value != "\x81" + std::string(1, '\0');
        }
    }
    if (isOtherProtocol) {
        link.tag.reset();
    }
    return true;
}

bool readInformation(const std::string& information, Link& link) {
    const SlowAttributes attributes(information);
    if (!attributes.isWhole) {
        return false;
    }
    std::string data;
    for (const auto& [type, value] : attributes.list) {
        if (type == IFLA_INFO_KIND) {
            link.isVLAN = textOf(value) == "vlan";
        } else if (type == IFLA_INFO_DATA) {
            data = value;
        }
    }
    return !link.isVLAN || readData(data, link);
}

bool readNames(const std::string& properties, Link& link) {
    const SlowAttributes attributes(properties);
    if (!attributes.isWhole) {
        return false;
    }
    for (const auto& [type, value] : attributes.list) {
        if (type == IFLA_ALT_IFNAME) {
            link.otherNames.push_back(textOf(value));
        }
    }
    return true;
}

std::optional<Link> linkOf(const test::SlowMessage& message) {
    if (message.type != RTM_NEWLINK || message.payload.size() < headerSize) {
        return std::nullopt;
    }
    const SlowAttributes attributes(std::string_view(message.payload).substr(headerSize));
    if (!attributes.isWhole) {
        return std::nullopt;
    }
    Link link;
    link.index = numberAt<std::int32_t>(message.payload, 4);
    link.isEthernet = numberAt<std::uint16_t>(message.payload, 2) == ARPHRD_ETHER &&
                      (numberAt<std::uint32_t>(message.payload, 8) & IFF_LOOPBACK) == 0;
    bool isElsewhere = false;
    for (const auto& [type, value] : attributes.list) {
        bool isFine = true;
        if (type == IFLA_IFNAME) {
            link.name = textOf(value);
        } else if (type == IFLA_LINK) {
            isFine = value.size() == 4;
            link.parent = isFine ? numberAt<std::int32_t>(value, 0) : 0;
        } else if (type == IFLA_GROUP) {
            isFine = value.size() == 4;
            link.group = isFine ? numberAt<std::uint32_t>(value, 0) : 0;
        } else if (type == IFLA_LINK_NETNSID) {
            isElsewhere = true;
        } else if (type == IFLA_LINKINFO) {
            isFine = readInformation(value, link);
        } else if (type == IFLA_PROP_LIST) {
            isFine = readNames(value, link);
        }
        if (!isFine) {
            return std::nullopt;
        }
    }
    if (isElsewhere) {
        link.parent.reset();
    }
    return link.index > 0 && !link.name.empty() ? std::optional(link) : std::nullopt;
}

/// A list that changes while it is read is read again, sixteen times.
std::optional<std::vector<Link>> slowLinks(test::SlowAnswers answers) {
    for (std::uint32_t sequence = 1; sequence <= 16; ++sequence) {
        const auto list = answers.list(sequence);
        if (!list) {
            return std::nullopt;
        }
        std::vector<Link> links;
        for (const auto& message : list->messages) {
            auto link = linkOf(message);
            if (!link) {
                return std::nullopt;
            }
            links.push_back(*std::move(link));
        }
        if (list->isComplete) {
            std::ranges::sort(links, {}, &Link::index);
            return links;
        }
    }
    return std::nullopt;
}

std::optional<std::vector<Link>> links(LinkSocket& socket) {
    try {
        return socket.links();
    } catch (const std::system_error&) {
        return std::nullopt;
    }
}

void check(test::InputBytes input) {
    const auto answers = answersOf(input, family());
    test::PlayedKernel kernel(answers);
    LinkSocket socket(std::move(kernel.client));
    require(links(socket) == slowLinks(test::SlowAnswers(answers)));

    // Nothing comes of these but the kernel's errors.
    test::PlayedKernel another(answers);
    LinkSocket changing(std::move(another.client));
    try {
        changing.supportsVLANs();
        changing.createVLAN("vlan0", 2, 5, 9);
        changing.setUp(7, "alias");
        changing.remove(7);
    } catch (const std::system_error& error) {
        require(error.code().value() > 0);
    }
}

}  // namespace
}  // namespace tarnvale::platform

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::platform::check(tarnvale::test::InputBytes({data, size}));
    return 0;
}
