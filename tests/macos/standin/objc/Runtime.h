// SPDX-License-Identifier: MIT
//
// A small Objective-C runtime, for which clang compiles with -fobjc-runtime=gnustep-2.0: classes,
// messages, reference counts, weak references, blocks and exceptions. It has what the Objective-C++
// of platform/macos and its tests use, and no more.
//
// Debian has no runtime for automatic reference counting. Of the interfaces for which clang can
// compile on Linux, this is the smallest to serve: classes and protocols refer to each other by
// address, and a protocol has its methods' extended types, which XPC needs.
//
// It counts what is alive. What has died stays in memory, so that each later use is noticed: it
// ends the process.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

namespace tarnvale::test::objc {

struct Class;

struct Object {
    Class* isa;
};

/// Once loaded, those of equal names have the same pointer for a name.
struct Selector {
    const char* name;
    const char* types;
};

using Implementation = void (*)();

/// What looking up a method gives.
struct Slot {
    Class* owner;
    Class* cachedFor;
    const char* types;
    int version;
    Implementation implementation;
};

// What the compiler writes. A list has its items right behind it.

struct Variable {
    const char* name;
    const char* type;
    std::int32_t* offset;
    std::uint32_t size;
    std::uint32_t flags;

    std::size_t alignment() const { return std::size_t{1} << (flags >> 3U); }
};

struct VariableList {
    using Item = Variable;
    std::int32_t count;
    std::size_t itemSize;
};

struct Method {
    Implementation implementation;
    Selector* selector;
    const char* types;
};

struct MethodList {
    using Item = Method;
    MethodList* next;
    std::int32_t count;
    std::size_t itemSize;
};

struct ProtocolMethod {
    const Selector* selector;
    const char* extendedTypes;
};

struct ProtocolMethodList {
    using Item = ProtocolMethod;
    std::int32_t count;
    std::int32_t itemSize;
};

struct ProtocolList;

struct Protocol : Object {
    const char* name;
    ProtocolList* protocols;
    ProtocolMethodList* methods;
    ProtocolMethodList* classMethods;
    ProtocolMethodList* optionalMethods;
    ProtocolMethodList* optionalClassMethods;
    std::array<void*, 4> properties;
};

struct ProtocolList {
    using Item = Protocol*;
    ProtocolList* next;
    std::size_t count;
};

template <typename List>
std::span<typename List::Item> items(List* list) {
    using Item = typename List::Item;
    return list == nullptr ? std::span<Item>()
                           : std::span(
                                 static_cast<Item*>(static_cast<void*>(list + 1)),
                                 static_cast<std::size_t>(list->count));
}

/// What the runtime knows of a class besides.
struct ClassState;

struct Class : Object {
    Class* superclass;
    const char* name;
    long version;
    unsigned long info;
    long instanceSize;  ///< until it is loaded: less than 0, and of its own variables alone
    VariableList* variables;
    MethodList* methods;
    ClassState* state;
    Implementation constructor;
    Implementation destructor;
    Class* subclasses;
    Class* sibling;
    ProtocolList* protocols;
    void* extra;
    long abi;
    void* properties;

    bool isMetaclass() const { return (info & 1U) != 0; }
    bool isKindOf(const Class* other) const;
};

/// The class of what isn't a block.
Class* classOf(const Object* object);

/// Whether it is no object at all, but a short text of the program's in the place of a pointer: its
/// length from bit 3 on, then from the top downwards seven bits for each character.
inline bool isTinyText(const Object* object) {
    constexpr std::uintptr_t tagBits = 7;
    return (reinterpret_cast<std::uintptr_t>(object) & tagBits) != 0;
}

/// The one address of all selectors' names that read like this.
const char* uniqueName(std::string_view name);

/// The class's own method or an inherited one, by a unique name. Null if there is none.
Slot* findMethod(const Class* type, const char* name);

/// What messages get whose receiver has no method for them; null is an error. There is one.
using Forward = const Slot* (*)(Object* receiver, const Selector* selector);
void setForward(Forward forward);

/// Memory that is counted as one of `kind`, with one reference, and zeroed.
void* allocate(std::size_t size, const std::string& kind);

/// How many there are of each kind, blocks among them. Kinds of which there are none are left out.
std::map<std::string, long> alive();

/// Ends the process: the program has done what must never be done.
[[noreturn]] void die(std::string_view what, std::string_view whom);

// References, as the compiler counts them. A null object is none.

Object* retain(Object* object);
void release(Object* object);

/// Ends the process if the object has died.
void demandAlive(Object* object);

bool isBlock(const Object* object);
bool isCopiedBlock(const Object* object);
Object* copyBlock(Object* block);
void destroyBlock(Object* block);

}  // namespace tarnvale::test::objc
