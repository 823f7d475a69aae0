// SPDX-License-Identifier: MIT

#include "helperctl/CommandForms.h"

#include <algorithm>
#include <numeric>

#include "helperctl/Help.h"
#include "helperctl/commands/Apply.h"
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
        {.command = Command::version, .words = "version", .help = versionHelp},
        {.command = Command::status,
         .words = "status",
         .options = {{.name = "--watch", .value = {}, .target = &Arguments::watch}},
         .run = status,
         .help = statusHelp},
        {.command = Command::doctor, .words = "doctor", .run = doctor, .help = doctorHelp},
        {.command = Command::report,
         .words = "report",
         .operands = {{.name = "FILE", .target = &Arguments::file}},
         .options = {{.name = "--redact", .value = {}, .target = &Arguments::redact}},
         .access = Access::rootToRead,
         .run = report,
         .help = reportHelp},
        {.command = Command::log,
         .words = "log",
         .options =
             {{.name = "--follow", .value = {}, .target = &Arguments::follow, .shortName = "-f"},
              {.name = "--since", .value = "TIME", .target = &Arguments::since},
              {.name = "--operation", .value = "NAME", .target = &Arguments::operation}},
         .run = log,
         .help = logHelp},
        {.command = Command::validate,
         .words = "validate",
         .operands = {{.name = "FILE", .target = &Arguments::file}},
         .run = validate,
         .help = validateHelp},
        {.command = Command::lint,
         .words = "lint",
         .operands = {{.name = "FILE", .target = &Arguments::file}},
         .run = lint,
         .help = lintHelp},
        {.command = Command::matrix,
         .words = "matrix",
         .operands = {{.name = "FILE", .target = &Arguments::file, .absentWith = &Arguments::live}},
         .options =
             {{.name = "--live", .value = {}, .target = &Arguments::live},
              {.name = "--svg", .value = "PICTURE", .target = &Arguments::svg}},
         .run = matrix,
         .help = matrixHelp},
        {.command = Command::diff,
         .words = "diff",
         .operands =
             {{.name = "FILE", .target = &Arguments::file},
              {.name = "OTHER", .target = &Arguments::otherFile, .isOptional = true}},
         .run = diff,
         .help = diffHelp},
        {.command = Command::preview,
         .words = "preview",
         .operands = {{.name = "FILE", .target = &Arguments::file}},
         .help = previewHelp},
        {.command = Command::explain,
         .words = "explain",
         .operands =
             {{.name = "FILE", .target = &Arguments::file, .absentWith = &Arguments::live},
              {.name = "PACKET", .target = &Arguments::packet, .takesRest = true}},
         .options = {{.name = "--live", .value = {}, .target = &Arguments::live}},
         .help = explainHelp},
        {.command = Command::init, .words = "init", .run = init, .help = initHelp},
        {.command = Command::exportNetworks,
         .words = "export",
         .access = Access::rootToRead,
         .asksAboutUser = true,
         .run = exportNetworks,
         .help = exportHelp},
        {.command = Command::schema, .words = "schema", .run = schema, .help = schemaHelp},
        {.command = Command::apply,
         .words = "apply",
         .operands = {{.name = "FILE", .target = &Arguments::file}},
         .options =
             {{.name = "--strict", .value = {}, .target = &Arguments::strict},
              {.name = "--confirm", .value = "SECONDS", .target = &Arguments::confirmSeconds}},
         .access = Access::rootToChange,
         .run = applyFile,
         .help = applyHelp},
        {.command = Command::remove,
         .words = "remove",
         .access = Access::rootToChange,
         .help = removeHelp},
        {.command = Command::createVLAN,
         .words = "vlan create",
         .operands =
             {{.name = "NAME", .target = &Arguments::name},
              {.name = "TAG", .target = &Arguments::tag},
              {.name = "PARENT", .target = &Arguments::parentBSD}},
         .access = Access::rootToChange,
         .help = createVLANHelp},
        {.command = Command::deleteVLAN,
         .words = "vlan delete",
         .operands = {{.name = "NAME", .target = &Arguments::bsdName}},
         .access = Access::rootToChange,
         .help = deleteVLANHelp},
        {.command = Command::installLink,
         .words = "link install",
         .access = Access::rootToChange,
         .help = installLinkHelp},
        {.command = Command::removeLink,
         .words = "link remove",
         .access = Access::rootToChange,
         .help = removeLinkHelp},
        {.command = Command::resolverOn,
         .words = "resolver on",
         .access = Access::rootToChange,
         .help = resolverOnHelp},
        {.command = Command::resolverOff,
         .words = "resolver off",
         .access = Access::rootToChange,
         .help = resolverOffHelp},
        {.command = Command::shutdown,
         .words = "shutdown",
         .access = Access::rootToChange,
         .help = shutdownHelp},
        {.command = Command::help,
         .words = "help",
         .operands =
             {{.name = "COMMAND", .target = &Arguments::topic, .isOptional = true},
              {.name = "WORD", .target = &Arguments::subtopic, .isOptional = true}},
         .help = helpHelp},
        {.command = Command::toolVersion, .words = "", .run = toolVersion, .help = {}},
    };
    return forms;
}

const CommandForm& formOf(Command command) {
    return *std::ranges::find(commandForms(), command, &CommandForm::command);
}

std::string synopsis(const CommandForm& form) {
    std::string line(form.words);
    for (const auto& [name, value, target, shortName] : form.options) {
        line.append(" [").append(shortName.empty() ? name : shortName);
        line.append(value.empty() ? "" : " ").append(value).append("]");
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
