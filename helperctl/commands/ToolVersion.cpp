// SPDX-License-Identifier: MIT

#include "helperctl/commands/ToolVersion.h"

#include "core/base/HelperVersion.h"
#include "helperctl/Answer.h"

namespace tarnvale::helperctl {

int toolVersion(const Session& session) {
    const auto& version = helperVersionString();
    if (session.console.wantsJson()) {
        session.console.writeResult("toolVersion", version);
    } else {
        session.console.writeLine("tarnvale-helperctl " + version);
    }
    return done;
}

}  // namespace tarnvale::helperctl
