// SPDX-License-Identifier: MIT

#include "platform/linux/LibSystemd.h"

namespace tarnvale::platform {
namespace {

LibSystemd load() {
    const SharedLibrary library("libsystemd.so.0");
    LibSystemd symbols;
    TARNVALE_LIBSYSTEMD_SYMBOLS(TARNVALE_FIND_SYMBOL)
    return symbols;
}

}  // namespace

const LibSystemd& LibSystemd::get() {
    static const LibSystemd symbols = load();
    return symbols;
}

}  // namespace tarnvale::platform
