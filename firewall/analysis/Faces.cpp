// SPDX-License-Identifier: MIT

#include "firewall/analysis/Faces.h"

#include <algorithm>
#include <utility>

namespace tarnvale::FirewallAnalysis {

namespace {

/// Wider prefixes come before the narrower ones in them.
bool precedes(const AddressRange& a, const AddressRange& b) {
    return a.first != b.first ? a.first < b.first : a.last > b.last;
}

/// Makes a stretch begin at the port. Returns its place.
std::size_t cut(std::vector<Stretch>& stretches, std::uint16_t port) {
    const auto after = std::ranges::upper_bound(stretches, port, {}, &Stretch::firstPort);
    const auto place = static_cast<std::size_t>(after - stretches.begin());
    Stretch second = stretches[place - 1];
    if (second.firstPort == port) {
        return place - 1;
    }
    second.firstPort = port;
    stretches.insert(after, second);
    return place;
}

void add(std::vector<Stretch>& stretches, const PortRange& ports, std::uint32_t line) {
    std::size_t place = cut(stretches, ports.first);
    const std::size_t end = ports.last == PortRange{}.last
                                ? stretches.size()
                                : cut(stretches, static_cast<std::uint16_t>(ports.last + 1));
    for (; place < end; ++place) {
        Stretch& stretch = stretches[place];
        if (line < stretch.line) {
            stretch.next = stretch.line;
            stretch.line = line;
        } else if (line < stretch.next) {
            stretch.next = line;
        }
    }
}

}  // namespace

std::vector<Face> facesOf(std::vector<AddressRange> prefixes) {
    prefixes.emplace_back();
    std::ranges::sort(prefixes, precedes);
    prefixes.erase(std::unique(prefixes.begin(), prefixes.end()), prefixes.end());

    std::vector<Face> faces;
    faces.reserve(prefixes.size());
    std::vector<std::uint64_t> uncovered(prefixes.size());
    std::vector<std::size_t> open;
    const auto close = [&] {
        Face& face = faces[open.back()];
        face.end = faces.size();
        face.isEmpty = uncovered[open.back()] == 0;
        open.pop_back();
    };
    for (const AddressRange& prefix : prefixes) {
        while (!open.empty() && !faces[open.back()].prefix.contains(prefix)) {
            close();
        }
        const std::uint64_t size = std::uint64_t{prefix.last} - prefix.first + 1;
        if (!open.empty()) {
            uncovered[open.back()] -= size;
        }
        uncovered[faces.size()] = size;
        faces.push_back({.prefix = prefix, .depth = open.size()});
        open.push_back(faces.size() - 1);
    }
    while (!open.empty()) {
        close();
    }
    return faces;
}

std::uint16_t lastPort(std::span<const Stretch> stretches, std::size_t place) {
    return place + 1 == stretches.size()
               ? PortRange{}.last
               : static_cast<std::uint16_t>(stretches[place + 1].firstPort - 1);
}

FaceWalk::FaceWalk(std::span<const Face> faces, std::span<const Line> lines)
    : faces_(faces), lines_(lines), firstOwn_(faces.size() + 1), own_(lines.size()) {
    std::vector<std::size_t> homes;
    homes.reserve(lines.size());
    for (const Line& line : lines) {
        const auto home = std::ranges::lower_bound(faces, line.remote, precedes, &Face::prefix);
        homes.push_back(static_cast<std::size_t>(home - faces.begin()));
        ++firstOwn_[homes.back() + 1];
    }
    for (std::size_t i = 1; i < firstOwn_.size(); ++i) {
        firstOwn_[i] += firstOwn_[i - 1];
    }
    std::vector<std::uint32_t> places(firstOwn_.begin(), firstOwn_.end() - 1);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        own_[places[homes[i]]++] = static_cast<std::uint32_t>(i);
    }
    for (Level& level : levels_[0]) {
        level.stretches.assign(1, Stretch{});
    }
}

void FaceWalk::enter() {
    const std::size_t face = next_++;
    depth_ = faces_[face].depth + 1;
    ByKind& inForce = inForce_.at(depth_);
    inForce = inForce_.at(depth_ - 1);
    for (std::uint32_t i = firstOwn_[face]; i < firstOwn_[face + 1]; ++i) {
        const Line& line = lines_[own_[i]];
        for (const Kind kind : allKinds) {
            if (!line.kinds.contains(kind)) {
                continue;
            }
            const auto place = static_cast<std::size_t>(kind);
            Level& level = levels_.at(depth_).at(place);
            if (inForce.at(place) != depth_) {
                level.stretches = levels_.at(inForce.at(place)).at(place).stretches;
                level.isTaken = false;
                inForce.at(place) = static_cast<std::uint8_t>(depth_);
            }
            add(level.stretches, line.ports, own_[i]);
        }
    }
}

const std::vector<Stretch>* FaceWalk::takeNew(Kind kind) {
    const auto place = static_cast<std::size_t>(kind);
    Level& level = levels_.at(inForce_.at(depth_).at(place)).at(place);
    return std::exchange(level.isTaken, true) ? nullptr : &level.stretches;
}

}  // namespace tarnvale::FirewallAnalysis
