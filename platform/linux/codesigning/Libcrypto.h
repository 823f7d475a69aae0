// SPDX-License-Identifier: MIT
//
// The functions of OpenSSL's libcrypto that the checks of code signatures call. The library is
// loaded when the first signature is looked at: it would otherwise take most of the service's
// start-up time and more private memory than all the rest of the idle service.

#pragma once

#include <memory>

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

namespace tarnvale::platform {

#define TARNVALE_LIBCRYPTO_FUNCTIONS(FUNCTION) \
    FUNCTION(ASN1_STRING_get0_data)            \
    FUNCTION(ASN1_STRING_length)               \
    FUNCTION(ASN1_STRING_to_UTF8)              \
    FUNCTION(ASN1_TIME_to_tm)                  \
    FUNCTION(BIO_free_all)                     \
    FUNCTION(BIO_new_mem_buf)                  \
    FUNCTION(CMS_ContentInfo_free)             \
    FUNCTION(CMS_SignerInfo_cert_cmp)          \
    FUNCTION(CMS_SignerInfo_get0_algs)         \
    FUNCTION(CMS_SignerInfo_set1_signer_cert)  \
    FUNCTION(CMS_get0_SignerInfos)             \
    FUNCTION(CMS_get0_content)                 \
    FUNCTION(CMS_get0_eContentType)            \
    FUNCTION(CMS_get0_type)                    \
    FUNCTION(CMS_get1_certs)                   \
    FUNCTION(CMS_verify)                       \
    FUNCTION(CRYPTO_free)                      \
    FUNCTION(ERR_clear_error)                  \
    FUNCTION(ERR_peek_last_error)              \
    FUNCTION(EVP_DigestFinal_ex)               \
    FUNCTION(EVP_DigestInit_ex)                \
    FUNCTION(EVP_DigestUpdate)                 \
    FUNCTION(EVP_MD_CTX_free)                  \
    FUNCTION(EVP_MD_CTX_new)                   \
    FUNCTION(EVP_sha256)                       \
    FUNCTION(OBJ_obj2nid)                      \
    FUNCTION(OBJ_obj2txt)                      \
    FUNCTION(OPENSSL_init_crypto)              \
    FUNCTION(OPENSSL_sk_free)                  \
    FUNCTION(OPENSSL_sk_num)                   \
    FUNCTION(OPENSSL_sk_value)                 \
    FUNCTION(PEM_read_bio_X509)                \
    FUNCTION(X509_EXTENSION_get_object)        \
    FUNCTION(X509_NAME_ENTRY_get_data)         \
    FUNCTION(X509_NAME_get_entry)              \
    FUNCTION(X509_NAME_get_index_by_NID)       \
    FUNCTION(X509_STORE_CTX_free)              \
    FUNCTION(X509_STORE_CTX_get0_chain)        \
    FUNCTION(X509_STORE_CTX_get0_param)        \
    FUNCTION(X509_STORE_CTX_init)              \
    FUNCTION(X509_STORE_CTX_new)               \
    FUNCTION(X509_STORE_add_cert)              \
    FUNCTION(X509_STORE_free)                  \
    FUNCTION(X509_STORE_new)                   \
    FUNCTION(X509_VERIFY_PARAM_set_auth_level) \
    FUNCTION(X509_VERIFY_PARAM_set_depth)      \
    FUNCTION(X509_free)                        \
    FUNCTION(X509_get0_notAfter)               \
    FUNCTION(X509_get_ext)                     \
    FUNCTION(X509_get_ext_count)               \
    FUNCTION(X509_get_extended_key_usage)      \
    FUNCTION(X509_get_extension_flags)         \
    FUNCTION(X509_get_key_usage)               \
    FUNCTION(X509_get_subject_name)            \
    FUNCTION(X509_verify_cert)                 \
    FUNCTION(d2i_CMS_ContentInfo)

/// Each function under its own name, with the type that OpenSSL's headers give it.
struct Libcrypto {
// NOLINTNEXTLINE(bugprone-macro-parentheses): a member's name takes none
#define TARNVALE_MEMBER(name) decltype(&::name) name = nullptr;
    TARNVALE_LIBCRYPTO_FUNCTIONS(TARNVALE_MEMBER)
#undef TARNVALE_MEMBER

    /// The library, loaded on first use; null when that fails, and then tried again next time. It
    /// reads no configuration file, so nothing can make it load code of somebody else's choice.
    /// Safe from any thread.
    static const Libcrypto* get();
};

/// Gives an object back to the library, which must have been loaded.
template <auto function>
struct LibcryptoDeleter {
    template <typename Object>
    void operator()(Object* object) const noexcept {
        (Libcrypto::get()->*function)(object);
    }
};

template <typename Object, auto function>
using LibcryptoPtr = std::unique_ptr<Object, LibcryptoDeleter<function>>;

}  // namespace tarnvale::platform
