// SPDX-License-Identifier: MIT
//
// What tarnvale-helperctl says of itself.

#pragma once

#include <string_view>

namespace tarnvale::helperctl {

inline constexpr std::string_view helpText =
    R"(tarnvale-helperctl - ask Tarnvale's privileged helper, or see what it would enforce

SYNOPSIS
  tarnvale-helperctl [--format text|json] [--user NAME] COMMAND

COMMANDS
  version                         print the version of the helper that runs
  status                          print what the packet filter enforces
  preview FILE                    print what applying a file would come to

  apply FILE                      enforce the networks of a file, and no others of this user
  remove                          enforce none of this user's networks
  vlan create NAME TAG PARENT     make a VLAN interface on an interface; prints what it is called
  vlan delete NAME                remove a VLAN interface, called as "vlan create" printed it
  link install | link remove      the links to Tarnvale's command-line tool in /usr/local/bin
  resolver on | resolver off      the resolver files in /etc/resolver
  shutdown                        end the helper; the next request starts it again

  FILE holds a JSON array of networks; "-" is standard input. It is sent to the helper as it is,
  which judges it. "preview" asks no helper: it shows, by the helper's own rules and this machine's
  own addresses, what would come of the file if no other user had any networks.

OPTIONS
  --format text   results as text on standard output, problems on standard error (the default)
  --format json   one JSON object on standard output, whatever happens after the command line
                  has been understood
  --user NAME     do everything as this user, reading FILE included; only for root
  --help          print this

WHO MAY
  The helper admits this program, and any program can run it. So that nobody takes it for a proxy,
  whatever changes anything (all but version, status and preview) runs only for root, who may use
  --user to act for somebody else. What a user may change is for the helper to decide.

JSON
  These are the members of the object. A member that a command has nothing to say for is left out;
  a command that succeeds without a result prints {}.

  error           why it failed, a sentence; all commands
  version         version
  report          status
  summary         apply, preview: what is enforced of this user's networks, in a sentence
  bsdName         vlan create: what the new interface is called
  ruleset         preview: the text for the packet filter
  refused         preview: networks that may not be enforced, each an object of networkID, name
                  and problem
  skippedRules    preview: rules that would be left out, an object of networkID, name and rules for
                  each network; each rule has its number, counted from 1, and the problem
  droppedClaims   preview: networks left out because an earlier one has their subnet, a sentence
                  each

EXIT STATUS
  0   done
  1   refused or failed; for preview also: a network would be refused
  2   the command line can't be understood
  3   the helper can't be reached
  4   the helper doesn't admit this program: it is not signed as it has to be, or this user has too
      many connections open

LIMITS
  FILE may have 64 MiB. The helper has 60 seconds to start and admit this program and 120 seconds to
  reply. A request that got no reply may have been done or not; all of them can be repeated.

EXAMPLES
  tarnvale-helperctl preview examples/lab.json
  sudo tarnvale-helperctl --user ada apply lab.json
  generate-policy | sudo tarnvale-helperctl apply -
  tarnvale-helperctl --format json status
)";

}  // namespace tarnvale::helperctl
