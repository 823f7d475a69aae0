// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/SignedData.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>
#include <new>

#include <unistd.h>

#include "platform/linux/codesigning/Libcrypto.h"
#include "platform/linux/codesigning/SignatureOutline.h"
#include "support/Mutex.h"
#include "support/SystemCalls.h"

namespace tarnvale::platform {
namespace {

/// Demands 112 bits of security of keys and digests: RSA of 2048 bits, no SHA-1.
constexpr int securityLevel = 2;

constexpr std::size_t chunkSize = std::size_t{64} << 10;

/// Leaves no errors of ours in the thread's error queue.
class ErrorQueue {
public:
    explicit ErrorQueue(const Libcrypto& library) : library_(library) {
        library_.ERR_clear_error();
    }
    ErrorQueue(const ErrorQueue&) = delete;
    ErrorQueue& operator=(const ErrorQueue&) = delete;
    ~ErrorQueue() { library_.ERR_clear_error(); }

private:
    const Libcrypto& library_;
};

// OpenSSL's own functions for typed stacks are inline and call the library directly.

template <typename Stack>
int countOf(const Libcrypto& library, const Stack* stack) {
    return std::max(0, library.OPENSSL_sk_num(reinterpret_cast<const OPENSSL_STACK*>(stack)));
}

template <typename Element, typename Stack>
Element* elementOf(const Libcrypto& library, const Stack* stack, int index) {
    return static_cast<Element*>(
        library.OPENSSL_sk_value(reinterpret_cast<const OPENSSL_STACK*>(stack), index));
}

struct CertificatesDeleter {
    void operator()(STACK_OF(X509) * certificates) const noexcept {
        const Libcrypto& library = Libcrypto::get();
        for (int index = 0; index < countOf(library, certificates); ++index) {
            library.X509_free(elementOf<X509>(library, certificates, index));
        }
        library.OPENSSL_sk_free(reinterpret_cast<OPENSSL_STACK*>(certificates));
    }
};

using Message = LibcryptoPtr<CMS_ContentInfo, &Libcrypto::CMS_ContentInfo_free>;
using Certificates = std::unique_ptr<STACK_OF(X509), CertificatesDeleter>;
using Certificate = LibcryptoPtr<X509, &Libcrypto::X509_free>;
/// Counted by us: the thread sanitizer doesn't see the library's own count, and that whoever frees
/// a store comes after whoever has used it.
using Store = std::shared_ptr<X509_STORE>;
using StoreContext = LibcryptoPtr<X509_STORE_CTX, &Libcrypto::X509_STORE_CTX_free>;
using Bio = LibcryptoPtr<BIO, &Libcrypto::BIO_free_all>;
using DigestContext = LibcryptoPtr<EVP_MD_CTX, &Libcrypto::EVP_MD_CTX_free>;

/// A message of the right shape.
struct Decoded {
    Message message;
    Certificates certificates;
    CMS_SignerInfo* signer = nullptr;  ///< the message's
    X509* leaf = nullptr;              ///< the signer's, one of the certificates
    SignedContent content;
};

bool isKind(const Libcrypto& library, const ASN1_OBJECT* object, int kind) {
    return object != nullptr && library.OBJ_obj2nid(object) == kind;
}

std::optional<SignedContent> contentOf(const Libcrypto& library, CMS_ContentInfo* message) {
    ASN1_OCTET_STRING** const content = library.CMS_get0_content(message);
    if (content == nullptr || *content == nullptr) {
        return std::nullopt;
    }
    const auto* bytes = reinterpret_cast<const char*>(library.ASN1_STRING_get0_data(*content));
    const int length = library.ASN1_STRING_length(*content);
    if (bytes == nullptr || length <= 0) {
        return std::nullopt;
    }
    return parseSignedContent({bytes, static_cast<std::size_t>(length)});
}

/// The certificate that the signer names; null unless there is exactly one.
X509* leafOf(const Libcrypto& library, CMS_SignerInfo* signer, STACK_OF(X509) * certificates) {
    X509* leaf = nullptr;
    for (int index = 0; index < countOf(library, certificates); ++index) {
        X509* const certificate = elementOf<X509>(library, certificates, index);
        if (library.CMS_SignerInfo_cert_cmp(signer, certificate) == 0) {
            if (leaf != nullptr) {
                return nullptr;
            }
            leaf = certificate;
        }
    }
    return leaf;
}

std::optional<Decoded> decode(const Libcrypto& library, std::string_view bytes) {
    if (!readOutline(bytes)) {
        return std::nullopt;
    }
    Decoded decoded;
    const auto* position = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* const end = position + bytes.size();
    decoded.message.reset(
        library.d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(bytes.size())));
    CMS_ContentInfo* const message = decoded.message.get();
    if (message == nullptr || position != end ||
        !isKind(library, library.CMS_get0_type(message), NID_pkcs7_signed) ||
        !isKind(library, library.CMS_get0_eContentType(message), NID_pkcs7_data)) {
        return std::nullopt;
    }

    const STACK_OF(CMS_SignerInfo)* const signers = library.CMS_get0_SignerInfos(message);
    if (countOf(library, signers) != 1) {
        return std::nullopt;
    }
    decoded.signer = elementOf<CMS_SignerInfo>(library, signers, 0);
    decoded.certificates.reset(library.CMS_get1_certs(message));
    if (!decoded.certificates) {
        return std::nullopt;
    }
    decoded.leaf = leafOf(library, decoded.signer, decoded.certificates.get());

    auto content = contentOf(library, message);
    if (decoded.leaf == nullptr || !content) {
        return std::nullopt;
    }
    decoded.content = std::move(*content);
    return decoded;
}

std::optional<std::string> utf8Of(const Libcrypto& library, const ASN1_STRING* text) {
    unsigned char* utf8 = nullptr;
    const int length = library.ASN1_STRING_to_UTF8(&utf8, text);
    if (length < 0) {
        return std::nullopt;
    }
    std::string result(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    library.CRYPTO_free(utf8, "", 0);  // our allocator ignores the file and the line
    return result;
}

/// The subject's organizational unit; nothing unless there is exactly one.
std::optional<std::string> subjectOUOf(const Libcrypto& library, const X509* certificate) {
    const X509_NAME* const subject = library.X509_get_subject_name(certificate);
    const int first = library.X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
    if (first < 0 ||
        library.X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, first) >= 0) {
        return std::nullopt;
    }
    return utf8Of(
        library, library.X509_NAME_ENTRY_get_data(library.X509_NAME_get_entry(subject, first)));
}

CertificateFacts factsOf(const Libcrypto& library, const X509* certificate) {
    CertificateFacts facts{.subjectOU = subjectOUOf(library, certificate), .extensions = {}};
    for (int index = 0; index < library.X509_get_ext_count(certificate); ++index) {
        const ASN1_OBJECT* const name =
            library.X509_EXTENSION_get_object(library.X509_get_ext(certificate, index));
        std::array<char, 256> text{};
        const int length = library.OBJ_obj2txt(text.data(), static_cast<int>(text.size()), name, 1);
        if (length > 0 && static_cast<std::size_t>(length) < text.size()) {
            facts.extensions.emplace_back(text.data());
        }
    }
    return facts;
}

/// When the certificate expires, in Unix time; long ago when that cannot be read.
std::int64_t expiryOf(const Libcrypto& library, const X509* certificate) {
    struct tm expiry {};
    if (library.ASN1_TIME_to_tm(library.X509_get0_notAfter(certificate), &expiry) != 1) {
        return std::numeric_limits<std::int64_t>::min();
    }
    return ::timegm(&expiry);
}

Bio reading(const Libcrypto& library, const std::string& pem) {
    return Bio(library.BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

/// The next certificate of the text; null when there is none or it cannot be read.
Certificate nextCertificate(const Libcrypto& library, const Bio& text) {
    // There is nobody to ask for the password of an encrypted part.
    pem_password_cb* const noPassword = [](char*, int, int, void*) { return -1; };
    return Certificate(library.PEM_read_bio_X509(text.get(), nullptr, noPassword, nullptr));
}

/// A store with every certificate of the text; null when a part of it cannot be read.
Store storeOf(const Libcrypto& library, const std::string& pem) {
    LibcryptoPtr<X509_STORE, &Libcrypto::X509_STORE_free> store(library.X509_STORE_new());
    const auto text = reading(library, pem);
    if (!store || !text) {
        return nullptr;
    }
    while (const auto root = nextCertificate(library, text)) {
        // The library reads a certificate's extensions at their first use, and remembers for good
        // if it failed, be it for want of memory. Here, that fails this store alone.
        library.X509_get_extension_flags(root.get());
        if (library.X509_STORE_add_cert(store.get(), root.get()) != 1) {
            return nullptr;
        }
    }
    const auto reason = library.ERR_peek_last_error();
    const bool atTheEnd =
        ERR_GET_LIB(reason) == ERR_LIB_PEM && ERR_GET_REASON(reason) == PEM_R_NO_START_LINE;
    return atTheEnd ? std::move(store) : nullptr;
}

/// Keeps the roots that were decoded last. They seldom change, and decoding them takes a fifth of a
/// check. Safe from any thread.
class DecodedRoots {
public:
    /// Null for a text other than the last one.
    Store find(const std::string& pem) {
        const support::MutexLock lock(mutex_);
        return pem == pem_ ? store_ : nullptr;
    }

    /// As best it can. The store must be one that the library had enough memory for. From here on
    /// other threads use it, too.
    void keep(const std::string& pem, Store store) noexcept {
        if (pem.size() > maxKeptSize) {
            return;
        }
        try {
            std::string text = pem;
            const support::MutexLock lock(mutex_);
            pem_.swap(text);
            store_.swap(store);
        } catch (const std::bad_alloc&) {
            // They are decoded again.
        }
    }

private:
    /// Decoded, thousands of roots would be most of the idle service's memory.
    static constexpr std::size_t maxKeptSize = std::size_t{64} << 10;

    support::Mutex mutex_;
    std::string pem_ GUARDED_BY(mutex_);
    Store store_ GUARDED_BY(mutex_);  ///< null before there is one
};

/// Never destroyed, because other threads may check while the process ends.
DecodedRoots& decodedRoots() {
    static auto& roots = *new DecodedRoots;
    return roots;
}

/// The first certificate of a store that no other thread uses; null if it has none.
X509* firstOf(const Libcrypto& library, X509_STORE* store) {
    const STACK_OF(X509_OBJECT)* const objects = library.X509_STORE_get0_objects(store);
    return countOf(library, objects) == 0
               ? nullptr
               : library.X509_OBJECT_get0_X509(elementOf<X509_OBJECT>(library, objects, 0));
}

bool mayCodeSign(const Libcrypto& library, X509* leaf) {
    // OpenSSL reports that a certificate without the extension may be used for everything.
    return (library.X509_get_extension_flags(leaf) & EXFLAG_XKUSAGE) != 0 &&
           (library.X509_get_extended_key_usage(leaf) & XKU_CODE_SIGN) != 0 &&
           (library.X509_get_key_usage(leaf) & KU_DIGITAL_SIGNATURE) != 0;
}

bool digestIsStrong(const Libcrypto& library, CMS_SignerInfo* signer) {
    X509_ALGOR* digest = nullptr;
    library.CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, nullptr);
    const int kind = library.OBJ_obj2nid(digest->algorithm);
    return kind == NID_sha256 || kind == NID_sha384 || kind == NID_sha512;
}

/// Whether the signer's certificate is for code signing, and its chain leads to a root of the
/// store. The context has the chain then.
bool chainVerifies(
    const Libcrypto& library, X509_STORE_CTX* context, X509_STORE* store, const Decoded& decoded) {
    if (library.X509_STORE_CTX_init(context, store, decoded.leaf, decoded.certificates.get()) !=
        1) {
        return false;
    }
    X509_VERIFY_PARAM* const parameters = library.X509_STORE_CTX_get0_param(context);
    library.X509_VERIFY_PARAM_set_auth_level(parameters, securityLevel);
    library.X509_VERIFY_PARAM_set_depth(parameters, static_cast<int>(maxCertificates));
    return library.X509_verify_cert(context) == 1 && mayCodeSign(library, decoded.leaf);
}

/// Whether the key of the signer's certificate made the signature.
bool signatureVerifies(const Libcrypto& library, const Decoded& decoded) {
    if (!digestIsStrong(library, decoded.signer)) {
        return false;
    }
    library.CMS_SignerInfo_set1_signer_cert(decoded.signer, decoded.leaf);
    return library.CMS_verify(
               decoded.message.get(),
               nullptr,
               nullptr,
               nullptr,
               nullptr,
               CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1;
}

std::string hex(const std::array<unsigned char, EVP_MAX_MD_SIZE>& bytes, std::size_t count) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(2 * count);
    for (std::size_t index = 0; index < count; ++index) {
        text += digits[bytes[index] >> 4U];
        text += digits[bytes[index] & 0xFU];
    }
    return text;
}

std::optional<Trusted> trustedIn(
    const Libcrypto& library, std::string_view message, const Store& store) {
    const ErrorQueue errors(library);
    auto decoded = decode(library, message);
    const StoreContext context(library.X509_STORE_CTX_new());
    if (!decoded || !store || !context) {
        return std::nullopt;
    }

    // The chain comes first, so that no key works on the message before it is trusted.
    if (!chainVerifies(library, context.get(), store.get(), *decoded) ||
        !signatureVerifies(library, *decoded)) {
        return std::nullopt;
    }

    Trusted trusted{
        .content = std::move(decoded->content),
        .chain = {},
        .validUntil = std::numeric_limits<std::int64_t>::max()};
    const STACK_OF(X509)* const chain = library.X509_STORE_CTX_get0_chain(context.get());
    for (int index = 0; index < countOf(library, chain); ++index) {
        const X509* const certificate = elementOf<X509>(library, chain, index);
        trusted.chain.push_back(factsOf(library, certificate));
        trusted.validUntil = std::min(trusted.validUntil, expiryOf(library, certificate));
    }
    return trusted;
}

std::optional<std::string> chainProblemIn(
    const Libcrypto& library, std::string_view message, const std::string& rootsPem) {
    const ErrorQueue errors(library);
    const auto decoded = decode(library, message);
    const Store store = storeOf(library, rootsPem);
    const StoreContext context(library.X509_STORE_CTX_new());
    if (!decoded || !store || !context ||
        chainVerifies(library, context.get(), store.get(), *decoded)) {
        return std::nullopt;
    }
    const int error = library.X509_STORE_CTX_get_error(context.get());
    return error == X509_V_OK ? "certificate isn't for code signing"
                              : library.X509_verify_cert_error_string(error);
}

std::optional<std::string> digestOf(
    const Libcrypto& library, int file, off_t size, const Pace& pace) {
    const ErrorQueue errors(library);
    const DigestContext context(library.EVP_MD_CTX_new());
    if (!context || library.EVP_DigestInit_ex(context.get(), library.EVP_sha256(), nullptr) != 1) {
        return std::nullopt;
    }

    const auto chunk = std::make_unique<std::array<unsigned char, chunkSize>>();
    for (off_t done = 0; done < size;) {
        const auto wanted =
            static_cast<std::size_t>(std::min<off_t>(size - done, off_t{chunkSize}));
        const ssize_t got =
            support::uninterrupted([&] { return ::pread(file, chunk->data(), wanted, done); });
        bool isDone = false;
        pace([&] {
            isDone =
                got > 0 && library.EVP_DigestUpdate(
                               context.get(), chunk->data(), static_cast<std::size_t>(got)) == 1;
        });
        if (!isDone) {
            return std::nullopt;
        }
        done += got;
    }

    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (library.EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1) {
        return std::nullopt;
    }
    return hex(digest, length);
}

}  // namespace

void prepareToVerify(const std::string& rootsPem) {
    const Libcrypto& library = Libcrypto::get();
    const ErrorQueue errors(library);
    const auto store = conclusive([&] { return storeOf(library, rootsPem); });
    if (store) {
        X509* const root = firstOf(library, store.get());
        decodedRoots().keep(rootsPem, store);
        conclusive([&] { return root != nullptr && library.X509_self_signed(root, 1) == 1; });
    }
}

std::optional<Claims> readClaims(std::string_view message) {
    const auto outline = readOutline(message);
    auto content = outline ? parseSignedContent(outline->content) : std::nullopt;
    if (!content) {
        return std::nullopt;
    }
    return Claims{
        .content = std::move(*content),
        .teamIdentifier = organizationalUnitOf(outline->signerSubject)};
}

std::optional<Trusted> verify(std::string_view message, const std::string& rootsPem) {
    const Libcrypto& library = Libcrypto::get();
    const Store known = decodedRoots().find(rootsPem);
    Store decoded;
    auto trusted = conclusive([&] {
        const ErrorQueue errors(library);
        if (!known) {
            decoded = storeOf(library, rootsPem);
        }
        return trustedIn(library, message, known ? known : decoded);
    });
    if (trusted) {
        Libcrypto::noteSuccess();
        if (decoded) {
            decodedRoots().keep(rootsPem, decoded);
        }
    }
    return trusted;
}

std::optional<std::string> chainProblem(std::string_view message, const std::string& rootsPem) {
    const Libcrypto& library = Libcrypto::get();
    return conclusive([&] { return chainProblemIn(library, message, rootsPem); });
}

std::optional<std::string> sha256(int file, off_t size, const Pace& pace) {
    const Libcrypto& library = Libcrypto::get();
    return conclusive([&] { return digestOf(library, file, size, pace); });
}

}  // namespace tarnvale::platform
