// SPDX-License-Identifier: MIT
//
// Lets the two ends of the helper's connections meet in one process, without launchd: the service
// that the transport offers becomes an anonymous listener, and whoever asks for the service gets a
// connection to that. The same on a Mac and on the stand-in.

#pragma once

#include <functional>
#include <string>
#include <vector>

#import <Foundation/Foundation.h>

#include "platform/macos/XPCProtocol.h"

namespace tarnvale::test {

/// A requirement that every process here meets, one that none does, and one that isn't well-formed.
inline const std::string metRequirement = "!anchor apple";
inline const std::string unmetRequirement = "anchor apple";
inline const std::string malformedRequirement = "anchor apple and";

/// There is one at a time, for the length of a test.
class XPCGround {
public:
    XPCGround();
    XPCGround(const XPCGround&) = delete;
    XPCGround& operator=(const XPCGround&) = delete;
    ~XPCGround();

    /// What was asked for since, in order: the services that were offered, those that a client
    /// wanted, with which options, and the requirements that connections were given.
    const std::vector<std::string>& offered() const;
    const std::vector<std::string>& wanted() const;
    const std::vector<NSXPCConnectionOptions>& options() const;
    std::vector<std::string> requirements() const;

    /// The listener that the helper's service has become; nil when nobody has offered it.
    NSXPCListener* _Nullable listener() const;

    /// Offers the helper's service instead of a transport.
    void offer(NSXPCListener* _Nonnull listener);

    /// Has requirements that the test doesn't name above replaced by this one.
    void setRequirement(const std::string& requirement);
};

/// Whether the condition holds within some seconds.
bool eventually(const std::function<bool()>& condition);

}  // namespace tarnvale::test
