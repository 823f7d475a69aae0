// SPDX-License-Identifier: MIT

#include "helperctl/Help.h"

namespace tarnvale::helperctl {

std::string helpFor(const CommandForm& form) {
    auto page = "tarnvale-helperctl " + synopsis(form) + "\n";
    return page.append("\n").append(form.help);
}

}  // namespace tarnvale::helperctl
