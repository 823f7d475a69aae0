// SPDX-License-Identifier: MIT

#include "platform/linux/interfaces/Links.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace tarnvale::platform {
namespace {

constexpr std::string_view vlanKind = "vlan";

/// The kernel answers while it is asked; who waits longer waits for nothing.
constexpr timeval longestWait{.tv_sec = 5, .tv_usec = 0};

/// How often a list is read again that changed while it was read.
constexpr int mostAttempts = 16;

[[noreturn]] void fail(int errorNumber, const char* what) {
    throw std::system_error(errorNumber, std::generic_category(), what);
}

void require(bool done, const char* what) {
    if (!done) {
        fail(errno, what);
    }
}

/// What the kernel sent ends before its end or contradicts itself.
[[noreturn]] void failMalformed() {
    fail(EBADMSG, "rtnetlink");
}

/// A message about interfaces that is being written.
class Request {
public:
    Request(std::uint16_t type, unsigned flags, int index = 0)
        : message_(mnl_nlmsg_put_header(bytes_.data())),
          header_(
              static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(message_, sizeof(ifinfomsg)))) {
        message_->nlmsg_type = type;
        message_->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
        header_->ifi_family = AF_UNSPEC;
        header_->ifi_index = index;
    }

    nlmsghdr& message() { return *message_; }
    ifinfomsg& header() { return *header_; }

    void put(std::uint16_t type, std::string_view text) {
        mnl_attr_put(message_, type, text.size(), text.data());
    }
    void put(std::uint16_t type, std::uint16_t number) { mnl_attr_put_u16(message_, type, number); }
    void put(std::uint16_t type, std::uint32_t number) { mnl_attr_put_u32(message_, type, number); }

    /// An attribute that holds the attributes that `content()` puts.
    template <typename Content>
    void nest(std::uint16_t type, const Content& content) {
        nlattr* const start = mnl_attr_nest_start(message_, type);
        content();
        mnl_attr_nest_end(message_, start);
    }

    /// What makes the interface a VLAN.
    void putVLAN(std::uint16_t tag) {
        nest(IFLA_LINKINFO, [&] {
            put(IFLA_INFO_KIND, vlanKind);
            nest(IFLA_INFO_DATA, [&] { put(IFLA_VLAN_ID, tag); });
        });
    }

private:
    /// Enough for every attribute that is put here: a name, an alias and some numbers.
    alignas(nlmsghdr) std::array<char, 1024> bytes_{};
    nlmsghdr* message_;
    ifinfomsg* header_;
};

/// Calls `visit` for each of the attributes, which fill `size` bytes.
template <typename Visit>
void forEachAttribute(const void* first, std::size_t size, const Visit& visit) {
    const auto* attribute = static_cast<const nlattr*>(first);
    auto left = static_cast<int>(size);
    for (; mnl_attr_ok(attribute, left); attribute = mnl_attr_next(attribute)) {
        left -= static_cast<int>(MNL_ALIGN(attribute->nla_len));
        visit(*attribute);
    }
    if (left > 0) {
        failMalformed();
    }
}

template <typename Visit>
void forEachNested(const nlattr& nest, const Visit& visit) {
    forEachAttribute(mnl_attr_get_payload(&nest), mnl_attr_get_payload_len(&nest), visit);
}

std::string textOf(const nlattr& attribute) {
    const char* const text = mnl_attr_get_str(&attribute);
    return {text, ::strnlen(text, mnl_attr_get_payload_len(&attribute))};
}

template <typename Number>
Number numberOf(const nlattr& attribute) {
    Number number{};
    if (mnl_attr_get_payload_len(&attribute) != sizeof number) {
        failMalformed();
    }
    std::memcpy(&number, mnl_attr_get_payload(&attribute), sizeof number);
    return number;
}

std::optional<std::int64_t> tagOf(const nlattr& data) {
    std::optional<std::int64_t> tag;
    auto protocol = htons(ETH_P_8021Q);
    forEachNested(data, [&](const nlattr& attribute) {
        switch (mnl_attr_get_type(&attribute)) {
            case IFLA_VLAN_ID:
                tag = numberOf<std::uint16_t>(attribute);
                break;
            case IFLA_VLAN_PROTOCOL:
                protocol = numberOf<std::uint16_t>(attribute);
                break;
            default:
                break;
        }
    });
    return protocol == htons(ETH_P_8021Q) ? tag : std::nullopt;
}

void readKind(const nlattr& information, Link& link) {
    const nlattr* data = nullptr;
    forEachNested(information, [&](const nlattr& attribute) {
        switch (mnl_attr_get_type(&attribute)) {
            case IFLA_INFO_KIND:
                link.isVLAN = textOf(attribute) == vlanKind;
                break;
            case IFLA_INFO_DATA:
                data = &attribute;
                break;
            default:
                break;
        }
    });
    if (link.isVLAN && data != nullptr) {
        link.tag = tagOf(*data);
    }
}

Link linkOf(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWLINK ||
        mnl_nlmsg_get_payload_len(&message) < sizeof(ifinfomsg)) {
        failMalformed();
    }
    const auto* const header = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
    Link link;
    link.index = header->ifi_index;
    link.isEthernet =
        header->ifi_type == ARPHRD_ETHER && (header->ifi_flags & unsigned{IFF_LOOPBACK}) == 0;

    bool parentIsElsewhere = false;
    const std::size_t offset = MNL_ALIGN(sizeof(ifinfomsg));
    const std::size_t size = mnl_nlmsg_get_payload_len(&message);
    forEachAttribute(
        mnl_nlmsg_get_payload_offset(&message, offset),
        size - std::min(size, offset),
        [&](const nlattr& attribute) {
            switch (mnl_attr_get_type(&attribute)) {
                case IFLA_IFNAME:
                    link.name = textOf(attribute);
                    break;
                case IFLA_LINK:
                    link.parent = numberOf<int>(attribute);
                    break;
                case IFLA_LINK_NETNSID:
                    parentIsElsewhere = true;
                    break;
                case IFLA_LINKINFO:
                    readKind(attribute, link);
                    break;
                case IFLA_PROP_LIST:
                    forEachNested(attribute, [&](const nlattr& property) {
                        if (mnl_attr_get_type(&property) == IFLA_ALT_IFNAME) {
                            link.otherNames.push_back(textOf(property));
                        }
                    });
                    break;
                default:
                    break;
            }
        });
    if (link.index <= 0 || link.name.empty()) {
        failMalformed();
    }
    if (parentIsElsewhere) {
        link.parent.reset();
    }
    return link;
}

/// The kernel's verdict on a request: 0 or an error number.
int verdictOf(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(int)) {
        failMalformed();
    }
    int error = 0;
    std::memcpy(&error, mnl_nlmsg_get_payload(&message), sizeof error);
    return -error;
}

/// One datagram into the buffer; its size.
std::size_t receive(int socket, void* buffer, std::size_t size) {
    iovec piece{.iov_base = buffer, .iov_len = size};
    msghdr datagram{};
    datagram.msg_iov = &piece;
    datagram.msg_iovlen = 1;
    ssize_t received = -1;
    do {
        received = ::recvmsg(socket, &datagram, 0);
    } while (received < 0 && errno == EINTR);
    require(received >= 0, "receive from rtnetlink");
    if ((static_cast<unsigned>(datagram.msg_flags) & unsigned{MSG_TRUNC}) != 0) {
        fail(EMSGSIZE, "receive from rtnetlink");
    }
    if (received == 0) {
        fail(ECONNRESET, "receive from rtnetlink");
    }
    return static_cast<std::size_t>(received);
}

}  // namespace

LinkSocket::LinkSocket() : socket_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
    require(static_cast<bool>(socket_), "open rtnetlink");
    require(
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &longestWait, sizeof longestWait) == 0,
        "set rtnetlink's timeout");

    // Once it is connected to the kernel, nobody else can send to it.
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the socket interface's way
    const auto* const address = reinterpret_cast<const sockaddr*>(&kernel);
    require(::connect(socket_.get(), address, sizeof kernel) == 0, "connect to rtnetlink");
}

std::vector<Link> LinkSocket::links() {
    for (int attempt = 0; attempt < mostAttempts; ++attempt) {
        Request list(RTM_GETLINK, NLM_F_DUMP);
        list.put(IFLA_EXT_MASK, std::uint32_t{RTEXT_FILTER_SKIP_STATS});
        std::vector<Link> links;
        const bool complete = exchange(
            list.message(), [&](const nlmsghdr& message) { links.push_back(linkOf(message)); });
        if (complete) {
            std::ranges::sort(links, {}, &Link::index);
            return links;
        }
    }
    fail(EAGAIN, "list interfaces");
}

bool LinkSocket::supportsVLANs() {
    // A request that no kernel can grant, for 4095 is no tag and there is no parent. A kernel that
    // has VLANs finds fault with the tag.
    Request impossible(RTM_NEWLINK, NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL);
    impossible.putVLAN(4095);
    try {
        request(impossible.message());
    } catch (const std::system_error& error) {
        return error.code() == std::errc::result_out_of_range;
    }
    return false;
}

void LinkSocket::createVLAN(std::string_view name, int parent, std::uint16_t tag) {
    Request creation(RTM_NEWLINK, NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL);
    creation.put(IFLA_IFNAME, name.substr(0, IFNAMSIZ - 1));
    creation.put(IFLA_LINK, static_cast<std::uint32_t>(parent));
    creation.putVLAN(tag);
    request(creation.message());
}

void LinkSocket::setAlias(int index, std::string_view alias) {
    Request change(RTM_SETLINK, NLM_F_ACK, index);
    change.put(IFLA_IFALIAS, alias.substr(0, longestAlias));
    request(change.message());
}

void LinkSocket::setUp(int index) {
    Request change(RTM_SETLINK, NLM_F_ACK, index);
    change.header().ifi_flags = IFF_UP;
    change.header().ifi_change = IFF_UP;
    request(change.message());
}

void LinkSocket::remove(int index) {
    Request removal(RTM_DELLINK, NLM_F_ACK, index);
    request(removal.message());
}

/// Sends a request that the kernel answers by its verdict alone.
void LinkSocket::request(nlmsghdr& message) {
    exchange(message, [](const nlmsghdr& /*message*/) { failMalformed(); });
}

/// Sends a request and calls `take` for each message of the answer. False when what is listed
/// changed meanwhile, so that some of it may be missing or twice there.
bool LinkSocket::exchange(nlmsghdr& message, const std::function<void(const nlmsghdr&)>& take) {
    message.nlmsg_seq = ++sequence_;
    ssize_t sent = -1;
    do {
        sent = ::send(socket_.get(), &message, message.nlmsg_len, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    require(sent >= 0, "send to rtnetlink");

    // No message about one interface comes near this size.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): it is received into
    alignas(nlmsghdr) std::array<char, 65536> buffer;
    bool complete = true;
    for (;;) {
        auto left = static_cast<int>(receive(socket_.get(), buffer.data(), buffer.size()));
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the buffer is aligned for it
        const auto* answer = reinterpret_cast<const nlmsghdr*>(buffer.data());
        for (; mnl_nlmsg_ok(answer, left); answer = mnl_nlmsg_next(answer, &left)) {
            if (answer->nlmsg_seq != sequence_) {
                continue;  // the late answer to a request that was given up
            }
            if ((answer->nlmsg_flags & unsigned{NLM_F_DUMP_INTR}) != 0) {
                complete = false;
            }
            switch (answer->nlmsg_type) {
                case NLMSG_ERROR:
                case NLMSG_DONE:
                    if (const int error = verdictOf(*answer); error != 0) {
                        fail(error, "rtnetlink");
                    }
                    return complete;
                case NLMSG_NOOP:
                    break;
                case NLMSG_OVERRUN:
                    fail(ENOBUFS, "rtnetlink");
                default:
                    take(*answer);
                    break;
            }
        }
        if (left > 0) {
            failMalformed();
        }
    }
}

}  // namespace tarnvale::platform
