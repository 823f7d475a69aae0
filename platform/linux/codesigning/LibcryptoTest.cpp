// SPDX-License-Identifier: MIT
//
// What a lack of memory in the library means. Each test has a process of its own, in which nothing
// is known yet of the library's set-up.

#include "platform/linux/codesigning/Libcrypto.h"

#include <cstddef>
#include <limits>
#include <new>
#include <thread>

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include "platform/linux/codesigning/LibcryptoUnusable.h"

namespace tarnvale::platform {
namespace {

/// The library asks for more than there is.
void runShort() {
    Libcrypto::get();
    constexpr auto tooMuch = std::numeric_limits<std::size_t>::max() / 2;
    EXPECT_EQ(::CRYPTO_malloc(tooMuch, "", 0), nullptr);
}

TEST(LibcryptoTest, OneWithEnoughMemoryMissedNothing) {
    const LibcryptoShortage shortage;
    ::CRYPTO_free(::CRYPTO_malloc(1, "", 0), "", 0);

    EXPECT_NO_THROW(shortage.throwIfAny());
    EXPECT_NO_THROW(Libcrypto::noteSuccess());
}

TEST(LibcryptoTest, AShortageAfterASuccessFailsWhatItMet) {
    Libcrypto::noteSuccess();

    const LibcryptoShortage shortage;
    runShort();

    EXPECT_THROW(shortage.throwIfAny(), std::bad_alloc);
    EXPECT_NO_THROW(Libcrypto::noteSuccess());
}

TEST(LibcryptoTest, AShortageBeforeAnySuccessMakesItUnusable) {
    const LibcryptoShortage shortage;
    runShort();

    EXPECT_THROW(shortage.throwIfAny(), LibcryptoUnusable);
}

TEST(LibcryptoTest, NobodySucceedsWithALibraryThatWasFoundUnusable) {
    std::thread([] {
        const LibcryptoShortage shortage;
        runShort();
        EXPECT_THROW(shortage.throwIfAny(), LibcryptoUnusable);
    }).join();

    EXPECT_THROW(Libcrypto::noteSuccess(), LibcryptoUnusable);
}

TEST(LibcryptoTest, NobodyTakesForAVerdictWhatALibraryFoundUnusableSays) {
    std::thread([] {
        const LibcryptoShortage shortage;
        runShort();
        EXPECT_THROW(shortage.throwIfAny(), LibcryptoUnusable);
    }).join();

    const LibcryptoShortage none;

    EXPECT_THROW(none.throwIfAny(), LibcryptoUnusable);
}

TEST(LibcryptoTest, ACheckThatMetAShortageHasNoResult) {
    Libcrypto::noteSuccess();
    const auto verdict = [] { return false; };
    const auto verdictForWantOfMemory = [] {
        runShort();
        return false;
    };

    EXPECT_FALSE(conclusive(verdict));
    EXPECT_THROW(conclusive(verdictForWantOfMemory), std::bad_alloc);
}

TEST(LibcryptoTest, AnotherThreadsShortageIsNotOurs) {
    const LibcryptoShortage shortage;
    std::thread(runShort).join();

    EXPECT_NO_THROW(shortage.throwIfAny());
}

}  // namespace
}  // namespace tarnvale::platform
