// SPDX-License-Identifier: MIT

#include "helperctl/commands/ToolVersion.h"

#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>

#include "core/base/HelperVersion.h"
#include "helperctl/Answer.h"
#include "support/Json.h"

namespace tarnvale::helperctl {
namespace {

struct ToolVersion {
    std::int64_t formatVersion = helperctl::formatVersion;
    std::string toolVersion;
};

constexpr auto jsonMembers(std::type_identity<ToolVersion> /*type*/) {
    return std::tuple{
        support::JsonMember{"formatVersion", &ToolVersion::formatVersion},
        support::JsonMember{"toolVersion", &ToolVersion::toolVersion}};
}

}  // namespace

int toolVersion(const Session& session) {
    const auto& version = helperVersionString();
    if (session.console.wantsJson()) {
        session.console.writeJson(ToolVersion{.toolVersion = version});
    } else {
        session.console.writeLine("tarnvale-helperctl " + version);
    }
    return done;
}

}  // namespace tarnvale::helperctl
