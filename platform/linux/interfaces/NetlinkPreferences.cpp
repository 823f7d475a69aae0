// SPDX-License-Identifier: MIT
//
// VLAN interfaces of the running kernel, which keeps no preferences: they last until reboot.
//
// A session stages one change and refuses a second: the kernel makes a single change wholly or not
// at all, but not two. Nothing is created before the commit, so a helper that ends before it
// leaves nothing behind; what was created but could not be set up is taken back. Whether the
// kernel has VLANs at all is known earlier, when one is asked for: it is sent a request that no
// kernel grants, and only one that has VLANs knows why.

#include <algorithm>
#include <cerrno>
#include <set>
#include <system_error>
#include <utility>

#include <net/if.h>

#include "platform/NetworkPreferences.h"
#include "platform/linux/interfaces/Links.h"

namespace tarnvale::platform {
namespace {

constexpr std::int64_t lowestTag = 1;
constexpr std::int64_t highestTag = 4094;

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

class NetlinkSession final : public NetworkPreferencesSession {
public:
    /// Throws `std::system_error`.
    NetlinkSession() : links_(socket_.links()) {}
    NetlinkSession(const NetlinkSession&) = delete;
    NetlinkSession& operator=(const NetlinkSession&) = delete;

    ~NetlinkSession() override {
        try {
            if (stage_ == Stage::created) {
                takeBack();
            }
        } catch (...) {
            // It can't be taken back, or memory is short. Whoever asked knows that it failed.
        }
    }

    std::vector<InterfaceID> physicalInterfaces() override {
        return interfacesThat([](const Link& link) { return link.isEthernet && !link.isVLAN; });
    }

    std::vector<InterfaceID> vlanInterfaces() override {
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
                requireUnchanged(links_[changed_]);
                socket_.remove(links_[changed_].index);
                stage_ = Stage::removed;
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
        for (const Link& link : links_) {
            if (condition(link)) {
                interfaces.push_back(idOf(link));
            }
        }
        return interfaces;
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
        socket_.createVLAN(vlan.name, *vlan.parent, static_cast<std::uint16_t>(*vlan.tag));
        stage_ = Stage::created;
        // Known at once, so that nothing else takes memory before the VLAN can be taken back.
        vlan.index = static_cast<int>(::if_nametoindex(vlan.name.c_str()));

        const auto created = vlanWith(vlan.parent, vlan.tag, socket_.links());
        if (!created) {
            throw std::system_error(ENODEV, std::generic_category(), vlan.name);
        }
        vlan = *created;
        if (!alias_.empty()) {
            socket_.setAlias(vlan.index, alias_);
        }
    }

    void setUp() {
        try {
            socket_.setUp(links_[changed_].index);
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
        }
    }

    LinkSocket socket_;
    std::vector<Link> links_;  ///< by `InterfaceID`; the created VLAN is the last
    Stage stage_ = Stage::nothing;
    std::size_t changed_ = 0;  ///< the place of the VLAN that is created or removed
    std::string alias_;
};

class NetlinkPreferences final : public NetworkPreferences {
public:
    std::unique_ptr<NetworkPreferencesSession> open(std::string_view /*processName*/) override {
        try {
            return std::make_unique<NetlinkSession>();
        } catch (const std::system_error&) {
            return nullptr;
        }
    }
};

}  // namespace

std::unique_ptr<NetworkPreferences> makeNetworkPreferences() {
    return std::make_unique<NetlinkPreferences>();
}

}  // namespace tarnvale::platform
