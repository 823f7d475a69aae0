// SPDX-License-Identifier: MIT
//
// The page of help that tarnvale-helperctl prints.

#pragma once

#include <string_view>

namespace tarnvale::helperctl {

inline constexpr std::string_view helpText =
    R"(tarnvale-helperctl - ask Tarnvale's privileged helper, or preview a policy

SYNOPSIS
  tarnvale-helperctl [--format text|json] [--user NAME] COMMAND

COMMANDS
  version                      print the version of the helper that runs
  status                       print what the packet filter enforces; for root,
                               also which stored networks it doesn't, and why
  preview FILE                 print what applying FILE would come to
  explain FILE PACKET          print what would become of PACKET if FILE were
                               applied, by which line, and what else was looked
                               at before
  apply FILE                   enforce these networks and no others of this user
  remove                       enforce none of this user's networks
  vlan create NAME TAG PARENT  make a VLAN interface on the interface PARENT,
                               and print what it is called
  vlan delete NAME             remove the VLAN interface of that printed name
  link install, link remove    the command-line tool's links in /usr/local/bin
  resolver on, resolver off    the resolver files in /etc/resolver
  shutdown                     end the helper; the next request starts it again

  FILE holds a JSON array of networks, 64 MiB at most; "-" is standard input. It
  is sent as it is: the helper judges it. "preview" asks no helper, it shows by
  the helper's own rules what FILE would come to on this machine if no other
  user had networks.

  PACKET opens a connection and is written as in "tcp 192.168.64.2 ->
  10.1.2.3:443": tcp, udp, icmp or a protocol's number, where from, "->" or
  "to", where to. In a shell, "->" takes quotation marks. Only tcp and udp have
  ports. The port that it comes from may be left out; only the DHCP lines look
  at it.

OPTIONS
  --format text    results as text on standard output, problems on standard
                   error; this is the default
  --format json    one JSON object on standard output, whether the command
                   succeeds or fails; only a command line that can't be
                   understood is reported as text
  --user NAME      do everything as this user, reading FILE included; only root
                   may
  --help           print this

WHO MAY
  The helper admits this program, and anybody can run it. So that no program
  takes it for a proxy, every command that changes something (all but version,
  status, preview and explain) runs only for root, who may act for a user by
  --user. Which changes that user may make is for the helper to say.

JSON
  A member that a command has nothing to say for is left out; a command that
  succeeds without a result prints {}. docs/helperctl.schema.json has the forms
  of what is marked by formatVersion.

  error          every command: why it failed
  version        version
  report         status
  summary        apply, preview: what is enforced of this user's networks
  bsdName        vlan create: what the new interface is called
  ruleset        preview: the text for the packet filter
  explanation    explain: what becomes of the packet, and why
  formatVersion  explain: 1, until the form of that member changes
  refused        preview, status: networks that are not enforced, each with
                 networkID, name and problem
  skippedRules   preview, status: networks some of whose rules are left out,
                 each with networkID, name and rules; a rule has its number,
                 counted from 1, and problem
  droppedClaims  preview, status: for each network that is left out because
                 another one has its subnet, a sentence
  hint           status: what else there is to know

EXIT STATUS
  0  done
  1  refused or failed; for preview also: a network would be refused
  2  the command line can't be understood
  3  the helper can't be reached
  4  the helper doesn't admit this program, which has to be signed, or this user
     has too many connections to it

  The helper has 60 seconds to start and to admit this program, and 120 seconds
  for a reply. What got no reply may have been done or not; it can be repeated.

EXAMPLES
  tarnvale-helperctl preview lab.json
  tarnvale-helperctl explain lab.json "udp 192.168.64.2 -> 10.1.2.3:53"
  sudo tarnvale-helperctl apply lab.json
  sudo tarnvale-helperctl --user ada apply - <lab.json
  tarnvale-helperctl --format json status
)";

}  // namespace tarnvale::helperctl
