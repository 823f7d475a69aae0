// SPDX-License-Identifier: MIT
//
// Code signatures as the Security framework knows them.

#include <array>
#include <cstdint>
#include <memory>
#include <utility>

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>

#include "platform/CodeSigning.h"
#include "platform/macos/CFRef.h"
#include "platform/macos/CFText.h"

namespace tarnvale::platform {
namespace {

class SecCode final : public Code {
public:
    explicit SecCode(CFRef<SecCodeRef> code) : code_(std::move(code)) {}

    std::optional<SigningInformation> signingInformation() override {
        CFRef<SecStaticCodeRef> staticCode;
        if (::SecCodeCopyStaticCode(code_.get(), kSecCSDefaultFlags, staticCode.out()) !=
                errSecSuccess ||
            !staticCode) {
            return std::nullopt;
        }
        CFRef<CFDictionaryRef> information;
        if (::SecCodeCopySigningInformation(
                staticCode.get(), kSecCSSigningInformation, information.out()) != errSecSuccess ||
            !information || ::CFGetTypeID(information.get()) != ::CFDictionaryGetTypeID()) {
            return std::nullopt;
        }

        auto identifier = textIn(information.get(), kSecCodeInfoIdentifier);
        if (!identifier) {
            return std::nullopt;  // unsigned code has none
        }
        return SigningInformation{
            .teamIdentifier = textIn(information.get(), kSecCodeInfoTeamIdentifier),
            .identifier = std::move(identifier)};
    }

    bool isValid(std::string_view requirement) override {
        const auto text = makeCFString(requirement);
        if (!text) {
            return false;
        }
        CFRef<SecRequirementRef> compiled;
        // Every signed code is valid against a null requirement, so none may get that far.
        return ::SecRequirementCreateWithString(text.get(), kSecCSDefaultFlags, compiled.out()) ==
                   errSecSuccess &&
               compiled &&
               ::SecCodeCheckValidity(code_.get(), kSecCSDefaultFlags, compiled.get()) ==
                   errSecSuccess;
    }

private:
    CFRef<SecCodeRef> code_;
};

/// What identifies a process to the system; nothing when memory is short.
CFRef<CFDictionaryRef> attributesOf(pid_t pid) {
    const std::int32_t value = pid;
    const auto number =
        CFRef<CFNumberRef>::adopt(::CFNumberCreate(nullptr, kCFNumberSInt32Type, &value));
    if (!number) {
        return {};
    }
    std::array<const void*, 1> keys{kSecGuestAttributePid};
    std::array<const void*, 1> values{number.get()};
    return CFRef<CFDictionaryRef>::adopt(::CFDictionaryCreate(
        nullptr,
        keys.data(),
        values.data(),
        static_cast<CFIndex>(keys.size()),
        &kCFTypeDictionaryKeyCallBacks,
        &kCFTypeDictionaryValueCallBacks));
}

class SecCodeSigning final : public CodeSigning {
public:
    std::unique_ptr<Code> self() override {
        CFRef<SecCodeRef> code;
        if (::SecCodeCopySelf(kSecCSDefaultFlags, code.out()) != errSecSuccess || !code) {
            return nullptr;
        }
        return std::make_unique<SecCode>(std::move(code));
    }

    std::unique_ptr<Code> guest(const Peer& peer) override {
        const auto attributes = attributesOf(peer.pid);
        if (!attributes) {
            return nullptr;
        }
        CFRef<SecCodeRef> code;
        if (::SecCodeCopyGuestWithAttributes(
                nullptr, attributes.get(), kSecCSDefaultFlags, code.out()) != errSecSuccess ||
            !code) {
            return nullptr;
        }
        return std::make_unique<SecCode>(std::move(code));
    }
};

}  // namespace

std::unique_ptr<CodeSigning> makeCodeSigning() {
    return std::make_unique<SecCodeSigning>();
}

}  // namespace tarnvale::platform
