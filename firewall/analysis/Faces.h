// SPDX-License-Identifier: MIT
//
// Exact sets of packets. Prefixes nest or are disjoint, so the lines' prefixes make a tree. What a
// prefix covers and no narrower one in it does is a face. The same lines are about all remotes of a
// face, so what is left there is one dimension, the port, for each kind of packet.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "firewall/analysis/Lines.h"

namespace tarnvale::FirewallAnalysis {

struct Face {
    AddressRange prefix;
    std::size_t depth = 0;   ///< 0 for the whole of IPv4
    std::size_t around = 0;  ///< the next wider face; of the whole of IPv4, this one
    std::size_t end = 0;     ///< behind the last face inside this one
    bool isEmpty = false;    ///< narrower prefixes cover all of it
};

/// The faces of all prefixes and of the whole of IPv4, a prefix before the narrower ones in it.
std::vector<Face> facesOf(std::vector<AddressRange> prefixes);

/// The place of the face with this prefix, which must be among the prefixes.
std::size_t faceOf(std::span<const Face> faces, const AddressRange& prefix);

/// From this port on to where the next stretch begins, the same lines match.
struct Stretch {
    static constexpr std::uint32_t none = std::numeric_limits<std::uint32_t>::max();

    std::uint16_t firstPort = 0;
    std::uint32_t line = none;  ///< the first of them, which decides
};

/// The last port of a stretch.
std::uint16_t lastPort(std::span<const Stretch> stretches, std::size_t place);

/// Where the stretch with this port is. The stretches must cover all ports.
std::size_t placeOf(std::span<const Stretch> stretches, std::uint16_t port);

/// Makes a stretch begin at the port. Returns its place.
std::size_t cut(std::vector<Stretch>& stretches, std::uint16_t port);

/// Finds out, face by face, which of the lines decide.
class FaceWalk {
public:
    /// Both must outlive the walk. The lines are of one direction and each one's prefix is a
    /// face's. Of other kinds than `kinds` it finds out nothing.
    FaceWalk(std::span<const Face> faces, std::span<const Line> lines, Kinds kinds = everyKind);

    /// By line, the face of its prefix.
    const std::vector<std::uint32_t>& homes() const { return homes_; }

    /// Goes to the next face, at first to the first one.
    void enter();

    /// What decides in this face: stretches that cover all ports.
    const std::vector<Stretch>& stretches(Kind kind) const {
        const auto place = static_cast<std::size_t>(kind);
        return levels_[inForce_.at(depth_).at(place)].at(place).stretches;
    }

    /// Those of them where not exactly the same lines match as in a wider face of which this has
    /// returned them, and perhaps a few others.
    std::span<const Stretch> takeNew(Kind kind) {
        const auto place = static_cast<std::size_t>(kind);
        Level& level = levels_[inForce_.at(depth_).at(place)].at(place);
        return level.isTaken ? std::span<const Stretch>() : take(level);
    }

private:
    static constexpr std::size_t maxLevels = 34;  ///< every prefix length, and no face at all

    /// Of one kind, what decides at one level of the tree.
    struct Level {
        std::vector<Stretch> stretches;
        PortRange touched;  ///< elsewhere, the same lines match as in the face around
        bool isTaken = false;
    };
    using ByKind = std::array<std::uint8_t, allKinds.size()>;

    static std::span<const Stretch> take(Level& level);

    std::span<const Face> faces_;
    std::span<const Line> lines_;
    Kinds kinds_;
    std::vector<std::uint32_t> homes_;     ///< by line
    std::vector<std::uint32_t> firstOwn_;  ///< by face, where its lines begin in `own_`
    std::vector<std::uint32_t> own_;       ///< the lines, ordered by face
    std::size_t next_ = 0;
    std::size_t depth_ = 0;                    ///< of the current face, from 1 on
    std::array<ByKind, maxLevels> inForce_{};  ///< by depth, the level that holds what decides
    std::vector<std::array<Level, allKinds.size()>> levels_;
};

}  // namespace tarnvale::FirewallAnalysis
