// SPDX-License-Identifier: MIT

#include "platform/linux/SharedLibrary.h"

#include <string>

#include <dlfcn.h>

namespace tarnvale::platform {

SharedLibrary::SharedLibrary(const char* name)
    : name_(name), handle_(::dlopen(name, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)) {
    if (handle_ == nullptr) {
        throw SharedLibraryError(std::string("Could not load ") + name + ".");
    }
}

void* SharedLibrary::address(const char* name) const {
    void* const found = ::dlsym(handle_, name);
    if (found == nullptr) {
        throw SharedLibraryError(std::string(name_) + " has no " + name + ".");
    }
    return found;
}

}  // namespace tarnvale::platform
