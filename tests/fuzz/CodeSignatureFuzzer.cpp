// SPDX-License-Identifier: MIT
//
// Any bytes as a signed executable, as its CMS message, as its signed text and as the roots. Most
// are messages that were changed and then signed again, so that it takes more than the signature to
// tell what is wrong with them. Whatever a message says, nothing is trusted without roots, nor what
// OpenSSL's own check of it refuses; whoever trusts it reads the same in it as whoever doesn't ask,
// and it takes only so much time.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/linux/codesigning/CodeSignature.h"
#include "platform/linux/codesigning/SignedData.h"
#include "support/UniqueFd.h"
#include "tests/fuzz/Require.h"
#include "tests/fuzz/SignatureAuthor.h"
#include "tests/support/SigningLab.h"

namespace {

using tarnvale::test::require;
using namespace tarnvale;

/// The processor's time that one check of a message may take: 10 ms as it is shipped. In a build
/// with sanitizers the same messages take up to three times as long, most of it for OpenSSL's many
/// small allocations.
constexpr double maxSeconds = 3 * 0.010;

double processorSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    constexpr double nanosecond = 1e-9;
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * nanosecond;
}

const test::SignatureAuthor& author() {
    static const test::SignatureAuthor author;
    return author;
}

/// What `verify` says. An attempt that takes too long is made again: a busy machine is no finding.
std::optional<platform::Trusted> verifyInTime(std::string_view message, const std::string& roots) {
    double least = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const double start = processorSeconds();
        auto trusted = platform::verify(message, roots);
        const double taken = processorSeconds() - start;
        least = attempt == 0 ? taken : std::min(least, taken);
        if (least <= maxSeconds) {
            return trusted;
        }
    }
    std::fprintf(stderr, "a check of %zu bytes took %f s\n", message.size(), least);
    std::abort();
}

/// Whether OpenSSL's own check of a whole message, which asks nothing of the certificates' use,
/// finds a chain to one of the roots and a good signature.
bool verifiesByOpenSSL(std::string_view message, const std::string& rootsPem) {
    const auto* next = reinterpret_cast<const unsigned char*>(message.data());
    const std::unique_ptr<CMS_ContentInfo, decltype(&::CMS_ContentInfo_free)> decoded(
        ::d2i_CMS_ContentInfo(nullptr, &next, static_cast<long>(message.size())),
        ::CMS_ContentInfo_free);
    const std::unique_ptr<X509_STORE, decltype(&::X509_STORE_free)> store(
        ::X509_STORE_new(), ::X509_STORE_free);
    const std::unique_ptr<BIO, decltype(&::BIO_free)> text(
        ::BIO_new_mem_buf(rootsPem.data(), static_cast<int>(rootsPem.size())), ::BIO_free);
    ::X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);
    while (X509* const root = ::PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr)) {
        ::X509_STORE_add_cert(store.get(), root);
        ::X509_free(root);
    }
    const bool verifies =
        decoded &&
        ::CMS_verify(decoded.get(), nullptr, store.get(), nullptr, nullptr, CMS_BINARY) == 1;
    ::ERR_clear_error();
    return verifies;
}

void readMessage(std::string_view message) {
    const auto claims = platform::readClaims(message);
    require(!claims || claims->content.sha256.size() == 64);
    require(!platform::verify(message, ""));

    const std::string& roots = author().roots();
    const auto trusted = verifyInTime(message, roots);
    const auto problem = platform::chainProblem(message, roots);
    require(!problem || (!problem->empty() && !trusted));
    if (trusted) {
        require(claims && claims->content == trusted->content);
        require(verifiesByOpenSSL(message, roots));
        require(trusted->chain.size() >= 2 && trusted->validUntil > std::time(nullptr));
        // Who reads the name of the team without a library finds the same, or none.
        require(!claims->teamIdentifier || claims->teamIdentifier == trusted->chain[0].subjectOU);
    }
}

void readRoots(const std::string& roots) {
    static const std::string message = [] {
        std::mt19937 random(0);  // NOLINT(cert-msc51-cpp): every run tries the same
        return author().message(random);
    }();
    platform::prepareToVerify(roots);
    if (const auto trusted = platform::verify(message, roots)) {
        require(!platform::chainProblem(message, roots));
    }
}

void readDigest(int file, std::string_view bytes) {
    const auto digest = platform::sha256(file, static_cast<off_t>(bytes.size()));
    require(digest && test::signedContent(bytes, "x").ends_with("sha256 " + *digest + "\n"));
    require(!platform::sha256(file, static_cast<off_t>(bytes.size()) + 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const support::UniqueFd file(::memfd_create("executable", MFD_CLOEXEC));
    require(::pwrite(file.get(), data, size, 0) == static_cast<ssize_t>(size));
    author();

    if (const auto trailer = platform::readTrailer(file.get(), static_cast<off_t>(size))) {
        require(static_cast<std::size_t>(trailer->programSize) + trailer->message.size() < size);
        readMessage(trailer->message);
    }
    readMessage(bytes);
    readDigest(file.get(), bytes);
    if (bytes.find("-----BEGIN") != std::string_view::npos) {
        readRoots(std::string(bytes));
    }
    if (const auto content = platform::parseSignedContent(bytes)) {
        require(content->sha256.find_first_not_of("0123456789abcdef") == std::string::npos);
        require(
            "tarnvale-code-signature 1\nidentifier " + content->identifier + "\nsha256 " +
                content->sha256 + "\n" ==
            bytes);
    }
    return 0;
}

/// Of libFuzzer.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" std::size_t LLVMFuzzerCustomMutator(
    std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned int seed) {
    std::mt19937 random(seed);
    constexpr std::string_view program = "program";
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::string behind = test::withTrailer("", "", 0).substr(4);
    const bool isExecutable = bytes.starts_with(program) && bytes.ends_with(behind);
    // Roots, signed text, and what isn't DER at all.
    const bool isMessage = isExecutable || bytes.starts_with('\x30') || random() % 64 == 0;
    if (!isMessage || random() % 16 == 0) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    if (isExecutable) {
        bytes.remove_prefix(program.size());
        bytes.remove_suffix(std::min(bytes.size(), behind.size() + 4));
    }
    std::string changed = author().changed(bytes, maxSize, random);
    if (isExecutable) {
        changed = test::withTrailer(program, changed);
    }
    if (changed.empty() || changed.size() > maxSize) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    std::ranges::copy(changed, data);
    return changed.size();
}
