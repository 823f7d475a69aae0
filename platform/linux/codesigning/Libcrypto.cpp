// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Libcrypto.h"

namespace tarnvale::platform {
namespace {

Libcrypto load() {
    // OpenSSL 3, the version whose headers the types are from.
    const SharedLibrary library("libcrypto.so.3");
    Libcrypto symbols;
    TARNVALE_LIBCRYPTO_SYMBOLS(TARNVALE_FIND_SYMBOL)
    // No configuration file: nothing shall make it load code of somebody else's choice. No handlers
    // at exit: the service may end while another thread is checking. No texts of errors: nobody
    // reads them, and they take a while to load.
    if (symbols.OPENSSL_init_crypto(
            OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT |
                OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS,
            nullptr) != 1) {
        throw SharedLibraryError("Could not set up libcrypto.so.3.");
    }
    return symbols;
}

}  // namespace

const Libcrypto& Libcrypto::get() {
    static const Libcrypto symbols = load();
    return symbols;
}

}  // namespace tarnvale::platform
