// SPDX-License-Identifier: MIT

#include "firewall/analysis/Faces.h"

#include <algorithm>
#include <utility>

namespace tarnvale::FirewallAnalysis {

namespace {

/// Wider prefixes come before the narrower ones in them.
constexpr auto precedes = [](const AddressRange& a, const AddressRange& b) {
    return a.first != b.first ? a.first < b.first : a.last > b.last;
};

void add(std::vector<Stretch>& stretches, const PortRange& ports, std::uint32_t line) {
    std::size_t place = cut(stretches, ports.first);
    const std::size_t end = ports.last == PortRange{}.last
                                ? stretches.size()
                                : cut(stretches, static_cast<std::uint16_t>(ports.last + 1));
    for (; place < end; ++place) {
        stretches[place].line = std::min(stretches[place].line, line);
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
        faces.push_back(
            {.prefix = prefix, .depth = open.size(), .around = open.empty() ? 0 : open.back()});
        open.push_back(faces.size() - 1);
    }
    while (!open.empty()) {
        close();
    }
    return faces;
}

std::size_t faceOf(std::span<const Face> faces, const AddressRange& prefix) {
    const auto face = std::ranges::lower_bound(faces, prefix, precedes, &Face::prefix);
    return static_cast<std::size_t>(face - faces.begin());
}

std::uint16_t lastPort(std::span<const Stretch> stretches, std::size_t place) {
    return place + 1 == stretches.size()
               ? PortRange{}.last
               : static_cast<std::uint16_t>(stretches[place + 1].firstPort - 1);
}

std::size_t placeOf(std::span<const Stretch> stretches, std::uint16_t port) {
    const auto after = std::ranges::upper_bound(stretches, port, {}, &Stretch::firstPort);
    return static_cast<std::size_t>(after - stretches.begin()) - 1;
}

std::size_t cut(std::vector<Stretch>& stretches, std::uint16_t port) {
    const std::size_t place = placeOf(stretches, port);
    if (stretches[place].firstPort == port) {
        return place;
    }
    stretches.insert(
        stretches.begin() + static_cast<std::ptrdiff_t>(place) + 1,
        {.firstPort = port, .line = stretches[place].line});
    return place + 1;
}

FaceWalk::FaceWalk(std::span<const Face> faces, std::span<const Line> lines, Kinds kinds)
    : faces_(faces), lines_(lines), kinds_(kinds), firstOwn_(faces.size() + 1), own_(lines.size()) {
    homes_.reserve(lines.size());
    for (const Line& line : lines) {
        homes_.push_back(static_cast<std::uint32_t>(faceOf(faces, line.remote)));
        ++firstOwn_[homes_.back() + 1];
    }
    for (std::size_t i = 1; i < firstOwn_.size(); ++i) {
        firstOwn_[i] += firstOwn_[i - 1];
    }
    std::vector<std::uint32_t> places(firstOwn_.begin(), firstOwn_.end() - 1);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        own_[places[homes_[i]]++] = static_cast<std::uint32_t>(i);
    }
    std::size_t deepest = 0;
    for (const Face& face : faces) {
        deepest = std::max(deepest, face.depth);
    }
    levels_.resize(deepest + 2);
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
            if (!line.kinds.contains(kind) || !kinds_.contains(kind)) {
                continue;
            }
            const auto place = static_cast<std::size_t>(kind);
            Level& level = levels_.at(depth_).at(place);
            if (inForce.at(place) != depth_) {
                const Level& around = levels_.at(inForce.at(place)).at(place);
                const std::size_t moreBorders = 2 * (std::size_t{firstOwn_[face + 1]} - i);
                level.stretches.reserve(around.stretches.size() + moreBorders);
                level.stretches = around.stretches;
                level.touched = around.isTaken ? line.ports : PortRange{};
                level.isTaken = false;
                inForce.at(place) = static_cast<std::uint8_t>(depth_);
            }
            level.touched.first = std::min(level.touched.first, line.ports.first);
            level.touched.last = std::max(level.touched.last, line.ports.last);
            add(level.stretches, line.ports, own_[i]);
        }
    }
}

std::span<const Stretch> FaceWalk::take(Level& level) {
    level.isTaken = true;
    const std::span<const Stretch> all = level.stretches;
    const std::size_t first = placeOf(all, level.touched.first);
    return all.subspan(first, placeOf(all, level.touched.last) + 1 - first);
}

}  // namespace tarnvale::FirewallAnalysis
