// SPDX-License-Identifier: MIT
//
// The two ways to make a private root (PrivateRoot.h). Both are called in the child that the tests
// will run in, and throw `std::system_error`, what() beginning with the step that failed.

#pragma once

#include <string>

#include <sys/types.h>

#include "support/UniqueFd.h"

namespace tarnvale::test {

/// The file by which a process finds that it is in a private root; it holds the ground's name. /run
/// is its own in every private root.
inline constexpr const char* groundFile = "/run/private-root";

/// Makes the caller root of a user namespace of its own.
void becomeRootOfAUserNamespace();

/// Puts a copy-on-write view of the file system in place of "/". The caller is the first process of
/// new mount and PID namespaces, made by root, or by root of a user namespace.
void mountPrivateRoot(bool isUserNamespace);

/// A folder that can be the root of a process: what the tests need of this machine, as copies. It
/// lies beside the build, is made in some ten milliseconds and is removed with the object.
class CopiedRoot {
public:
    CopiedRoot();
    CopiedRoot(const CopiedRoot&) = delete;
    CopiedRoot& operator=(const CopiedRoot&) = delete;
    ~CopiedRoot();

    const std::string& folder() const { return folder_; }

private:
    std::string folder_;
    support::UniqueFd lock_;  ///< held on the folder while it is used
};

/// Answers for /proc in a copied root, which has none: a chroot without mounts can't have one. The
/// paths below /proc that its processes name are looked up outside by this process.
///
/// The child calls `superviseMe` and sends what it returns to its parent; `serveProc` runs there
/// until `child` has ended, then ends every process that is left and returns the child's status as
/// waitpid gives it.
int superviseMe();
int serveProc(int supervised, pid_t child, const std::string& root);

}  // namespace tarnvale::test
