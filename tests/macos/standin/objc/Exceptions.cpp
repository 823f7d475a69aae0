// SPDX-License-Identifier: MIT
//
// Exceptions of both languages are one kind, as on a Mac: `catch (...)` catches both, `@catch` of a
// class only objects of it.

#include <typeinfo>

#include <cxxabi.h>
#include <unwind.h>

#include "tests/macos/standin/objc/Runtime.h"

// NOLINTBEGIN(readability-identifier-naming,bugprone-reserved-identifier): the compiler's names

namespace gnustep::libobjc {

/// What is thrown when an object is, and what `@catch (id)` catches. It has the class's name where
/// a class is to be caught.
class __objc_class_type_info : public std::type_info {
public:
    explicit __objc_class_type_info(const char* name) noexcept : std::type_info(name) {}
    __objc_class_type_info(const __objc_class_type_info&) = delete;
    __objc_class_type_info& operator=(const __objc_class_type_info&) = delete;
    ~__objc_class_type_info() override;

    bool __is_pointer_p() const override;
    bool __do_catch(const std::type_info* thrown, void** object, unsigned outer) const override;
};

__objc_class_type_info::~__objc_class_type_info() = default;

bool __objc_class_type_info::__is_pointer_p() const {
    return true;
}

bool __objc_class_type_info::__do_catch(
    const std::type_info* thrown, void** object, unsigned /*outer*/) const {
    if (dynamic_cast<const __objc_class_type_info*>(thrown) == nullptr) {
        return false;
    }
    const auto* type =
        tarnvale::test::objc::classOf(static_cast<const tarnvale::test::objc::Object*>(*object));
    const std::string_view wanted(name());
    while (type != nullptr && wanted != "id" && wanted != type->name) {
        type = type->superclass;
    }
    return type != nullptr;
}

}  // namespace gnustep::libobjc

using namespace tarnvale::test::objc;  // NOLINT(google-build-using-namespace): it is its part

extern "C" {

extern gnustep::libobjc::__objc_class_type_info __objc_id_type_info;
gnustep::libobjc::__objc_class_type_info __objc_id_type_info("id");

[[noreturn]] void objc_exception_throw(Object* object) {
    void* const thrown = abi::__cxa_allocate_exception(sizeof(void*));
    *static_cast<Object**>(thrown) = retain(object);
    abi::__cxa_throw(thrown, &__objc_id_type_info, [](void* exception) {
        release(*static_cast<Object**>(exception));
    });
}

_Unwind_Reason_Code __gxx_personality_v0(
    int version,
    _Unwind_Action actions,
    _Unwind_Exception_Class exceptionClass,
    _Unwind_Exception* exception,
    _Unwind_Context* context);

_Unwind_Reason_Code __gnustep_objcxx_personality_v0(
    int version,
    _Unwind_Action actions,
    _Unwind_Exception_Class exceptionClass,
    _Unwind_Exception* exception,
    _Unwind_Context* context) {
    return __gxx_personality_v0(version, actions, exceptionClass, exception, context);
}
}

// NOLINTEND(readability-identifier-naming,bugprone-reserved-identifier)
