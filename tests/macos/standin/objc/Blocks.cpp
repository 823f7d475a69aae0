// SPDX-License-Identifier: MIT
//
// Blocks. One that is written down lies on the stack; whoever keeps it copies it, and the copy is
// counted like an object. One that captures nothing is part of the program.

#include <array>
#include <cstring>

#include "tests/macos/standin/objc/Runtime.h"

namespace {

struct Block;

struct Description {
    std::uintptr_t reserved;
    std::size_t size;
    // Only with `hasHelpers`:
    void (*copy)(Block* to, const Block* from);
    void (*destroy)(Block* block);
};

struct Block : tarnvale::test::objc::Object {
    std::int32_t flags;
    std::int32_t reserved;
    void (*invoke)();
    const Description* description;

    static constexpr std::int32_t hasHelpers = 1 << 25;
};

/// What a captured variable is.
enum Field : int { anObject = 3, aBlock = 7, isWeak = 16 };

Block* blockOf(tarnvale::test::objc::Object* object) {
    return static_cast<Block*>(object);
}

}  // namespace

using namespace tarnvale::test::objc;  // NOLINT(google-build-using-namespace): it is its part

// NOLINTBEGIN(readability-identifier-naming,bugprone-reserved-identifier): the compiler's names

extern "C" {

// Where blocks are; only the addresses matter.
extern std::array<void*, 32> _NSConcreteStackBlock;
extern std::array<void*, 32> _NSConcreteGlobalBlock;
std::array<void*, 32> _NSConcreteStackBlock{};
std::array<void*, 32> _NSConcreteGlobalBlock{};

/// What the compiler's helpers call for variables that it does not count itself.
void _Block_object_assign(Object** place, Object* object, int field) {
    switch (field) {
        case anObject:
            *place = retain(object);
            return;
        case aBlock:
            *place = copyBlock(object);
            return;
        default:
            die("a variable of an unknown kind is captured", "a block");
    }
}

void _Block_object_dispose(Object* object, int field) {
    switch (field) {
        case anObject:
        case aBlock:
            release(object);
            return;
        default:
            die("a variable of an unknown kind is captured", "a block");
    }
}
}

namespace tarnvale::test::objc {
namespace {

std::array<void*, 32> copiedBlock{};

}  // namespace

bool isBlock(const Object* object) {
    const auto* const place = static_cast<const void*>(object->isa);
    return place == &_NSConcreteStackBlock || place == &_NSConcreteGlobalBlock ||
           isCopiedBlock(object);
}

bool isCopiedBlock(const Object* object) {
    return static_cast<const void*>(object->isa) == &copiedBlock;
}

Object* copyBlock(Object* block) {
    if (static_cast<void*>(block->isa) != &_NSConcreteStackBlock) {
        return retain(block);
    }
    const Block* const from = blockOf(block);
    auto* const copy = static_cast<Block*>(allocate(from->description->size, "a block"));
    std::memcpy(static_cast<void*>(copy), from, from->description->size);
    copy->isa = static_cast<Class*>(static_cast<void*>(&copiedBlock));
    if ((from->flags & Block::hasHelpers) != 0) {
        from->description->copy(copy, from);
    }
    return copy;
}

void destroyBlock(Object* block) {
    if ((blockOf(block)->flags & Block::hasHelpers) != 0) {
        blockOf(block)->description->destroy(blockOf(block));
    }
}

}  // namespace tarnvale::test::objc

// NOLINTEND(readability-identifier-naming,bugprone-reserved-identifier)
