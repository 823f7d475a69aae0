// SPDX-License-Identifier: MIT
//
// The Security framework's code signing, as far as platform/macos calls it.

#include <Security/Security.h>

#include "tests/macos/standin/StandIn.h"

using tarnvale::test::Call;
using tarnvale::test::StandIn;
using namespace tarnvale::test::standin;  // NOLINT(google-build-using-namespace): it is its parts

namespace {

constexpr OSStatus errSecCSInvalidFlags = -67070;
constexpr OSStatus errSecCSUnsupportedGuestAttributes = -67066;
constexpr OSStatus errSecCSNoSuchCode = -67065;
constexpr OSStatus errSecCSReqInvalid = -67052;
constexpr OSStatus errSecCSReqFailed = -67050;
constexpr OSStatus errSecParam = -50;

struct Code final : Object {
    explicit Code(StandIn::Program itsProgram)
        : Object(Kind::code), program(std::move(itsProgram)) {}

    StandIn::Program program;
};

struct StaticCode final : Object {
    explicit StaticCode(StandIn::Program itsProgram)
        : Object(Kind::staticCode), program(std::move(itsProgram)) {}

    StandIn::Program program;
};

struct Requirement final : Object {
    explicit Requirement(std::string itsText)
        : Object(Kind::requirement), text(std::move(itsText)) {}

    std::string text;
};

template <typename Ref>
Ref changeable(Object& object) {
    return static_cast<Ref>(static_cast<void*>(&object));
}

/// What a failing function returns.
OSStatus failure(Call& call, OSStatus status) {
    return call.machine().failsQuietly ? OSStatus{errSecSuccess} : status;
}

}  // namespace

// NOLINTBEGIN(readability-identifier-naming): Apple's names

const CFStringRef kSecGuestAttributePid = constantString("pid");
const CFStringRef kSecCodeInfoIdentifier = constantString("identifier");
const CFStringRef kSecCodeInfoTeamIdentifier = constantString("teamid");

OSStatus SecCodeCopySelf(SecCSFlags flags, SecCodeRef* self) {
    Call call("SecCodeCopySelf");
    if (call.fails() || flags != kSecCSDefaultFlags) {
        return failure(call, errSecCSInvalidFlags);
    }
    *self = changeable<SecCodeRef>(call.heap().make<Code>(call.machine().self));
    return errSecSuccess;
}

OSStatus SecCodeCopyGuestWithAttributes(
    SecCodeRef host, CFDictionaryRef attributes, SecCSFlags flags, SecCodeRef* guest) {
    Call call("SecCodeCopyGuestWithAttributes");
    call.demand(host == nullptr, "the system itself is the host");
    call.demand(flags == kSecCSDefaultFlags, "the flags are not the default");
    const auto* const found = call.find<Dictionary>(attributes);
    const auto* const pid = found == nullptr || found->entries.size() != 1
                                ? nullptr
                                : dynamic_cast<const Number*>(found->valueOf(u"pid"));
    if (pid == nullptr || pid->type != kCFNumberSInt32Type) {
        return errSecCSUnsupportedGuestAttributes;
    }
    const auto process = call.machine().processes.find(pid->value);
    if (call.fails()) {
        return failure(call, errSecCSNoSuchCode);
    }
    if (process == call.machine().processes.end()) {
        return errSecCSNoSuchCode;
    }
    *guest = changeable<SecCodeRef>(call.heap().make<Code>(process->second));
    return errSecSuccess;
}

OSStatus SecCodeCopyStaticCode(SecCodeRef code, SecCSFlags flags, SecStaticCodeRef* staticCode) {
    Call call("SecCodeCopyStaticCode");
    call.demand(flags == kSecCSDefaultFlags, "the flags are not the default");
    const auto* const found = call.find<Code>(code);
    if (call.fails() || found == nullptr) {
        return failure(call, errSecCSNoSuchCode);
    }
    *staticCode = changeable<SecStaticCodeRef>(call.heap().make<StaticCode>(found->program));
    return errSecSuccess;
}

OSStatus SecCodeCopySigningInformation(
    SecStaticCodeRef code, SecCSFlags flags, CFDictionaryRef* information) {
    Call call("SecCodeCopySigningInformation");
    const auto* const found = call.find<StaticCode>(code);
    if (call.fails() || found == nullptr) {
        return failure(call, errSecParam);
    }

    Dictionary::Entries entries;
    const auto add = [&](const char* key, const std::optional<StandIn::Value>& value) {
        if (value) {
            entries.emplace_back(
                &call.heap().makePart<String>(utf16(key)), &call.makeValue(*value));
        }
    };
    add("identifier", found->program.identifier);
    if (flags == kSecCSSigningInformation) {
        add("teamid", found->program.teamIdentifier);
    }
    *information = referenceTo<CFDictionaryRef>(call.heap().make<Dictionary>(std::move(entries)));
    return errSecSuccess;
}

OSStatus SecRequirementCreateWithString(
    CFStringRef text, SecCSFlags flags, SecRequirementRef* requirement) {
    Call call("SecRequirementCreateWithString");
    call.demand(flags == kSecCSDefaultFlags, "the flags are not the default");
    const auto* const found = call.find<String>(text);
    if (call.fails()) {
        return failure(call, errSecCSReqInvalid);
    }
    if (found == nullptr || call.machine().malformed.contains(utf8(found->text))) {
        return errSecCSReqInvalid;
    }
    *requirement = changeable<SecRequirementRef>(call.heap().make<Requirement>(utf8(found->text)));
    return errSecSuccess;
}

OSStatus SecCodeCheckValidity(SecCodeRef code, SecCSFlags flags, SecRequirementRef requirement) {
    Call call("SecCodeCheckValidity");
    call.demand(flags == kSecCSDefaultFlags, "the flags are not the default");
    const auto* const found = call.find<Code>(code);
    if (requirement == nullptr) {
        return errSecSuccess;  // it is what was signed, by whomever
    }
    const auto* const compiled = call.find<Requirement>(requirement);
    return !call.fails() && found != nullptr && compiled != nullptr &&
                   found->program.meets.contains(compiled->text)
               ? OSStatus{errSecSuccess}
               : errSecCSReqFailed;
}

// NOLINTEND(readability-identifier-naming)
