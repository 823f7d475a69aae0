// SPDX-License-Identifier: MIT

#include "helperctl/CommandForms.h"

#include <algorithm>
#include <numeric>

#include "helperctl/Help.h"
#include "helperctl/LogEntries.h"
#include "helperctl/commands/Apply.h"
#include "helperctl/commands/Completion.h"
#include "helperctl/commands/Diff.h"
#include "helperctl/commands/Doctor.h"
#include "helperctl/commands/Export.h"
#include "helperctl/commands/Init.h"
#include "helperctl/commands/Lint.h"
#include "helperctl/commands/Log.h"
#include "helperctl/commands/Matrix.h"
#include "helperctl/commands/Report.h"
#include "helperctl/commands/Schema.h"
#include "helperctl/commands/ToolVersion.h"
#include "helperctl/commands/Validate.h"
#include "helperctl/commands/Watch.h"

namespace tarnvale::helperctl {
namespace {

/// How many changes make one word of the other: a letter put in, taken out or replaced, or two
/// neighbours exchanged.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> beforeLast;
    std::vector<std::size_t> last(b.size() + 1);
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::vector<std::size_t> row(b.size() + 1);
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = a[i - 1] == b[j - 1] ? 0 : 1;
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + replaced});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
            }
        }
        beforeLast = std::move(last);
        last = std::move(row);
    }
    return last.back();
}

}  // namespace

// NOLINTNEXTLINE(readability-function-size): it is one table
std::span<const CommandForm> commandForms() {
    static const auto& forms = *new std::vector<CommandForm>{
        {.command = Command::version,
         .words = "version",
         .summary = "print the version of the helper that runs",
         .help = versionHelp},
        {.command = Command::status,
         .words = "status",
         .summary = "print what the packet filter enforces and has counted",
         .options =
             {{.name = "--watch",
               .value = {},
               .target = &Arguments::watch,
               .summary = "print it once a second"}},
         .run = status,
         .help = statusHelp},
        {.command = Command::doctor,
         .words = "doctor",
         .summary = "look for what keeps the helper from doing its work",
         .run = doctor,
         .help = doctorHelp},
        {.command = Command::report,
         .words = "report",
         .summary = "write an archive for support",
         .operands = {{.name = "FILE", .target = &Arguments::file, .kind = WordKind::file}},
         .options =
             {{.name = "--redact",
               .value = {},
               .target = &Arguments::redact,
               .summary = "leave out the networks' names"}},
         .access = Access::rootToRead,
         .run = report,
         .help = reportHelp},
        {.command = Command::log,
         .words = "log",
         .summary = "print the helper's log",
         .options =
             {{.name = "--follow",
               .value = {},
               .target = &Arguments::follow,
               .summary = "also print what is logged from now on",
               .shortName = "-f"},
              {.name = "--since",
               .value = "TIME",
               .target = &Arguments::since,
               .summary = "only from this time on"},
              {.name = "--operation",
               .value = "NAME",
               .target = &Arguments::operation,
               .summary = "only what may be about this request or event",
               .words = logOperations()}},
         .run = log,
         .help = logHelp},
        {.command = Command::validate,
         .words = "validate",
         .summary = "print everything that is wrong with FILE",
         .operands = {{.name = "FILE", .target = &Arguments::file, .kind = WordKind::file}},
         .run = validate,
         .help = validateHelp},
        {.command = Command::lint,
         .words = "lint",
         .summary = "print what in FILE doesn't do what it seems to",
         .operands = {{.name = "FILE", .target = &Arguments::file, .kind = WordKind::file}},
         .run = lint,
         .help = lintHelp},
        {.command = Command::matrix,
         .words = "matrix",
         .summary = "print who reaches whom once FILE is applied",
         .operands =
             {{.name = "FILE",
               .target = &Arguments::file,
               .kind = WordKind::file,
               .absentWith = &Arguments::live}},
         .options =
             {{.name = "--live",
               .value = {},
               .target = &Arguments::live,
               .summary = "the rules in force in place of a file"},
              {.name = "--svg",
               .value = "PICTURE",
               .target = &Arguments::svg,
               .summary = "write it as a picture into this file",
               .kind = WordKind::file}},
         .run = matrix,
         .help = matrixHelp},
        {.command = Command::diff,
         .words = "diff",
         .summary = "print what changes from FILE to OTHER",
         .operands =
             {{.name = "FILE", .target = &Arguments::file, .kind = WordKind::file},
              {.name = "OTHER",
               .target = &Arguments::otherFile,
               .kind = WordKind::file,
               .isOptional = true}},
         .run = diff,
         .help = diffHelp},
        {.command = Command::preview,
         .words = "preview",
         .summary = "print what applying FILE would result in",
         .operands = {{.name = "FILE", .target = &Arguments::file, .kind = WordKind::file}},
         .help = previewHelp},
        {.command = Command::explain,
         .words = "explain",
         .summary = "print what would become of PACKET",
         .operands =
             {{.name = "FILE",
               .target = &Arguments::file,
               .kind = WordKind::file,
               .absentWith = &Arguments::live},
              {.name = "PACKET", .target = &Arguments::packet, .takesRest = true}},
         .options =
             {{.name = "--live",
               .value = {},
               .target = &Arguments::live,
               .summary = "the rules in force in place of a file"}},
         .help = explainHelp},
        {.command = Command::init,
         .words = "init",
         .summary = "print a file to start from",
         .run = init,
         .help = initHelp},
        {.command = Command::exportNetworks,
         .words = "export",
         .summary = "print root's stored networks as a FILE",
         .access = Access::rootToRead,
         .asksAboutUser = true,
         .run = exportNetworks,
         .help = exportHelp},
        {.command = Command::schema,
         .words = "schema",
         .summary = "print the JSON Schema of FILE",
         .run = schema,
         .help = schemaHelp},
        {.command = Command::completion,
         .words = "completion",
         .summary = "print what completes this program's command lines",
         .operands =
             {{.name = "SHELL", .target = &Arguments::shell, .words = {"bash", "zsh", "fish"}}},
         .run = completion,
         .help = completionHelp},
        {.command = Command::apply,
         .words = "apply",
         .summary = "enforce these networks and no others of this user",
         .operands = {{.name = "FILE", .target = &Arguments::file, .kind = WordKind::file}},
         .options =
             {{.name = "--strict",
               .value = {},
               .target = &Arguments::strict,
               .summary = "change nothing unless all of it would be enforced"},
              {.name = "--confirm",
               .value = "SECONDS",
               .target = &Arguments::confirmSeconds,
               .summary = "put back what was before unless confirmed in time"}},
         .access = Access::rootToChange,
         .run = applyFile,
         .help = applyHelp},
        {.command = Command::remove,
         .words = "remove",
         .summary = "enforce none of this user's networks",
         .access = Access::rootToChange,
         .help = removeHelp},
        {.command = Command::createVLAN,
         .words = "vlan create",
         .summary = "make a VLAN interface",
         .operands =
             {{.name = "NAME", .target = &Arguments::name},
              {.name = "TAG", .target = &Arguments::tag},
              {.name = "PARENT", .target = &Arguments::parentBSD, .kind = WordKind::interface}},
         .access = Access::rootToChange,
         .help = createVLANHelp},
        {.command = Command::deleteVLAN,
         .words = "vlan delete",
         .summary = "remove the VLAN interface",
         .operands = {{.name = "NAME", .target = &Arguments::bsdName, .kind = WordKind::interface}},
         .access = Access::rootToChange,
         .help = deleteVLANHelp},
        {.command = Command::installLink,
         .words = "link install",
         .summary = "make the command-line tool's links in /usr/local/bin",
         .access = Access::rootToChange,
         .help = installLinkHelp},
        {.command = Command::removeLink,
         .words = "link remove",
         .summary = "remove the command-line tool's links in /usr/local/bin",
         .access = Access::rootToChange,
         .help = removeLinkHelp},
        {.command = Command::resolverOn,
         .words = "resolver on",
         .summary = "install the resolver files in /etc/resolver",
         .access = Access::rootToChange,
         .help = resolverOnHelp},
        {.command = Command::resolverOff,
         .words = "resolver off",
         .summary = "remove the resolver files in /etc/resolver",
         .access = Access::rootToChange,
         .help = resolverOffHelp},
        {.command = Command::shutdown,
         .words = "shutdown",
         .summary = "end the helper",
         .access = Access::rootToChange,
         .help = shutdownHelp},
        {.command = Command::help,
         .words = "help",
         .summary = "print how to use a command",
         .operands =
             {{.name = "COMMAND",
               .target = &Arguments::topic,
               .kind = WordKind::command,
               .isOptional = true},
              {.name = "WORD", .target = &Arguments::subtopic, .isOptional = true}},
         .help = helpHelp},
        {.command = Command::toolVersion, .words = "", .run = toolVersion, .help = {}},
    };
    return forms;
}

const CommandForm& formOf(Command command) {
    return *std::ranges::find(commandForms(), command, &CommandForm::command);
}

std::span<const Option> commonOptions() {
    static const auto& options = *new std::vector<Option>{
        {.name = "--user",
         .value = "NAME",
         .target = &Arguments::user,
         .summary = "do everything as this user",
         .kind = WordKind::user},
        {.name = "--format",
         .value = "FORMAT",
         .target = &Arguments::format,
         .summary = "how results are printed",
         .words = {"text", "json"}}};
    return options;
}

std::string synopsis(const CommandForm& form) {
    std::string line(form.words);
    for (const auto& option : form.options) {
        line.append(" [").append(option.shortName.empty() ? option.name : option.shortName);
        line.append(option.value.empty() ? "" : " ").append(option.value).append("]");
    }
    for (const auto& operand : form.operands) {
        line.append(operand.isOptional ? " [" : " ").append(operand.name);
        line.append(operand.isOptional ? "]" : "");
    }
    return line;
}

std::optional<std::string_view> nearestWord(
    std::string_view mistyped, std::span<const std::string_view> words) {
    std::optional<std::string_view> nearest;
    // One letter in three may be wrong: "stauts" means "status", but "destroy" isn't "doctor".
    std::size_t smallest = mistyped.size() / 3 + 1;
    for (const auto word : words) {
        const auto changes = distance(mistyped, word);
        if (changes < smallest) {
            smallest = changes;
            nearest = word;
        }
    }
    return nearest;
}

}  // namespace tarnvale::helperctl
