// SPDX-License-Identifier: MIT
//
// Policy documents of any size, as the application would send them, for measuring.

#pragma once

#include <cstddef>
#include <string>

namespace tarnvale::bench {

/// A compact document of this many networks with this many rules each, members in the order of the
/// fields and slashes escaped, as Foundation's encoder writes it. Networks have subnets of
/// their own as far as 192.168.0.0/16 reaches; every rule is enforceable. Deterministic.
std::string policyDocument(std::size_t networks, std::size_t rules);

/// The document with another default in its first network or, if so wanted, in all.
std::string changedDocument(std::string document, bool everywhere);

}  // namespace tarnvale::bench
