// SPDX-License-Identifier: MIT
//
// What a value may be after requests that ran beside each other. Each request takes effect at one
// instant between its begin and its end; one that got no answer may have had none. A value is right
// if some order of the requests that respects these times ends in it.

#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarnvale::test {

using Instant = std::chrono::steady_clock::time_point;

struct Span {
    Instant begin = Instant::min();
    Instant end = Instant::min();
};

/// One value that requests set as a whole.
class SerialValue {
public:
    /// From here on it is the initial value, and nobody has changed it.
    void reset(const std::string& value, const Span& set = {});

    /// A request set it, surely or perhaps.
    void setBy(const Span& request, const std::string& value, bool surely);

    /// Whether it can have had the value at an instant of the span.
    bool mayHave(const std::string& value, const Span& seen) const;

    /// Whether a request, besides the one of exactly this span, ran in some of it.
    bool hasOthersIn(const Span& span) const;

    /// When requests tried to set that value: from the first one's begin to the last one's end.
    /// Nothing if none did.
    std::optional<Span> attemptsAt(const std::string& value) const;

private:
    struct Change {
        Span request;
        std::string value;
        bool surely = true;
    };

    std::vector<Change> changes_;
};

/// Values that one request after the other changes, never two at a time, and that somebody has read
/// at one instant of the span. Whoever sees one request's value sees all that was surely done
/// before that request began. Returns the names of those that no order of the requests explains.
std::vector<std::string> inexplicable(
    const std::map<std::string, SerialValue>& values,
    const std::map<std::string, std::string>& read,
    const Span& seen);

}  // namespace tarnvale::test
