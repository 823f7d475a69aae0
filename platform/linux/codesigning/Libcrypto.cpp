// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Libcrypto.h"

#include <atomic>

#include <dlfcn.h>

#include "support/Mutex.h"

namespace tarnvale::platform {
namespace {

/// OpenSSL 3, the version whose headers these types are from.
constexpr const char* libraryName = "libcrypto.so.3";

template <typename Function>
bool find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(::dlsym(library, name));
    return function != nullptr;
}

/// Fills the table; false when the library or one of its functions is missing.
bool load(Libcrypto& functions) {
    // It stays loaded: threads that have used it run its clean-up when they end.
    void* library = ::dlopen(libraryName, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library == nullptr) {
        return false;
    }
    bool complete = true;
#define TARNVALE_FIND(name) complete = find(library, #name, functions.name) && complete;
    TARNVALE_LIBCRYPTO_FUNCTIONS(TARNVALE_FIND)
#undef TARNVALE_FIND
    // Without handlers at exit: the service may end while another thread is checking. And without
    // the texts of errors, which nobody reads and which take a while to load.
    return complete && functions.OPENSSL_init_crypto(
                           OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT |
                               OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS,
                           nullptr) == 1;
}

}  // namespace

const Libcrypto* Libcrypto::get() {
    static Libcrypto functions;
    static std::atomic<const Libcrypto*> loaded = nullptr;
    static support::Mutex loading;

    if (const Libcrypto* ready = loaded.load(std::memory_order_acquire)) {
        return ready;
    }
    const support::MutexLock lock(loading);
    if (loaded.load(std::memory_order_relaxed) == nullptr && load(functions)) {
        loaded.store(&functions, std::memory_order_release);
    }
    return loaded.load(std::memory_order_relaxed);
}

}  // namespace tarnvale::platform
