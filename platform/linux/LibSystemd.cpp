// SPDX-License-Identifier: MIT

#include "platform/linux/LibSystemd.h"

#include <stdexcept>
#include <string>

#include <dlfcn.h>

namespace tarnvale::platform {
namespace {

constexpr const char* libraryName = "libsystemd.so.0";

template <class Symbol>
void find(void* library, const char* name, Symbol& symbol) {
    symbol = reinterpret_cast<Symbol>(::dlsym(library, name));
    if (symbol == nullptr) {
        throw std::runtime_error(std::string(libraryName) + " has no " + name + ".");
    }
}

LibSystemd load() {
    // It stays loaded: threads that have used it run its clean-up when they end.
    void* const library = ::dlopen(libraryName, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library == nullptr) {
        throw std::runtime_error(std::string("Could not load ") + libraryName + ".");
    }
    LibSystemd symbols;
#define TARNVALE_FIND(name) find(library, #name, symbols.name);
    TARNVALE_LIBSYSTEMD_SYMBOLS(TARNVALE_FIND)
#undef TARNVALE_FIND
    return symbols;
}

}  // namespace

const LibSystemd& LibSystemd::get() {
    static const LibSystemd symbols = load();
    return symbols;
}

}  // namespace tarnvale::platform
