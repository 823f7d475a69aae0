// SPDX-License-Identifier: MIT
//
// The owner of a Core Foundation object, or of one of a framework built on it. A function's name
// says who owns its result: adopt what "Create" or "Copy" returned; what "Get" returned is
// borrowed, so retain it to keep it.

#pragma once

#include <utility>

#include <CoreFoundation/CoreFoundation.h>

namespace tarnvale::platform {

/// Owns one reference to an object, or nothing. `Ref` is the framework's pointer type, such as
/// `CFStringRef`.
template <typename Ref>
class CFRef {
public:
    CFRef() noexcept = default;
    CFRef(CFRef&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    CFRef(const CFRef&) = delete;
    CFRef& operator=(const CFRef&) = delete;
    CFRef& operator=(CFRef&& other) noexcept {
        CFRef moved(std::move(other));
        std::swap(object_, moved.object_);
        return *this;
    }
    ~CFRef() {
        if (object_ != nullptr) {
            ::CFRelease(object_);
        }
    }

    /// Takes over the caller's reference; null gives an owner of nothing.
    static CFRef adopt(Ref CF_CONSUMED object) noexcept { return CFRef(object); }

    /// Adds a reference to an object that somebody else owns; null gives an owner of nothing.
    static CFRef retain(Ref object) noexcept {
        if (object != nullptr) {
            ::CFRetain(object);
        }
        return CFRef(object);
    }

    /// Valid as long as the owner is.
    Ref get() const noexcept { return object_; }

    /// Where a function puts a reference for this owner, which first releases what it had.
    Ref* out() noexcept {
        *this = CFRef();
        return &object_;
    }

    explicit operator bool() const noexcept { return object_ != nullptr; }

private:
    explicit CFRef(Ref object) noexcept : object_(object) {}

    Ref object_ = nullptr;
};

}  // namespace tarnvale::platform
