// SPDX-License-Identifier: MIT
//
// `completion`: prints, for a shell, what completes the command lines of this program. It is made
// from the same forms as the help, so it knows each command, option and choice.

#pragma once

#include <string_view>

#include "helperctl/Session.h"

namespace tarnvale::helperctl {

int completion(const Session& session);

inline constexpr std::string_view completionHelp =
    R"help(Prints what completes this program's command lines in a shell: bash, zsh or
fish. Debian's package installs it. Elsewhere, have the shell read it as it
starts:

  ~/.bashrc                     eval "$(tarnvale-helperctl completion bash)"
  ~/.zshrc, below compinit      source <(tarnvale-helperctl completion zsh)
  ~/.config/fish/config.fish    tarnvale-helperctl completion fish | source

The result is a script in either format.
)help";

}  // namespace tarnvale::helperctl
