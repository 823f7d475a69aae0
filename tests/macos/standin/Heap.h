// SPDX-License-Identifier: MIT
//
// The stand-in's objects and their reference counts. References of the program under test are
// counted apart from those of other objects: that catches a program that releases what it only
// borrowed. A released object stays in memory until the test is over: that catches each later use.

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <CoreFoundation/CoreFoundation.h>

namespace tarnvale::test::standin {

/// What an object is. The enumerator is its type ID.
enum class Kind : CFTypeID {
    array = 1,
    bundle,
    code,
    dictionary,
    interface,
    number,
    preferences,
    requirement,
    staticCode,
    string,
};

struct Object {
    explicit Object(Kind ofKind) : kind(ofKind) {}
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    virtual ~Object() = default;

    bool isAlive() const { return owned + held > 0; }

    /// Its name in complaints.
    virtual std::string description() const;

    /// The objects that it holds. They die with it, unless others have them, too.
    virtual std::vector<Object*> parts() const { return {}; }

    /// The preferences session that it belongs to; null when there is none.
    virtual const Object* session() const { return nullptr; }

    const Kind kind;
    int owned = 0;  ///< references that the program has
    int held = 0;   ///< references that other objects have, or the system
};

struct String final : Object {
    explicit String(std::u16string itsText) : Object(Kind::string), text(std::move(itsText)) {}
    std::string description() const override;

    std::u16string text;
};

struct Number final : Object {
    Number(std::int64_t itsValue, CFNumberType itsType)
        : Object(Kind::number), value(itsValue), type(itsType) {}
    std::string description() const override;

    std::int64_t value;
    CFNumberType type;
};

struct Array final : Object {
    explicit Array(std::vector<Object*> itsItems)
        : Object(Kind::array), items(std::move(itsItems)) {}
    std::vector<Object*> parts() const override { return items; }

    std::vector<Object*> items;
};

struct Dictionary final : Object {
    using Entries = std::vector<std::pair<Object*, Object*>>;
    explicit Dictionary(Entries itsEntries)
        : Object(Kind::dictionary), entries(std::move(itsEntries)) {}
    std::vector<Object*> parts() const override;

    /// Null when there is none.
    Object* valueOf(std::u16string_view key) const;

    Entries entries;
};

/// A string constant, as `CFSTR` makes it. It is never released.
CFStringRef constantString(std::string_view text) noexcept;

std::u16string utf16(std::string_view utf8);

/// Leaves out what has no UTF-8 form.
std::string utf8(std::u16string_view text);

/// All objects of one test. Not safe from several threads.
class Heap {
public:
    /// Makes an object that the program owns.
    template <typename T, typename... Arguments>
    T& make(Arguments&&... arguments) {
        auto object = std::make_unique<T>(std::forward<Arguments>(arguments)...);
        T& made = *object;
        made.owned = 1;
        for (Object* const part : made.parts()) {
            ++part->held;
        }
        objects_.emplace(static_cast<Object*>(&made), std::move(object));
        return made;
    }

    /// Makes an object that nobody has yet: the object that it becomes a part of will have it.
    template <typename T, typename... Arguments>
    T& makePart(Arguments&&... arguments) {
        T& made = make<T>(std::forward<Arguments>(arguments)...);
        made.owned = 0;
        return made;
    }

    /// The object that the program passes to `function`. Complains and returns null unless it is of
    /// this type. Complains about a released one, but returns it.
    template <typename T>
    T* find(CFTypeRef reference, std::string_view function) {
        Object* const object = findAny(reference, function);
        if (object == nullptr) {
            return nullptr;
        }
        auto* const found = dynamic_cast<T*>(object);
        if (found == nullptr) {
            complain(function, object->description() + " is none of what it takes");
        }
        return found;
    }

    Object* findAny(CFTypeRef reference, std::string_view function);

    void retain(CFTypeRef reference);
    void release(CFTypeRef reference);

    void complain(std::string_view function, const std::string& complaint);

    /// What the program did wrong, in order.
    const std::vector<std::string>& complaints() const { return complaints_; }

    /// The objects that the program has not released yet.
    std::vector<std::string> stillOwned() const;

private:
    void bury(Object& object);

    std::map<CFTypeRef, std::unique_ptr<Object>> objects_;
    std::vector<std::string> complaints_;
};

/// The object as the program knows it.
template <typename Ref>
Ref referenceTo(const Object& object) {
    return static_cast<Ref>(static_cast<CFTypeRef>(&object));
}

}  // namespace tarnvale::test::standin
