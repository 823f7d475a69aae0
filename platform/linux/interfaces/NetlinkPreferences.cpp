// SPDX-License-Identifier: MIT
//
// VLAN interfaces of the running kernel, which keeps no preferences: they last until reboot.
//
// A session stages one change and refuses a second: the kernel makes a single change wholly or not
// at all, but not two. Nothing is created before the commit. From then until the one step of the
// apply that makes it whole, the VLAN is down and in a group of interfaces that is the session's
// alone. So what could not be set up is taken back. What could not be taken back, or is left by a
// helper that was killed meanwhile, is known by its group, which no session has: the next session,
// or the next helper before its first, takes it back. Where the kernel's answer gets lost, it is
// asked what it did, or to set the VLAN up once more. Whether the kernel has VLANs at all is known
// earlier, when one is asked for: it is sent a request that no kernel grants, and only one that has
// VLANs knows why.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <iterator>
#include <set>
#include <system_error>
#include <utility>

#include <net/if.h>

#include "netlink/Socket.h"
#include "platform/NetworkPreferences.h"
#include "platform/linux/interfaces/Links.h"
#include "support/Mutex.h"

namespace tarnvale::platform {
namespace {

constexpr std::int64_t lowestTag = 1;
constexpr std::int64_t highestTag = 4094;

/// The groups of VLANs that are being made: the upper half of their numbers, which nobody else
/// uses, and the lower half, which counts sessions.
constexpr std::uint32_t groupsOfUnfinished = 0x7456'0000;
constexpr std::uint32_t sessionsMask = 0xFFFF;

bool isUnfinished(const Link& link) {
    return link.isVLAN && (link.group & ~sessionsMask) == groupsOfUnfinished;
}

/// As much of a display name as an alias holds, cut between two code points.
std::string_view aliasOf(std::string_view displayName) {
    const auto alias = displayName.substr(0, displayName.find('\0'));
    if (alias.size() <= maxAliasSize) {
        return alias;
    }
    const auto continuesCodePoint = [](char byte) {
        return (static_cast<unsigned>(byte) & 0xC0U) == 0x80U;
    };
    std::size_t end = maxAliasSize;
    while (end > 0 && continuesCodePoint(alias[end])) {
        --end;
    }
    return alias.substr(0, end);
}

/// "vlan" and the lowest number that nobody's name has yet.
std::string lowestFreeName(const std::vector<Link>& links) {
    std::set<std::string_view> taken;
    for (const Link& link : links) {
        taken.insert(link.name);
        taken.insert(link.otherNames.begin(), link.otherNames.end());
    }
    for (std::size_t number = 0;; ++number) {
        auto name = "vlan" + std::to_string(number);
        if (!taken.contains(name)) {
            return name;
        }
    }
}

/// The VLAN with the tag on the parent, of which the kernel has one at most.
std::optional<Link> vlanWith(
    std::optional<int> parent, std::optional<std::int64_t> tag, const std::vector<Link>& links) {
    const auto found = std::ranges::find_if(links, [&](const Link& link) {
        return link.isVLAN && link.parent == parent && link.tag == tag;
    });
    return found == links.end() ? std::nullopt : std::optional(*found);
}

/// The groups of the sessions that there are. Safe from any thread.
class SessionGroups {
public:
    /// A group that no other session has. Before the first, nothing that is unfinished can be ours;
    /// after a session that could not take its VLAN back, what no session has is removed, too.
    /// Throws `std::system_error`.
    std::uint32_t take() {
        const support::MutexLock lock(mutex_);
        if (mayHaveLeftovers_) {
            takeBackUnfinished();
            mayHaveLeftovers_ = false;
        }
        std::uint32_t group = 0;
        do {
            group = groupsOfUnfinished + (++sessions_ & sessionsMask);
        } while (!taken_.insert(group).second);
        return group;
    }

    /// Ends a session. `isLeft`: its VLAN may still be there, unfinished.
    void giveBack(std::uint32_t group, bool isLeft) {
        const support::MutexLock lock(mutex_);
        taken_.erase(group);
        mayHaveLeftovers_ = mayHaveLeftovers_ || isLeft;
    }

private:
    void takeBackUnfinished() REQUIRES(mutex_) {
        LinkSocket socket;
        for (const Link& link : socket.links()) {
            if (isUnfinished(link) && !taken_.contains(link.group)) {
                socket.remove(link.index);
            }
        }
    }

    support::Mutex mutex_;
    std::uint32_t sessions_ GUARDED_BY(mutex_) = 0;
    std::set<std::uint32_t> taken_ GUARDED_BY(mutex_);
    bool mayHaveLeftovers_ GUARDED_BY(mutex_) = true;  ///< perhaps an earlier helper's
};

/// A session's own group, as long as it lives.
class SessionGroup {
public:
    explicit SessionGroup(SessionGroups& groups) : groups_(groups), number_(groups.take()) {}
    SessionGroup(const SessionGroup&) = delete;
    SessionGroup& operator=(const SessionGroup&) = delete;
    ~SessionGroup() { groups_.giveBack(number_, isLeft_); }

    std::uint32_t number() const { return number_; }

    /// The session leaves an unfinished VLAN in it.
    void leave() { isLeft_ = true; }

private:
    SessionGroups& groups_;
    std::uint32_t number_;
    bool isLeft_ = false;
};

class NetlinkSession final : public NetworkPreferencesSession {
public:
    /// `groups` must outlive the session. Throws `std::system_error`.
    explicit NetlinkSession(SessionGroups& groups) : group_(groups), links_(socket_.links()) {}
    NetlinkSession(const NetlinkSession&) = delete;
    NetlinkSession& operator=(const NetlinkSession&) = delete;

    ~NetlinkSession() override {
        try {
            if (stage_ == Stage::created) {
                takeBack();
            }
        } catch (...) {
            // Whoever asked knows that it failed. The next session or helper takes it back.
            group_.leave();
        }
    }

    std::vector<InterfaceID> physicalInterfaces() override {
        return interfacesThat([](const Link& link) { return link.isEthernet && !link.isVLAN; });
    }

    std::vector<InterfaceID> vlanInterfaces() override {
        if (stage_ == Stage::applied) {
            lookAgain();
        }
        return interfacesThat([this](const Link& link) {
            const bool isRemoved = stage_ == Stage::removal && &link == &links_[changed_];
            return link.isVLAN && !isRemoved;
        });
    }

    std::optional<std::string> bsdName(InterfaceID interface) override {
        return linkOf(interface).name;
    }

    std::optional<std::int64_t> tag(InterfaceID vlan) override { return linkOf(vlan).tag; }

    std::optional<InterfaceID> parent(InterfaceID vlan) override {
        const auto& index = linkOf(vlan).parent;
        const auto found = std::ranges::find(links_, index, &Link::index);
        return found == links_.end() ? std::nullopt : std::optional(idOf(*found));
    }

    std::optional<InterfaceID> createVLAN(InterfaceID parent, std::int64_t tag) override {
        const int parentIndex = linkOf(parent).index;
        bool supported = false;
        if (stage_ != Stage::nothing || tag < lowestTag || tag > highestTag ||
            vlanWith(parentIndex, tag, links_) ||
            !succeeds([&] { supported = socket_.supportsVLANs(); }) || !supported) {
            return std::nullopt;
        }
        Link vlan;
        vlan.name = lowestFreeName(links_);
        vlan.isVLAN = true;
        vlan.tag = tag;
        vlan.parent = parentIndex;
        links_.push_back(std::move(vlan));
        changed_ = links_.size() - 1;
        stage_ = Stage::creation;
        return InterfaceID{changed_};
    }

    bool setDisplayName(InterfaceID vlan, std::string_view name) override {
        const auto alias = aliasOf(name);
        if (stage_ != Stage::creation || &linkOf(vlan) != &links_[changed_] || alias.empty()) {
            return false;
        }
        alias_ = alias;
        return true;
    }

    bool remove(InterfaceID vlan) override {
        if (stage_ != Stage::nothing || !linkOf(vlan).isVLAN) {
            return false;
        }
        changed_ = static_cast<std::size_t>(vlan);
        stage_ = Stage::removal;
        return true;
    }

    bool commit() override {
        return succeeds([&] {
            if (stage_ == Stage::creation) {
                commitCreation();
            } else if (stage_ == Stage::removal) {
                commitRemoval();
            }
        });
    }

    bool apply() override {
        if (stage_ == Stage::created && succeeds([&] { setUp(); })) {
            stage_ = Stage::applied;
        }
        return stage_ == Stage::nothing || stage_ == Stage::applied || stage_ == Stage::removed;
    }

private:
    /// How far the session's one change has come.
    enum class Stage { nothing, creation, created, applied, removal, removed };

    template <typename Step>
    static bool succeeds(const Step& step) {
        try {
            step();
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    }

    const Link& linkOf(InterfaceID interface) const {
        return links_.at(static_cast<std::size_t>(interface));
    }

    InterfaceID idOf(const Link& link) const {
        return InterfaceID{static_cast<std::size_t>(&link - links_.data())};
    }

    template <typename Condition>
    std::vector<InterfaceID> interfacesThat(const Condition& condition) const {
        std::vector<InterfaceID> interfaces;
        for (std::size_t place = latest_; place < links_.size(); ++place) {
            if (condition(links_[place])) {
                interfaces.push_back(InterfaceID{place});
            }
        }
        return interfaces;
    }

    /// Whoever records a VLAN forgets those that are not listed. So this session, whose change is
    /// in effect, lists what others have made meanwhile.
    void lookAgain() {
        try {
            auto now = socket_.links();
            const std::size_t known = links_.size();
            links_.insert(
                links_.end(),
                std::make_move_iterator(now.begin()),
                std::make_move_iterator(now.end()));
            latest_ = known;
        } catch (const std::exception&) {
            // The older list has at least its own.
        }
    }

    /// Throws when the interface is no longer what the session saw.
    void requireUnchanged(const Link& link) {
        const auto links = socket_.links();
        if (std::ranges::find(links, link) == links.end()) {
            throw std::system_error(ESTALE, std::generic_category(), link.name);
        }
    }

    void commitCreation() {
        Link& vlan = links_[changed_];
        requireUnchanged(*std::ranges::find(links_, vlan.parent, &Link::index));
        // From here on it may be there.
        stage_ = Stage::created;
        try {
            socket_.createVLAN(
                vlan.name, *vlan.parent, static_cast<std::uint16_t>(*vlan.tag), group_.number());
            // Known at once, so that nothing else takes memory before the VLAN can be taken back.
            vlan.index = static_cast<int>(::if_nametoindex(vlan.name.c_str()));
        } catch (const netlink::AnswerLost&) {
            // The kernel is asked below.
        }

        const auto created = ownVLAN();
        if (!created) {
            throw std::system_error(ENODEV, std::generic_category(), vlan.name);
        }
        vlan = *created;
    }

    /// The VLAN that the session has created and not yet set up.
    std::optional<Link> ownVLAN() {
        const auto links = socket_.links();
        const auto found = std::ranges::find_if(links, [this](const Link& link) {
            return link.isVLAN && link.group == group_.number();
        });
        return found == links.end() ? std::nullopt : std::optional(*found);
    }

    void commitRemoval() {
        const Link& vlan = links_[changed_];
        requireUnchanged(vlan);
        try {
            socket_.remove(vlan.index);
        } catch (const netlink::AnswerLost&) {
            const auto links = socket_.links();
            if (std::ranges::find(links, vlan.index, &Link::index) != links.end()) {
                throw;
            }
        }
        stage_ = Stage::removed;
    }

    void setUp() {
        try {
            attemptSetUp();
        } catch (const netlink::AnswerLost&) {
            // It may have come to the group and no further. A second time does no harm.
            attemptSetUp();
        }
    }

    void attemptSetUp() {
        try {
            socket_.setUp(links_[changed_].index, alias_);
        } catch (const std::system_error& error) {
            // On a parent that is down it cannot be up; it follows when the parent comes up.
            if (error.code() != std::errc::network_down) {
                throw;
            }
        }
    }

    void takeBack() {
        // An index is not given again, so what took the VLAN's place meanwhile has another.
        const int index = links_[changed_].index;
        if (index != 0) {
            socket_.remove(index);
        } else if (const auto created = ownVLAN()) {
            socket_.remove(created->index);
        }
    }

    SessionGroup group_;  ///< of the VLAN that is created, until it is set up
    LinkSocket socket_;
    std::vector<Link> links_;  ///< by `InterfaceID`; each new list stands behind the others
    std::size_t latest_ = 0;   ///< where the last list begins
    Stage stage_ = Stage::nothing;
    std::size_t changed_ = 0;  ///< the place of the VLAN that is created or removed
    std::string alias_;
};

class NetlinkPreferences final : public NetworkPreferences {
public:
    std::unique_ptr<NetworkPreferencesSession> open(std::string_view /*processName*/) override {
        try {
            return std::make_unique<NetlinkSession>(groups_);
        } catch (const std::system_error&) {
            return nullptr;
        }
    }

private:
    SessionGroups groups_;
};

}  // namespace

std::unique_ptr<NetworkPreferences> makeNetworkPreferences() {
    return std::make_unique<NetlinkPreferences>();
}

}  // namespace tarnvale::platform
