// SPDX-License-Identifier: MIT

#include "support/JsonPlaces.h"

#include <algorithm>
#include <unordered_map>

#include "support/JsonReader.h"
#include "support/JsonText.h"

namespace tarnvale::support {

namespace {

/// The place behind a text that begins at `start`.
JsonPlace behind(JsonPlace start, std::string_view text) {
    const auto lines = static_cast<std::size_t>(std::ranges::count(text, '\n'));
    if (lines > 0) {
        start = {.line = start.line + lines, .column = 1};
        text.remove_prefix(text.rfind('\n') + 1);
    }
    start.column += static_cast<std::size_t>(std::ranges::count_if(
        text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80; }));
    return start;
}

}  // namespace

JsonPlace endOf(std::string_view text) {
    return behind({}, text);
}

std::vector<std::optional<JsonPlace>> findJson(
    std::string_view json, std::span<const std::string> paths) {
    std::unordered_multimap<std::string_view, std::size_t> wanted;
    std::size_t longest = 0;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        wanted.emplace(paths[i], i);
        longest = std::max(longest, paths[i].size());
    }
    std::vector<std::optional<JsonPlace>> places(paths.size());
    for (JsonWalk walk(json); !wanted.empty() && walk.next();) {
        const auto path = walk.pathUpTo(longest);
        if (!path) {
            continue;
        }
        const auto [first, last] = wanted.equal_range(*path);
        std::for_each(first, last, [&](const auto& found) { places[found.second] = walk.place(); });
        wanted.erase(first, last);
    }
    return places;
}

JsonWalk::JsonWalk(std::string_view json)
    : next_(withoutByteOrderMark(json).data()),
      end_(json.data() + json.size()),
      countedTo_(next_) {}

bool JsonWalk::next() {
    if (isAtValue_) {
        enterOrPass();
        isAtValue_ = false;
    }
    while (next_ != end_) {
        switch (*next_) {
            case ' ':
            case '\n':
            case '\r':
            case '\t':
            case ':':
                ++next_;
                break;
            case ',':
                levels_.back().keyFollows = levels_.back().isObject;
                ++levels_.back().index;
                ++next_;
                break;
            case '}':
            case ']':
                levels_.pop_back();
                ++next_;
                break;
            default:
                if (levels_.empty() || !levels_.back().keyFollows) {
                    isAtValue_ = true;
                    return true;
                }
                levels_.back().key = takeString();
                levels_.back().keyFollows = false;
        }
    }
    return false;
}

void JsonWalk::goTo(const char* value) {
    while (!isAtValue_ || next_ != value) {
        next();
    }
}

/// Goes into an object or array, and behind any other value.
void JsonWalk::enterOrPass() {
    const char first = *next_;
    if (first == '{' || first == '[') {
        const bool isObject = first == '{';
        levels_.push_back({.isObject = isObject, .keyFollows = isObject, .key = {}, .index = 0});
        ++next_;
    } else if (first == '"') {
        takeString();
    } else {
        constexpr std::string_view ends = ",]} \n\r\t";
        next_ = std::find_first_of(next_, end_, ends.begin(), ends.end());
    }
}

std::string_view JsonWalk::takeString() {
    const char* const start = next_++;
    while (*next_ != '"') {
        next_ += *next_ == '\\' ? 2 : 1;
    }
    ++next_;
    return {start, static_cast<std::size_t>(next_ - start)};
}

JsonPlace JsonWalk::place() {
    // Goes on from the last place, so a text of one long line is counted once for all.
    const std::string_view since(countedTo_, static_cast<std::size_t>(next_ - countedTo_));
    counted_ = behind(counted_, since);
    countedTo_ = next_;
    return counted_;
}

std::string JsonWalk::path() const {
    return pathUpTo(std::string::npos).value();
}

std::optional<std::string> JsonWalk::pathUpTo(std::size_t maxLength) const {
    constexpr std::size_t maxEscapes = 6;  // bytes that stand for one
    std::string path;
    for (const Level& level : levels_) {
        if (!level.isObject) {
            path.append("[").append(std::to_string(level.index)).append("]");
            continue;
        }
        path.append(path.empty() ? "" : ".");
        if (level.key.size() / maxEscapes > maxLength) {
            return std::nullopt;
        }
        if (level.key.find('\\') == std::string_view::npos) {
            path.append(level.key.substr(1, level.key.size() - 2));
        } else {
            path.append(decodeJson<std::string>(level.key));
        }
        if (path.size() > maxLength) {
            return std::nullopt;
        }
    }
    return path;
}

}  // namespace tarnvale::support
