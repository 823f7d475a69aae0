// SPDX-License-Identifier: MIT
//
// `apply FILE`: has the helper enforce a file of networks. The helper's reply counts the rules that
// it skips; a review of our own, by the helper's rules, says which and why.

#pragma once

#include <string_view>

#include "helperctl/Answer.h"
#include "helperctl/Session.h"

namespace tarnvale::helperctl {

/// Reads the file first: if that fails, there is nothing to ask the helper. With `strict`, asks it
/// nothing either if it would leave out anything of the file.
Outcome apply(const Arguments& arguments, const Connect& connect);

/// The same as a command, which may wait for a confirmation.
int applyFile(const Session& session);

inline constexpr std::string_view applyHelp =
    R"(Has the helper enforce the networks of the file and no others of this user.
Prints what is enforced, and each rule that is skipped with the reason. Neither
a network that the helper refuses nor a skipped rule keeps the others from being
enforced.

  --strict   change nothing if any network would be refused or left out, or any
             rule skipped
  --confirm SECONDS
             put back what this user had stored before, unless "yes" is typed
             within that time: a firewall may cut off whoever changes it. Also
             put back when the terminal is lost, at another answer, or when the
             helper's reply gets lost. FILE can't be standard input then.
             Refused where putting back couldn't restore everything: while
             networks of older versions are stored, others claim a subnet, or
             this machine can't enforce all that is stored

Exit status 1: the helper refused at least one network, or failed; or --strict
kept the file from being sent; or it wasn't confirmed.
)";

}  // namespace tarnvale::helperctl
