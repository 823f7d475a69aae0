// SPDX-License-Identifier: MIT

#include "tests/macos/standin/Heap.h"

#include <array>
#include <cstddef>
#include <functional>
#include <mutex>

namespace tarnvale::test::standin {
namespace {

constexpr std::array<std::string_view, 10> kindNames = {
    "an array",
    "a bundle",
    "a code object",
    "a dictionary",
    "an interface",
    "a number",
    "a preferences session",
    "a requirement",
    "a static code object",
    "a string",
};

/// The string constants of the program, which last as long as it does.
struct Constants {
    static Constants& get() {
        static auto& constants = *new Constants;
        return constants;
    }

    std::mutex mutex;
    std::map<std::string, String, std::less<>> strings;
};

Object* constantAt(CFTypeRef reference) {
    auto& constants = Constants::get();
    const std::lock_guard lock(constants.mutex);
    for (auto& [text, string] : constants.strings) {
        if (static_cast<Object*>(&string) == reference) {
            return &string;
        }
    }
    return nullptr;
}

constexpr bool isFirstOfAPair(char16_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}

constexpr bool isSecondOfAPair(char16_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

}  // namespace

std::string Object::description() const {
    return std::string(kindNames.at(static_cast<std::size_t>(kind) - 1));
}

std::string String::description() const {
    return "the string \"" + utf8(text) + '"';
}

std::string Number::description() const {
    return "the number " + std::to_string(value);
}

std::vector<Object*> Dictionary::parts() const {
    std::vector<Object*> parts;
    for (const auto& [key, value] : entries) {
        parts.insert(parts.end(), {key, value});
    }
    return parts;
}

Object* Dictionary::valueOf(std::u16string_view key) const {
    for (const auto& [entryKey, value] : entries) {
        const auto* const string = dynamic_cast<const String*>(entryKey);
        if (string != nullptr && string->text == key) {
            return value;
        }
    }
    return nullptr;
}

CFStringRef constantString(std::string_view text) noexcept {
    auto& constants = Constants::get();
    const std::lock_guard lock(constants.mutex);
    auto found = constants.strings.find(text);
    if (found == constants.strings.end()) {
        found = constants.strings.try_emplace(std::string(text), utf16(text)).first;
        found->second.held = 1;
    }
    return referenceTo<CFStringRef>(found->second);
}

std::u16string utf16(std::string_view utf8) {
    std::u16string text;
    for (std::size_t i = 0; i < utf8.size();) {
        const auto byte = [&](std::size_t at) {
            return static_cast<char32_t>(static_cast<unsigned char>(utf8.at(at)));
        };
        const char32_t first = byte(i);
        const std::size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
        char32_t character = length == 1 ? first : first & (0x7FU >> length);
        for (std::size_t j = 1; j < length; ++j) {
            character = character << 6U | (byte(i + j) & 0x3FU);
        }
        if (character >= 0x10000) {
            text += static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10U));
            text += static_cast<char16_t>(0xDC00 + ((character - 0x10000) & 0x3FFU));
        } else {
            text += static_cast<char16_t>(character);
        }
        i += length;
    }
    return text;
}

std::string utf8(std::u16string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t character = text[i];
        if (isFirstOfAPair(text[i]) && i + 1 < text.size() && isSecondOfAPair(text[i + 1])) {
            ++i;
            character = 0x10000 + ((character - 0xD800) << 10U) + (text[i] - 0xDC00U);
        } else if (isFirstOfAPair(text[i]) || isSecondOfAPair(text[i])) {
            continue;
        }
        const auto add = [&](char32_t byte) { bytes += static_cast<char>(byte); };
        if (character < 0x80) {
            add(character);
        } else if (character < 0x800) {
            add(0xC0 | character >> 6U);
            add(0x80 | (character & 0x3FU));
        } else if (character < 0x10000) {
            add(0xE0 | character >> 12U);
            add(0x80 | (character >> 6U & 0x3FU));
            add(0x80 | (character & 0x3FU));
        } else {
            add(0xF0 | character >> 18U);
            add(0x80 | (character >> 12U & 0x3FU));
            add(0x80 | (character >> 6U & 0x3FU));
            add(0x80 | (character & 0x3FU));
        }
    }
    return bytes;
}

Object* Heap::findAny(CFTypeRef reference, std::string_view function) {
    if (reference == nullptr) {
        complain(function, "no object is given");
        return nullptr;
    }
    if (const auto found = objects_.find(reference); found != objects_.end()) {
        if (!found->second->isAlive()) {
            complain(function, found->second->description() + " was released");
        }
        return found->second.get();
    }
    Object* const constant = constantAt(reference);
    if (constant == nullptr) {
        complain(function, "what is given is no object");
    }
    return constant;
}

void Heap::retain(CFTypeRef reference) {
    Object* const object = findAny(reference, "CFRetain");
    if (object != nullptr && object->isAlive()) {
        ++object->owned;
    }
}

void Heap::release(CFTypeRef reference) {
    Object* const object = findAny(reference, "CFRelease");
    if (object == nullptr || !object->isAlive()) {
        return;
    }
    if (object->owned == 0) {
        complain("CFRelease", object->description() + " is only borrowed");
        return;
    }
    --object->owned;
    if (!object->isAlive()) {
        bury(*object);
    }
}

/// Releases what a dead object holds.
void Heap::bury(Object& object) {
    for (Object* const part : object.parts()) {
        --part->held;
        if (!part->isAlive()) {
            bury(*part);
        }
    }
    if (object.kind != Kind::preferences) {
        return;
    }
    for (const auto& [reference, other] : objects_) {
        if (other->isAlive() && other->session() == &object) {
            complain("CFRelease", other->description() + " outlives its session");
        }
    }
}

void Heap::complain(std::string_view function, const std::string& complaint) {
    complaints_.push_back(std::string(function) + ": " + complaint);
}

std::vector<std::string> Heap::stillOwned() const {
    std::vector<std::string> descriptions;
    for (const auto& [reference, object] : objects_) {
        if (object->owned > 0) {
            descriptions.push_back(object->description());
        }
    }
    return descriptions;
}

}  // namespace tarnvale::test::standin
