// SPDX-License-Identifier: MIT
//
// The pages of help that tarnvale-helperctl prints: one about everything, and one for each command
// that has no file of its own in commands/.

#pragma once

#include <string>
#include <string_view>

#include "helperctl/CommandForms.h"

namespace tarnvale::helperctl {

/// The page about one command.
std::string helpFor(const CommandForm& form);

inline constexpr std::string_view helpText =
    R"(tarnvale-helperctl - ask Tarnvale's privileged helper, or preview a policy

SYNOPSIS
  tarnvale-helperctl [--format text|json] [--user NAME] COMMAND
  tarnvale-helperctl help [COMMAND]

COMMANDS
  version                      print the version of the helper that runs
  status [--watch]             print what the packet filter enforces and has
                               counted; for root, also which stored networks it
                               doesn't enforce, and why
  doctor                       look for what keeps the helper from doing its
                               work, and say what to do
  report [--redact] FILE       write an archive for support into FILE, and print
                               what is in it; only for root
  log [-f]                     print the helper's log, with -f as it grows
  validate FILE                print everything that is wrong with FILE, with
                               line and column
  lint FILE                    print what in FILE doesn't do what it seems to
  matrix FILE                  print who reaches whom once FILE is applied; with
                               --svg PICTURE write it as a picture
  matrix --live                the same of the rules in force
  diff FILE OTHER              print what changes from FILE to OTHER: records,
                               lines, the verdicts on packets, connections that
                               are cut
  diff FILE                    the same from what is stored to what it would be
                               once FILE is applied; only for root
  preview FILE                 print what applying FILE would result in
  explain FILE PACKET          print what would become of PACKET if FILE were
                               applied, by which line, and what else was looked
                               at before
  explain --live PACKET        the same of the rules in force, which the helper
                               reports
  init                         print a file to start from, for the virtual
                               networks that this machine has now
  export                       print root's stored networks as a FILE, or with
                               --user that user's; only for root
  schema                       print the JSON Schema of FILE
  completion SHELL             print what completes this program's command lines
                               in bash, zsh or fish

  apply [--strict] FILE        enforce these networks and no others of this
                               user; print which rules are skipped, and why
  remove                       enforce none of this user's networks
  vlan create NAME TAG PARENT  make a VLAN interface on the interface PARENT,
                               and print what it is called
  vlan delete NAME             remove the VLAN interface of that printed name
  link install, link remove    the command-line tool's links in /usr/local/bin
  resolver on, resolver off    the resolver files in /etc/resolver
  shutdown                     end the helper; the next request starts it again

  FILE holds a JSON array of networks, 64 MiB at most; "-" is standard input. It
  is sent as it is: the helper judges it. From "validate" on, the first group
  asks the helper only with --live. It judges FILE by the helper's own rules, as
  if no other user had networks; only "diff FILE" looks at what all have stored.
  "help COMMAND" says more about each.

OPTIONS
  --format text    results as text on standard output, problems on standard
                   error; this is the default
  --format json    one JSON object on standard output, whether the command
                   succeeds or fails; only a command line that can't be
                   understood is reported as text
  --user NAME      do everything as this user, reading FILE included; only root
                   may
  --help           print this; behind a command, what "help COMMAND" prints
  --version        print the version of this program

WHO MAY
  The helper admits this program, and anybody can run it. So that no program
  takes it for a proxy, every command that changes something (the second group
  above) runs only for root, who may act for a user by --user. Which changes
  that user may make is for the helper to say.

JSON
  docs/helperctl.schema.json describes the objects. A member that a command has
  nothing to say for is left out. What export, init and schema print is JSON of
  its own, a file, in either format; what completion prints is a script.

  formatVersion  every command: 1. Members may be added to a version, but none
                 changes its meaning or goes
  error          every command: why it failed
  version        version
  report         status: the helper's own text
  firewall       status: whether pf is on, and each network's rules with what
                 they have counted
  summary        apply, preview: what is enforced of this user's networks
  bsdName        vlan create: what the new interface is called
  ruleset        preview: the text for the packet filter
  explanation    explain: what becomes of the packet, and why
  archive        report: the names of what is in it
  doctor         doctor: what each check has found
  log            log: its entries
  validation     validate: all problems, with their places
  lint           lint: all findings, with their places
  matrix         matrix: what passes from whom to whom
  difference     diff: what changes
  toolVersion    --version
  refused        apply --strict, preview, status: networks that are not
                 enforced, each with networkID, name and problem
  skippedRules   apply, preview, status: networks some of whose rules are left
                 out, each with networkID, name and rules; a rule has its
                 number, counted from 1, and problem
  droppedClaims  apply, preview, status: for each network that is left out
                 because another one has its subnet, a sentence
  hint           status: what else there is to know

EXIT STATUS
  0  done
  1  refused or failed; for preview also: a network would be refused; for
     doctor, validate: there is a problem; for lint: an error or a warning
  2  the command line can't be understood
  3  the helper can't be reached
  4  the helper doesn't admit this program, which has to be signed, or this user
     has too many connections to it

  The helper has 60 seconds to start and to admit this program, and 120 seconds
  for a reply. What got no reply may have been done or not; it can be repeated.

EXAMPLES
  tarnvale-helperctl validate lab.json
  tarnvale-helperctl preview lab.json
  tarnvale-helperctl explain lab.json "udp 192.168.64.2 -> 10.1.2.3:53"
  sudo tarnvale-helperctl apply lab.json
  sudo tarnvale-helperctl apply --confirm 60 lab.json
  sudo tarnvale-helperctl --user ada apply - <lab.json
  tarnvale-helperctl --format json status
)";

inline constexpr std::string_view versionHelp =
    R"(Prints the version of the helper that runs, which the system starts if
necessary. "tarnvale-helperctl --version" prints that of this program.
)";

inline constexpr std::string_view previewHelp =
    R"(Prints what applying the file would result in on this machine if no other user
had networks: the summary, the networks that would be refused, the rules that
would be skipped, and the ruleset. Asks no helper.

Exit status 1: a network would be refused.
)";

inline constexpr std::string_view explainHelp =
    R"(Prints what would become of a packet if the file were applied on this machine:
the verdict, the line that decides, with the rule that it comes from, and what
was looked at before. Without --live it asks no helper.

With --live, the rules in force decide, which the helper reports. Only root also
learns which rules of whose policy they come from.

PACKET opens a connection and is written as in "tcp 192.168.64.2 ->
10.1.2.3:443": tcp, udp, icmp or a protocol's number, where from, "->" or "to",
where to. In a shell, "->" takes quotation marks. Only tcp and udp have ports.
The port that it comes from may be left out; only the DHCP lines look at it.
)";

inline constexpr std::string_view removeHelp =
    R"(Has the helper forget this user's networks and enforce none of them. What other
users have stored stays in force.
)";

inline constexpr std::string_view createVLANHelp =
    R"(Makes a VLAN interface with this display name and this tag on the interface
PARENT, and prints what it is called. Only for administrators.
)";

inline constexpr std::string_view deleteVLANHelp =
    R"(Removes the VLAN interface that the helper made and "vlan create" has named.
Only for administrators.
)";

inline constexpr std::string_view installLinkHelp =
    R"(Makes the links to the application's command-line tool in /usr/local/bin.
)";

inline constexpr std::string_view removeLinkHelp =
    R"(Removes the links to the application's command-line tool in /usr/local/bin.
)";

inline constexpr std::string_view resolverOnHelp =
    R"(Installs the two resolver files in /etc/resolver, through which this machine
finds the names of virtual machines.
)";

inline constexpr std::string_view resolverOffHelp =
    R"(Removes the two resolver files in /etc/resolver.
)";

inline constexpr std::string_view shutdownHelp =
    R"(Ends the helper. What it enforces stays in force; the next request starts it
again.
)";

inline constexpr std::string_view helpHelp =
    R"(Prints how to use a command, or without one, how to use this program. "help
vlan" tells about both commands that begin with this word. Help is text in
either format.
)";

}  // namespace tarnvale::helperctl
