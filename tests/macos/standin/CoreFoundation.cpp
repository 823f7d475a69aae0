// SPDX-License-Identifier: MIT
//
// Core Foundation, as far as platform/macos calls it.

#include <algorithm>
#include <cstddef>
#include <span>

#include <CoreFoundation/CoreFoundation.h>

#include "support/Text.h"
#include "tests/macos/standin/StandIn.h"

using tarnvale::test::Call;
using namespace tarnvale::test::standin;  // NOLINT(google-build-using-namespace): it is its parts

// NOLINTBEGIN(readability-identifier-naming,bugprone-reserved-identifier): Apple's names

const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks{};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks{};

CFTypeRef CFRetain(CFTypeRef object) {
    Call call("CFRetain", Call::Outcome::sure);
    call.heap().retain(object);
    return object;
}

void CFRelease(CFTypeRef object) {
    Call call("CFRelease", Call::Outcome::sure);
    call.heap().release(object);
}

CFTypeID CFGetTypeID(CFTypeRef object) {
    Call call("CFGetTypeID", Call::Outcome::sure);
    const auto* const found = call.find<Object>(object);
    return found != nullptr ? static_cast<CFTypeID>(found->kind) : 0;
}

CFTypeID CFDictionaryGetTypeID() {
    return static_cast<CFTypeID>(Kind::dictionary);
}

CFTypeID CFStringGetTypeID() {
    return static_cast<CFTypeID>(Kind::string);
}

CFIndex CFArrayGetCount(CFArrayRef array) {
    Call call("CFArrayGetCount", Call::Outcome::sure);
    const auto* const found = call.find<Array>(array);
    return found != nullptr ? static_cast<CFIndex>(found->items.size()) : 0;
}

const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index) {
    Call call("CFArrayGetValueAtIndex", Call::Outcome::sure);
    const auto* const found = call.find<Array>(array);
    if (found == nullptr || index < 0 || static_cast<std::size_t>(index) >= found->items.size()) {
        call.demand(false, "there is no such element");
        return nullptr;
    }
    return referenceTo<CFTypeRef>(*found->items[static_cast<std::size_t>(index)]);
}

CFDictionaryRef CFDictionaryCreate(
    CFAllocatorRef allocator,
    const void** keys,
    const void** values,
    CFIndex count,
    const CFDictionaryKeyCallBacks* keyCallBacks,
    const CFDictionaryValueCallBacks* valueCallBacks) {
    Call call("CFDictionaryCreate");
    call.demand(allocator == nullptr, "the allocator is not the default");
    call.demand(
        keyCallBacks == &kCFTypeDictionaryKeyCallBacks &&
            valueCallBacks == &kCFTypeDictionaryValueCallBacks,
        "the dictionary would not retain what it holds");
    Dictionary::Entries entries;
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
        entries.emplace_back(
            call.find<Object>(std::span(keys, static_cast<std::size_t>(count))[i]),
            call.find<Object>(std::span(values, static_cast<std::size_t>(count))[i]));
    }
    const bool areObjects = std::ranges::all_of(entries, [](const auto& entry) {
        return entry.first != nullptr && entry.second != nullptr;
    });
    if (call.fails() || !areObjects) {
        return nullptr;
    }
    return referenceTo<CFDictionaryRef>(call.heap().make<Dictionary>(std::move(entries)));
}

const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key) {
    Call call("CFDictionaryGetValue");
    const auto* const found = call.find<Dictionary>(dictionary);
    const auto* const string = call.find<String>(key);
    if (call.fails() || found == nullptr || string == nullptr) {
        return nullptr;
    }
    const Object* const value = found->valueOf(string->text);
    return value != nullptr ? referenceTo<CFTypeRef>(*value) : nullptr;
}

CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType type, const void* value) {
    Call call("CFNumberCreate");
    call.demand(allocator == nullptr, "the allocator is not the default");
    call.demand(
        type == kCFNumberSInt32Type || type == kCFNumberSInt64Type, "the type is not known here");
    if (call.fails()) {
        return nullptr;
    }
    const std::int64_t number = type == kCFNumberSInt32Type
                                    ? *static_cast<const std::int32_t*>(value)
                                    : *static_cast<const std::int64_t*>(value);
    return referenceTo<CFNumberRef>(call.heap().make<Number>(number, type));
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value) {
    Call call("CFNumberGetValue");
    const auto* const found = call.find<Number>(number);
    call.demand(type == kCFNumberSInt64Type, "the number may be cut");
    if (call.fails() || found == nullptr) {
        return 0;
    }
    *static_cast<std::int64_t*>(value) = found->value;
    return 1;
}

CFStringRef CFStringCreateWithBytes(
    CFAllocatorRef allocator,
    const UInt8* bytes,
    CFIndex count,
    CFStringEncoding encoding,
    Boolean isExternalRepresentation) {
    Call call("CFStringCreateWithBytes");
    call.demand(allocator == nullptr, "the allocator is not the default");
    call.demand(encoding == kCFStringEncodingUTF8, "the encoding is not UTF-8");
    call.demand(isExternalRepresentation == 0, "a mark of the byte order would be dropped");
    const std::string_view text(
        reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(count));
    if (call.fails() || !tarnvale::support::isValidUtf8(text)) {
        return nullptr;
    }
    return referenceTo<CFStringRef>(call.heap().make<String>(utf16(text)));
}

CFIndex CFStringGetLength(CFStringRef string) {
    Call call("CFStringGetLength", Call::Outcome::sure);
    const auto* const found = call.find<String>(string);
    return found != nullptr ? static_cast<CFIndex>(found->text.size()) : 0;
}

CFIndex CFStringGetBytes(
    CFStringRef string,
    CFRange range,
    CFStringEncoding encoding,
    UInt8 lossByte,
    Boolean isExternalRepresentation,
    UInt8* buffer,
    CFIndex size,
    CFIndex* used) {
    Call call("CFStringGetBytes");
    call.demand(encoding == kCFStringEncodingUTF8, "the encoding is not UTF-8");
    call.demand(isExternalRepresentation == 0, "a mark of the byte order would be added");
    const auto* const found = call.find<String>(string);
    if (call.fails() || found == nullptr) {
        return 0;
    }

    const auto part =
        std::u16string_view(found->text)
            .substr(
                static_cast<std::size_t>(range.location), static_cast<std::size_t>(range.length));
    std::string converted;
    std::size_t units = 0;
    while (units < part.size()) {
        // A character is one unit or two; one that has no UTF-8 form comes out empty.
        auto bytes = utf8(part.substr(units, 1));
        std::size_t length = 1;
        if (bytes.empty()) {
            bytes = utf8(part.substr(units, 2));
            length = bytes.size() == 4 ? 2 : 1;
            bytes = length == 2 ? bytes
                                : std::string(lossByte != 0 ? 1 : 0, static_cast<char>(lossByte));
        }
        const bool hasRoom =
            buffer == nullptr || converted.size() + bytes.size() <= static_cast<std::size_t>(size);
        if (bytes.empty() || !hasRoom) {
            break;
        }
        converted += bytes;
        units += length;
    }
    if (buffer != nullptr) {
        std::copy(converted.begin(), converted.end(), buffer);
    }
    if (used != nullptr) {
        *used = static_cast<CFIndex>(converted.size());
    }
    return static_cast<CFIndex>(units);
}

CFStringRef __CFStringMakeConstantString(const char* text) {
    return constantString(text);
}

CFBundleRef CFBundleGetMainBundle() {
    Call call("CFBundleGetMainBundle");
    if (call.fails()) {
        return nullptr;
    }
    if (call.mainBundle() == nullptr) {
        call.mainBundle() = &call.heap().makePart<Object>(Kind::bundle);
        call.mainBundle()->held = 1;
    }
    return static_cast<CFBundleRef>(static_cast<void*>(call.mainBundle()));
}

CFDictionaryRef CFBundleGetInfoDictionary(CFBundleRef bundle) {
    Call call("CFBundleGetInfoDictionary");
    const auto* const found = call.find<Object>(bundle);
    call.demand(found == call.mainBundle(), "what is given is no bundle");
    if (call.fails() || !call.machine().information) {
        return nullptr;
    }
    if (call.informationDictionary() == nullptr) {
        Dictionary::Entries entries;
        for (const auto& [key, value] : *call.machine().information) {
            entries.emplace_back(&call.heap().makePart<String>(utf16(key)), &call.makeValue(value));
        }
        call.informationDictionary() = &call.heap().makePart<Dictionary>(std::move(entries));
        call.informationDictionary()->held = 1;
    }
    return referenceTo<CFDictionaryRef>(*call.informationDictionary());
}

// NOLINTEND(readability-identifier-naming,bugprone-reserved-identifier)
