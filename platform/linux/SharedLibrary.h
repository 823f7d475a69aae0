// SPDX-License-Identifier: MIT
//
// Libraries of the system that the program loads when it first needs them. Linked in the usual way,
// they and those they depend on would cost each start of a one-shot mode more than all of its work.
//
// A library's header lists the names that it needs in one macro. `TARNVALE_DECLARE_SYMBOL` turns
// the list into the members of a struct, `TARNVALE_FIND_SYMBOL` into the lines that fill it.

#pragma once

#include <stdexcept>

namespace tarnvale::platform {

/// Why a library can't be used; what() is a whole sentence.
class SharedLibraryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A library, loaded until the process exits: threads that have used it run its clean-up when they
/// end.
class SharedLibrary {
public:
    /// Loads the library. `name` must live as long as this object. Throws `SharedLibraryError`.
    explicit SharedLibrary(const char* name);

    /// Sets `symbol`, a pointer, to the function or object of that name. Throws
    /// `SharedLibraryError`.
    template <typename Symbol>
    void find(const char* name, Symbol& symbol) const {
        symbol = reinterpret_cast<Symbol>(address(name));
    }

private:
    void* address(const char* name) const;

    const char* name_;
    void* handle_;
};

// NOLINTNEXTLINE(bugprone-macro-parentheses): a member's name takes none
#define TARNVALE_DECLARE_SYMBOL(name) decltype(&::name) name = nullptr;

/// Expects a `SharedLibrary` called `library` and the struct, `symbols`.
#define TARNVALE_FIND_SYMBOL(name) library.find(#name, symbols.name);

}  // namespace tarnvale::platform
