// SPDX-License-Identifier: MIT

#include "tests/reliability/SerialOrders.h"

#include <algorithm>

namespace tarnvale::test {

void SerialValue::reset(const std::string& value, const Span& set) {
    changes_ = {{.request = set, .value = value}};
}

void SerialValue::setBy(const Span& request, const std::string& value, bool surely) {
    changes_.push_back({.request = request, .value = value, .surely = surely});
}

bool SerialValue::mayHave(const std::string& value, const Span& seen) const {
    // The latest that a request for the value can have done it.
    std::optional<Instant> latest;
    for (const auto& change : changes_) {
        if (change.value == value && change.request.begin <= seen.end) {
            latest = std::max(latest.value_or(change.request.end), change.request.end);
        }
    }
    return latest && std::ranges::none_of(changes_, [&](const Change& change) {
               return change.surely && change.value != value && change.request.begin > *latest &&
                      change.request.end < seen.begin;
           });
}

bool SerialValue::hasOthersIn(const Span& span) const {
    return std::ranges::any_of(changes_, [&](const Change& change) {
        const auto& [begin, end] = change.request;
        const bool isItself = begin == span.begin && end == span.end;
        return !isItself && begin <= span.end && end >= span.begin;
    });
}

std::optional<Span> SerialValue::attemptsAt(const std::string& value) const {
    std::optional<Span> attempts;
    for (const auto& change : changes_) {
        if (change.value != value) {
            continue;
        }
        if (!attempts) {
            attempts = change.request;
        }
        attempts->begin = std::min(attempts->begin, change.request.begin);
        attempts->end = std::max(attempts->end, change.request.end);
    }
    return attempts;
}

std::vector<std::string> inexplicable(
    const std::map<std::string, SerialValue>& values,
    const std::map<std::string, std::string>& read,
    const Span& seen) {
    Span instant = seen;
    for (const auto& [name, value] : values) {
        if (const auto attempts = value.attemptsAt(read.at(name))) {
            instant.begin = std::max(instant.begin, attempts->begin);
        }
    }
    std::vector<std::string> names;
    for (const auto& [name, value] : values) {
        if (!value.mayHave(read.at(name), {.begin = instant.begin, .end = seen.end})) {
            names.push_back(name);
        }
    }
    return names;
}

}  // namespace tarnvale::test
