// SPDX-License-Identifier: MIT
//
// Reference counts, weak references, autorelease pools and properties.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tests/macos/standin/objc/Runtime.h"

namespace tarnvale::test::objc {
namespace {

/// Stands in front of each counted object.
struct alignas(std::max_align_t) Head {
    std::atomic<long> references{1};
    std::atomic<bool> isDead{false};
    std::atomic<long>* aliveOfItsKind = nullptr;
};

/// How many there are of each kind, and where all of them are, so that nobody takes those for lost
/// that have died.
struct Counts {
    std::mutex mutex;
    std::map<std::string, std::atomic<long>, std::less<>> alive;
    std::vector<void*> memory;

    static Counts& get() {
        static auto& counts = *new Counts;
        return counts;
    }
};

struct WeakReferences {
    std::mutex mutex;
    std::unordered_map<const Object*, std::vector<Object**>> places;

    static WeakReferences& get() {
        static auto& references = *new WeakReferences;
        return references;
    }

    void add(Object** place, Object* object) {
        *place = object;
        if (object != nullptr) {
            places[object].push_back(place);
        }
    }

    void remove(Object** place) {
        const auto found = places.find(*place);
        if (found != places.end()) {
            std::erase(found->second, place);
        }
        *place = nullptr;
    }
};

Head& headOf(Object* object) {
    return static_cast<Head*>(static_cast<void*>(object))[-1];
}

const char* nameOf(const Object* object) {
    return isBlock(object) ? "a block" : object->isa->name;
}

/// Strings, protocols and classes that are part of the program are there for good.
bool isCounted(const Object* object) {
    if (isTinyText(object)) {
        return false;
    }
    if (isBlock(object)) {
        return isCopiedBlock(object);
    }
    const std::string_view name(object->isa->name);
    return !object->isa->isMetaclass() && name != "NSConstantString" && name != "Protocol";
}

/// Runs the method of this name of each class that has one itself, from the object's class upwards.
void callEach(Object* object, const char* name) {
    const Selector selector{name, ""};
    for (const auto* type = object->isa; type != nullptr; type = type->superclass) {
        const auto* const slot = findMethod(type, name);
        if (slot == nullptr) {
            return;
        }
        type = slot->owner;
        reinterpret_cast<void (*)(Object*, const Selector*)>(slot->implementation)(
            object, &selector);
    }
}

void destroy(Object* object) {
    {
        auto& weak = WeakReferences::get();
        const std::lock_guard lock(weak.mutex);
        const auto found = weak.places.find(object);
        if (found != weak.places.end()) {
            for (Object** const place : found->second) {
                *place = nullptr;
            }
            weak.places.erase(found);
        }
    }
    if (isBlock(object)) {
        destroyBlock(object);
    } else {
        static const char* const name = uniqueName(".cxx_destruct");
        callEach(object, name);
    }
    Head& head = headOf(object);
    head.isDead = true;
    --*head.aliveOfItsKind;
}

/// One more reference, unless there is none any more. False also for what is dying.
bool retainUnlessDying(Object* object) {
    auto& references = headOf(object).references;
    for (long seen = references; seen > 0;) {
        if (references.compare_exchange_weak(seen, seen + 1)) {
            return true;
        }
    }
    return false;
}

/// A thread's pools. Where none is open, what comes stays forever.
struct Pools {
    std::vector<Object*> objects;
    std::vector<std::size_t> begins;  ///< of each open pool, the place of its first object
};

Pools& pools() {
    thread_local Pools pools;
    return pools;
}

std::mutex& propertyLock() {
    static auto& lock = *new std::mutex;
    return lock;
}

Object** variableAt(Object* object, std::ptrdiff_t offset) {
    return static_cast<Object**>(
        static_cast<void*>(static_cast<std::byte*>(static_cast<void*>(object)) + offset));
}

void setProperty(Object* object, std::ptrdiff_t offset, Object* value) {
    Object* before = nullptr;
    {
        const std::lock_guard lock(propertyLock());
        before = std::exchange(*variableAt(object, offset), value);
    }
    release(before);
}

}  // namespace

void* allocate(std::size_t size, const std::string& kind) {
    void* const memory = std::calloc(1, sizeof(Head) + size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    auto* const head = new (memory) Head;
    auto& counts = Counts::get();
    const std::lock_guard lock(counts.mutex);
    head->aliveOfItsKind = &counts.alive[kind];
    ++*head->aliveOfItsKind;
    counts.memory.push_back(memory);
    return head + 1;
}

std::map<std::string, long> alive() {
    auto& counts = Counts::get();
    const std::lock_guard lock(counts.mutex);
    std::map<std::string, long> alive;
    for (const auto& [kind, count] : counts.alive) {
        if (count != 0) {
            alive.emplace(kind, count);
        }
    }
    return alive;
}

Object* retain(Object* object) {
    if (object == nullptr || !isCounted(object)) {
        return object;
    }
    demandAlive(object);
    ++headOf(object).references;
    return object;
}

void demandAlive(Object* object) {
    if (isCounted(object) && headOf(object).isDead) {
        die("it is used after it has died", nameOf(object));
    }
}

void release(Object* object) {
    if (object == nullptr || !isCounted(object)) {
        return;
    }
    demandAlive(object);
    const long left = --headOf(object).references;
    if (left == 0) {
        destroy(object);
    } else if (left < 0) {
        die("it is released too often", nameOf(object));
    }
}

}  // namespace tarnvale::test::objc

using namespace tarnvale::test::objc;  // NOLINT(google-build-using-namespace): it is its part

// NOLINTBEGIN(readability-identifier-naming): the compiler's names

extern "C" {

Object* class_createInstance(Class* type, std::size_t /*extra*/) {
    auto* const object =
        static_cast<Object*>(allocate(static_cast<std::size_t>(type->instanceSize), type->name));
    object->isa = type;
    // C++ variables here need no order among classes.
    static const char* const name = uniqueName(".cxx_construct");
    callEach(object, name);
    return object;
}

Object* objc_retain(Object* object) {
    return retain(object);
}

void objc_release(Object* object) {
    release(object);
}

Object* objc_retainBlock(Object* block) {
    return block == nullptr ? nullptr : copyBlock(block);
}

void objc_storeStrong(Object** place, Object* object) {
    retain(object);
    release(std::exchange(*place, object));
}

std::uintptr_t objc_autoreleasePoolPush() {
    pools().begins.push_back(pools().objects.size());
    return pools().begins.size() - 1;
}

/// An exception leaves pools open, which then end with the one around them.
void objc_autoreleasePoolPop(std::uintptr_t pool) {
    auto& all = pools();
    const auto begin = all.begins.at(pool);
    all.begins.resize(pool);
    while (all.objects.size() > begin) {
        Object* const last = all.objects.back();
        all.objects.pop_back();
        release(last);
    }
}

Object* objc_autorelease(Object* object) {
    if (object != nullptr && !pools().begins.empty()) {
        pools().objects.push_back(object);
    }
    return object;
}

Object* objc_retainAutorelease(Object* object) {
    return objc_autorelease(retain(object));
}

Object* objc_autoreleaseReturnValue(Object* object) {
    return objc_autorelease(object);
}

Object* objc_retainAutoreleaseReturnValue(Object* object) {
    return objc_autorelease(retain(object));
}

Object* objc_retainAutoreleasedReturnValue(Object* object) {
    return retain(object);
}

Object* objc_storeWeak(Object** place, Object* object) {
    auto& weak = WeakReferences::get();
    const std::lock_guard lock(weak.mutex);
    weak.remove(place);
    weak.add(place, object);
    return object;
}

Object* objc_initWeak(Object** place, Object* object) {
    *place = nullptr;
    return objc_storeWeak(place, object);
}

void objc_destroyWeak(Object** place) {
    objc_storeWeak(place, nullptr);
}

Object* objc_loadWeakRetained(Object** place) {
    auto& weak = WeakReferences::get();
    const std::lock_guard lock(weak.mutex);
    return *place != nullptr && retainUnlessDying(*place) ? *place : nullptr;
}

Object* objc_loadWeak(Object** place) {
    return objc_autorelease(objc_loadWeakRetained(place));
}

void objc_copyWeak(Object** to, Object** from) {
    Object* const object = objc_loadWeakRetained(from);
    objc_initWeak(to, object);
    release(object);
}

void objc_moveWeak(Object** to, Object** from) {
    objc_copyWeak(to, from);
    objc_destroyWeak(from);
}

Object* objc_getProperty(
    Object* object, const Selector* /*selector*/, std::ptrdiff_t offset, bool /*isAtomic*/) {
    const std::lock_guard lock(propertyLock());
    return objc_retainAutorelease(*variableAt(object, offset));
}

void objc_setProperty_atomic(
    Object* object, const Selector* /*selector*/, Object* value, std::ptrdiff_t offset) {
    setProperty(object, offset, retain(value));
}

void objc_setProperty_nonatomic(
    Object* object, const Selector* /*selector*/, Object* value, std::ptrdiff_t offset) {
    setProperty(object, offset, retain(value));
}

/// What is copied here never changes, so only a block has to be moved.
void objc_setProperty_atomic_copy(
    Object* object, const Selector* /*selector*/, Object* value, std::ptrdiff_t offset) {
    setProperty(
        object,
        offset,
        value != nullptr && !isTinyText(value) && isBlock(value) ? copyBlock(value)
                                                                 : retain(value));
}

void objc_setProperty_nonatomic_copy(
    Object* object, const Selector* selector, Object* value, std::ptrdiff_t offset) {
    objc_setProperty_atomic_copy(object, selector, value, offset);
}
}

// NOLINTEND(readability-identifier-naming)
