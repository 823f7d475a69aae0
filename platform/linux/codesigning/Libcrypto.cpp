// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Libcrypto.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "platform/linux/codesigning/LibcryptoUnusable.h"

namespace tarnvale::platform {
namespace {

/// What is known of the library's own set-up, which it does bit by bit while it is used.
enum class SetUp { unknown, done, failed };

std::atomic<SetUp> setUp = SetUp::unknown;
thread_local unsigned shortages = 0;

/// Of several threads, the first to know decides for all. Returns what was decided.
SetUp decide(SetUp known) noexcept {
    auto before = SetUp::unknown;
    return setUp.compare_exchange_strong(before, known) ? known : before;
}

// The library's allocator. The library reports a lack of memory as it reports a bad signature, so
// the allocator counts how often it had none.

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
    // at exit: the service may end while another thread is checking. No texts of errors, which
    // nobody reads, and no ciphers: each takes a while to load. Of the digests only those that a
    // signature may have.
    const bool isInitialized =
        symbols.OPENSSL_init_crypto(
            OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT |
                OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_NO_ADD_ALL_CIPHERS |
                OPENSSL_INIT_NO_ADD_ALL_DIGESTS,
            nullptr) == 1 &&
        symbols.EVP_add_digest(symbols.EVP_sha256()) == 1 &&
        symbols.EVP_add_digest(symbols.EVP_sha384()) == 1 &&
        symbols.EVP_add_digest(symbols.EVP_sha512()) == 1;
    if (!isInitialized) {
        decide(SetUp::failed);
        throw LibcryptoUnusable();
    }
    return symbols;
}

}  // namespace

const Libcrypto& Libcrypto::get() {
    static const Libcrypto symbols = load();
    return symbols;
}

void Libcrypto::noteSuccess() {
    if (decide(SetUp::done) == SetUp::failed) {
        throw LibcryptoUnusable();
    }
}

LibcryptoShortage::LibcryptoShortage() noexcept : before_(shortages) {}

void LibcryptoShortage::throwIfAny() const {
    if (shortages != before_ && decide(SetUp::failed) == SetUp::done) {
        throw std::bad_alloc();
    }
    if (setUp == SetUp::failed) {
        throw LibcryptoUnusable();
    }
}

}  // namespace tarnvale::platform
