// SPDX-License-Identifier: MIT
//
// The functions of OpenSSL's libcrypto that checking code signatures takes. The library is loaded
// for the first signature, or for a client that waits: loaded earlier, it would take more private
// memory than all the rest of the idle service.

#pragma once

#include <memory>

#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include "platform/linux/SharedLibrary.h"

namespace tarnvale::platform {

#define TARNVALE_LIBCRYPTO_SYMBOLS(SYMBOL)   \
    SYMBOL(ASN1_STRING_get0_data)            \
    SYMBOL(ASN1_STRING_length)               \
    SYMBOL(ASN1_STRING_to_UTF8)              \
    SYMBOL(ASN1_TIME_to_tm)                  \
    SYMBOL(BIO_free_all)                     \
    SYMBOL(BIO_new_mem_buf)                  \
    SYMBOL(CMS_ContentInfo_free)             \
    SYMBOL(CMS_SignerInfo_cert_cmp)          \
    SYMBOL(CMS_SignerInfo_get0_algs)         \
    SYMBOL(CMS_SignerInfo_set1_signer_cert)  \
    SYMBOL(CMS_get0_SignerInfos)             \
    SYMBOL(CMS_get0_content)                 \
    SYMBOL(CMS_get0_eContentType)            \
    SYMBOL(CMS_get0_type)                    \
    SYMBOL(CMS_get1_certs)                   \
    SYMBOL(CMS_verify)                       \
    SYMBOL(CRYPTO_free)                      \
    SYMBOL(CRYPTO_set_mem_functions)         \
    SYMBOL(ERR_clear_error)                  \
    SYMBOL(ERR_peek_last_error)              \
    SYMBOL(EVP_DigestFinal_ex)               \
    SYMBOL(EVP_DigestInit_ex)                \
    SYMBOL(EVP_DigestUpdate)                 \
    SYMBOL(EVP_MD_CTX_free)                  \
    SYMBOL(EVP_MD_CTX_new)                   \
    SYMBOL(EVP_add_digest)                   \
    SYMBOL(EVP_sha256)                       \
    SYMBOL(EVP_sha384)                       \
    SYMBOL(EVP_sha512)                       \
    SYMBOL(OBJ_obj2nid)                      \
    SYMBOL(OBJ_obj2txt)                      \
    SYMBOL(OPENSSL_init_crypto)              \
    SYMBOL(OPENSSL_sk_free)                  \
    SYMBOL(OPENSSL_sk_num)                   \
    SYMBOL(OPENSSL_sk_value)                 \
    SYMBOL(PEM_read_bio_X509)                \
    SYMBOL(X509_EXTENSION_get_object)        \
    SYMBOL(X509_NAME_ENTRY_get_data)         \
    SYMBOL(X509_NAME_get_entry)              \
    SYMBOL(X509_NAME_get_index_by_NID)       \
    SYMBOL(X509_OBJECT_get0_X509)            \
    SYMBOL(X509_STORE_CTX_free)              \
    SYMBOL(X509_STORE_CTX_get0_chain)        \
    SYMBOL(X509_STORE_CTX_get0_param)        \
    SYMBOL(X509_STORE_CTX_get_error)         \
    SYMBOL(X509_STORE_CTX_init)              \
    SYMBOL(X509_STORE_CTX_new)               \
    SYMBOL(X509_STORE_add_cert)              \
    SYMBOL(X509_STORE_free)                  \
    SYMBOL(X509_STORE_get0_objects)          \
    SYMBOL(X509_STORE_new)                   \
    SYMBOL(X509_VERIFY_PARAM_set_auth_level) \
    SYMBOL(X509_VERIFY_PARAM_set_depth)      \
    SYMBOL(X509_free)                        \
    SYMBOL(X509_get0_notAfter)               \
    SYMBOL(X509_get_ext)                     \
    SYMBOL(X509_get_ext_count)               \
    SYMBOL(X509_get_extended_key_usage)      \
    SYMBOL(X509_get_extension_flags)         \
    SYMBOL(X509_get_key_usage)               \
    SYMBOL(X509_get_subject_name)            \
    SYMBOL(X509_self_signed)                 \
    SYMBOL(X509_verify_cert)                 \
    SYMBOL(X509_verify_cert_error_string)    \
    SYMBOL(d2i_CMS_ContentInfo)

/// The address of each under its own name, with the type that OpenSSL's headers give it.
struct Libcrypto {
    TARNVALE_LIBCRYPTO_SYMBOLS(TARNVALE_DECLARE_SYMBOL)

    /// The library, loaded and set up once for the process; a failed attempt is repeated on the
    /// next call. Safe from any thread. Throws `SharedLibraryError` and `LibcryptoUnusable`.
    static const Libcrypto& get();

    /// Notes that a signature has been verified: the library has set up all that this takes.
    /// Throws `LibcryptoUnusable` if another thread has found meanwhile that it may not have.
    static void noteSuccess();
};

/// Notices when the library asks in vain for memory in this thread. A failure may be due to that.
class LibcryptoShortage {
public:
    LibcryptoShortage() noexcept;

    /// Throws `std::bad_alloc` if there was one. Throws `LibcryptoUnusable` if the library may have
    /// been setting itself up then, or in another thread's shortage.
    void throwIfAny() const;

private:
    unsigned before_;
};

/// The result of a check. Throws as `throwIfAny` does if the library had too little memory for it:
/// whatever it then says says nothing.
template <typename Check>
auto conclusive(const Check& check) {
    const LibcryptoShortage shortage;
    auto result = check();
    shortage.throwIfAny();
    return result;
}

/// Gives an object back to the library, which must have been loaded.
template <auto function>
struct LibcryptoDeleter {
    template <typename Object>
    void operator()(Object* object) const noexcept {
        (Libcrypto::get().*function)(object);
    }
};

template <typename Object, auto function>
using LibcryptoPtr = std::unique_ptr<Object, LibcryptoDeleter<function>>;

}  // namespace tarnvale::platform
