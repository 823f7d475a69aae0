// SPDX-License-Identifier: MIT
//
// The kinds of measurement that `sweep` takes, each chosen by its first word. To add one, declare
// it here, define it in a file of its own and list it in main.cpp.

#pragma once

#include <string>
#include <vector>

namespace tarnvale::test {

struct Kind {
    const char* name;
    const char* arguments;  ///< for the usage
    /// In a private root, with the words behind the kind's name. Returns the status of the program,
    /// or throws `std::exception`, of which `std::invalid_argument` is for words that make no
    /// sense.
    int (*run)(const std::vector<std::string>& words);
};

/// Every allocation fails in turn.
extern const Kind memoryKind;

/// It dies at every system call in turn.
extern const Kind killKind;

/// Every system call is refused in turn.
extern const Kind errnoKind;

/// The power is cut while the helper writes.
extern const Kind powerKind;

/// Clients ask for anything for a long time, and the helper must not grow.
extern const Kind soakKind;

/// Many users ask for anything, while the helper is killed.
extern const Kind stormKind;

}  // namespace tarnvale::test
