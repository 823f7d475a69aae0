// SPDX-License-Identifier: MIT
//
// Programs that the helper admits, made by scripts/dev-ca and scripts/codesign. They run in
// processes of their own: what loads libcrypto here would take its loading out of the figures.

#pragma once

#include <string>
#include <vector>

namespace tarnvale::bench {

/// Makes certificates, has this machine trust them, signs the programs in place as the application,
/// and waits until verdicts on them are kept. Throws `std::runtime_error`.
void signAsApplication(const std::vector<std::string>& programs);

}  // namespace tarnvale::bench
