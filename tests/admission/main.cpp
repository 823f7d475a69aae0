// SPDX-License-Identifier: MIT
//
// admission-probe PID: would the service admit that process if this program, signed as it is, were
// the helper? Prints "helper: development" or "helper: Developer ID", "admitted: yes" or "no", and
// "requirement met: yes" or "no".

#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "core/service/ClientAdmission.h"
#include "platform/CodeSigning.h"
#include "platform/linux/PeerProcess.h"
#include "support/Decimal.h"

namespace tarnvale {
namespace {

const char* yesOrNo(bool answer) {
    return answer ? "yes" : "no";
}

int probe(pid_t pid) {
    const auto process = platform::PeerProcess::ofPid(pid);
    if (!process) {
        std::fputs("admission-probe: no such process\n", stderr);
        return 1;
    }
    const auto signing = platform::makeCodeSigning();
    ClientAdmission admission(*signing);
    const bool admitted = admission.isAllowedClient(process->peer());
    const auto code = signing->guest(process->peer());
    std::printf(
        "helper: %s\nadmitted: %s\nrequirement met: %s\n",
        admission.helperIsDeveloperIDSigned() ? "Developer ID" : "development",
        yesOrNo(admitted),
        yesOrNo(code && code->isValid(admission.clientRequirement())));
    return 0;
}

}  // namespace
}  // namespace tarnvale

int main(int argc, char** argv) {
    try {
        const auto pid =
            argc == 2 ? tarnvale::support::parseDecimal(argv[1]) : std::optional<std::int64_t>();
        if (!pid) {
            std::fputs("usage: admission-probe PID\n", stderr);
            return 2;
        }
        return tarnvale::probe(static_cast<pid_t>(*pid));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "admission-probe: %s\n", error.what());
        return 1;
    }
}
