// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Preparation.h"

#include "platform/linux/codesigning/Libcrypto.h"
#include "platform/linux/codesigning/Roots.h"
#include "platform/linux/codesigning/SignedData.h"

namespace tarnvale::platform {
namespace {

/// Whatever fails, the first check meets as well, and reports.
template <typename Step>
void attempt(const Step& step) noexcept {
    try {
        step();
    } catch (...) {
        // Nothing is lost but the time that it would have saved.
    }
}

}  // namespace

void prepareToCheckSignatures(const std::function<void()>& loaded) noexcept {
    attempt([] { Libcrypto::get(); });
    loaded();
    attempt([] {
        if (const auto roots = readRoots()) {
            prepareToVerify(roots->pem);
        }
    });
}

}  // namespace tarnvale::platform
