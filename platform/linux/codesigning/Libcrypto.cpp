// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Libcrypto.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "platform/linux/codesigning/LibcryptoUnusable.h"

namespace tarnvale::platform {
namespace {

std::atomic<bool> hasSucceeded = false;
thread_local unsigned shortages = 0;

// The library's allocator. What fails in its own way elsewhere, a missing page of memory, would
// look like a bad signature here.

void* noted(void* memory) {
    if (memory == nullptr) {
        ++shortages;
    }
    return memory;
}

void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
    return size == 0 ? nullptr : noted(std::malloc(size));
}

void release(void* memory, const char* /*file*/, int /*line*/) {
    std::free(memory);
}

void* reallocate(void* memory, std::size_t size, const char* /*file*/, int /*line*/) {
    if (size == 0) {
        std::free(memory);
        return nullptr;
    }
    return noted(std::realloc(memory, size));
}

Libcrypto load() {
    // OpenSSL 3, the version whose headers the types are from.
    const SharedLibrary library("libcrypto.so.3");
    Libcrypto symbols;
    TARNVALE_LIBCRYPTO_SYMBOLS(TARNVALE_FIND_SYMBOL)
    // Refused where somebody else in this process has used the library before, as tests do.
    static_cast<void>(symbols.CRYPTO_set_mem_functions(allocate, reallocate, release));
    // No configuration file: nothing shall make it load code of somebody else's choice. No handlers
    // at exit: the service may end while another thread is checking. No texts of errors: nobody
    // reads them, and they take a while to load.
    if (symbols.OPENSSL_init_crypto(
            OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT |
                OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS,
            nullptr) != 1) {
        throw LibcryptoUnusable();
    }
    return symbols;
}

}  // namespace

const Libcrypto& Libcrypto::get() {
    static const Libcrypto symbols = load();
    return symbols;
}

void Libcrypto::noteSuccess() noexcept {
    hasSucceeded = true;
}

LibcryptoShortage::LibcryptoShortage() noexcept : before_(shortages) {}

void LibcryptoShortage::throwIfAny() const {
    if (shortages == before_) {
        return;
    }
    if (!hasSucceeded) {
        throw LibcryptoUnusable();
    }
    throw std::bad_alloc();
}

}  // namespace tarnvale::platform
