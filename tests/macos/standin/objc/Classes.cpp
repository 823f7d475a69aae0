// SPDX-License-Identifier: MIT
//
// Classes and messages: what the compiler has written is made ready before main(), and read after.

#include <cstdlib>
#include <functional>
#include <iostream>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>

#include "tests/macos/standin/objc/Runtime.h"

namespace tarnvale::test::objc {

// Two that the runtime itself has to know; Foundation.mm has them.
extern "C" Class protocolClass __asm__("._OBJC_CLASS_Protocol");
extern "C" Class tinyTextClass __asm__("._OBJC_CLASS_TarnvaleTinyString");

struct ClassState {
    /// By the selectors' names, which are unique.
    std::unordered_map<const char*, Slot> methods;
};

namespace {

Forward theForward = nullptr;

void layOut(Class& type) {
    if (type.instanceSize > 0) {
        return;
    }
    std::size_t end = 0;
    if (type.superclass != nullptr) {
        layOut(*type.superclass);
        end = static_cast<std::size_t>(type.superclass->instanceSize);
    }
    for (const Variable& variable : items(type.variables)) {
        end = (end + variable.alignment() - 1) / variable.alignment() * variable.alignment();
        *variable.offset = static_cast<std::int32_t>(end);
        end += variable.size;
    }
    type.instanceSize = static_cast<long>(end);
}

void readMethods(Class& type) {
    type.state = new ClassState;
    for (auto* list = type.methods; list != nullptr; list = list->next) {
        for (const Method& method : items(list)) {
            type.state->methods.try_emplace(
                uniqueName(method.selector->name),
                Slot{&type, &type, method.types, 0, method.implementation});
        }
    }
}

/// A metaclass inherits from the superclass's metaclass, and the root's from the root itself.
void load(Class& type) {
    if (type.state != nullptr) {
        return;
    }
    Class& meta = *type.isa;
    Class* root = &type;
    if (type.superclass != nullptr) {
        load(*type.superclass);
        while (root->superclass != nullptr) {
            root = root->superclass;
        }
    }
    meta.isa = root->isa;
    meta.superclass = type.superclass != nullptr ? type.superclass->isa : &type;
    readMethods(type);
    readMethods(meta);
    layOut(type);
}

/// A message to nil does nothing, and returns nothing.
std::uintptr_t answerForNil() {
    return 0;
}

const Slot slotForNil{nullptr, nullptr, "", 0, reinterpret_cast<Implementation>(&answerForNil)};

const Slot* lookUp(Object* receiver, const Class* type, const Selector* selector) {
    if (const auto* const slot = findMethod(type, selector->name)) {
        return slot;
    }
    if (const auto* const slot = theForward != nullptr ? theForward(receiver, selector) : nullptr) {
        return slot;
    }
    die(std::string("there is no method ") + selector->name, type->name);
}

}  // namespace

Class* classOf(const Object* object) {
    return isTinyText(object) ? &tinyTextClass : object->isa;
}

bool Class::isKindOf(const Class* other) const {
    for (const auto* type = this; type != nullptr; type = type->superclass) {
        if (type == other) {
            return true;
        }
    }
    return false;
}

const char* uniqueName(std::string_view name) {
    static auto& names = *new std::set<std::string, std::less<>>;
    static auto& mutex = *new std::mutex;
    const std::lock_guard lock(mutex);
    return names.emplace(name).first->c_str();
}

Slot* findMethod(const Class* type, const char* name) {
    for (; type != nullptr; type = type->superclass) {
        const auto found = type->state->methods.find(name);
        if (found != type->state->methods.end()) {
            return &found->second;
        }
    }
    return nullptr;
}

void setForward(Forward forward) {
    theForward = forward;
}

void die(std::string_view what, std::string_view whom) {
    std::cerr << whom << ": " << what << '\n';
    std::abort();
}

}  // namespace tarnvale::test::objc

using namespace tarnvale::test::objc;  // NOLINT(google-build-using-namespace): it is its part

// NOLINTBEGIN(readability-identifier-naming,bugprone-reserved-identifier): the compiler's names

extern "C" {

/// The sections of one program, each from its first item to behind its last.
struct objc_init {
    std::uint64_t version;
    Selector *selectors, *selectorsEnd;
    Class **classes, **classesEnd;
    Class **classReferences, **classReferencesEnd;
    void *categories, *categoriesEnd;
    Protocol *protocols, *protocolsEnd;
    Protocol **protocolReferences, **protocolReferencesEnd;
    void *aliases, *aliasesEnd;
    void *strings, *stringsEnd;
};

void __objc_load(objc_init* program) {
    for (Selector& selector : std::span(program->selectors, program->selectorsEnd)) {
        if (selector.name != nullptr) {
            selector.name = uniqueName(selector.name);
        }
    }
    for (Class* const type : std::span(program->classes, program->classesEnd)) {
        if (type != nullptr) {
            load(*type);
        }
    }
    for (Protocol& protocol : std::span(program->protocols, program->protocolsEnd)) {
        protocol.isa = &protocolClass;
    }
}

const Slot* objc_msg_lookup_sender(
    Object** receiver, const Selector* selector, Object* /*sender*/) {
    Object* const object = *receiver;
    if (object == nullptr) {
        return &slotForNil;
    }
    demandAlive(object);
    return lookUp(object, classOf(object), selector);
}

struct objc_super {
    Object* receiver;
    Class* superclass;
};

Implementation objc_msg_lookup_super(const objc_super* target, const Selector* selector) {
    return lookUp(target->receiver, target->superclass, selector)->implementation;
}

/// A class's own method or an inherited one; null if there is none.
Slot* class_getInstanceMethod(const Class* type, const Selector* selector) {
    return findMethod(type, selector->name);
}

Implementation method_getImplementation(const Slot* method) {
    return method->implementation;
}

Implementation method_setImplementation(Slot* method, Implementation implementation) {
    return std::exchange(method->implementation, implementation);
}

const char* sel_getName(const Selector* selector) {
    return selector->name;
}
}

// NOLINTEND(readability-identifier-naming,bugprone-reserved-identifier)
