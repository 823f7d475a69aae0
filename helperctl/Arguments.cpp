// SPDX-License-Identifier: MIT

#include "helperctl/Arguments.h"

#include <vector>

#include <CLI/CLI.hpp>

#include "helperctl/Answer.h"
#include "helperctl/Help.h"
#include "support/Decimal.h"

namespace tarnvale::helperctl {
namespace {

/// The parser, which fills `arguments`.
class Parser {
public:
    explicit Parser(Arguments& arguments) : arguments_(arguments) {
        // The program and each of its commands print the same page of help.
        app_.formatter_fn([](const CLI::App* /*app*/, const std::string& /*name*/, auto /*mode*/) {
            return std::string(helpText);
        });
        app_.require_subcommand(0, 1);
        app_.fallthrough();
        app_.add_option_function<std::string>(
            "--format", [this](const auto& word) { readFormat(word); });
        app_.add_option("--user", arguments_.user)->type_name("NAME");
        addCommands();
    }

    void parse(int argc, const char* const* argv) {
        app_.parse(argc, argv);
        if (!hasCommand_) {
            throw CLI::ParseError("A command is required", usageError);
        }
    }

private:
    CLI::App& add(CLI::App& parent, const char* name, Command command) {
        auto* const added = parent.add_subcommand(name);
        added->callback([this, command] {
            arguments_.command = command;
            hasCommand_ = true;
        });
        return *added;
    }

    static CLI::App& addGroup(CLI::App& parent, const char* name) {
        return *parent.add_subcommand(name)->require_subcommand(0, 1);
    }

    void addCommands() {
        add(app_, "version", Command::version);
        add(app_, "status", Command::status);
        for (auto* const command :
             {&add(app_, "preview", Command::preview), &add(app_, "apply", Command::apply)}) {
            command->add_option("FILE", arguments_.file)->required();
        }
        add(app_, "remove", Command::remove);
        addExplain();

        auto& vlan = addGroup(app_, "vlan");
        auto& create = add(vlan, "create", Command::createVLAN);
        create.add_option("NAME", arguments_.name)->required();
        create.add_option_function<std::string>("TAG", [this](const auto& text) { readTag(text); })
            ->required();
        create.add_option("PARENT", arguments_.parentBSD)->required();
        add(vlan, "delete", Command::deleteVLAN).add_option("NAME", arguments_.bsdName)->required();

        auto& link = addGroup(app_, "link");
        add(link, "install", Command::installLink);
        add(link, "remove", Command::removeLink);

        auto& resolver = addGroup(app_, "resolver");
        add(resolver, "on", Command::resolverOn);
        add(resolver, "off", Command::resolverOff);

        add(app_, "shutdown", Command::shutdown);
    }

    void addExplain() {
        auto& explain = add(app_, "explain", Command::explain);
        explain.add_option("FILE", arguments_.file)->required();
        explain
            .add_option_function<std::vector<std::string>>(
                "PACKET",
                [this](const auto& words) {
                    for (const auto& word : words) {
                        arguments_.packet += (arguments_.packet.empty() ? "" : " ") + word;
                    }
                })
            ->required();
    }

    void readFormat(const std::string& word) {
        if (word != "text" && word != "json") {
            throw CLI::ValidationError("--format", "it is text or json");
        }
        arguments_.format = word == "json" ? Format::json : Format::text;
    }

    /// Takes any number: the helper decides which tags are valid.
    void readTag(const std::string& text) {
        const auto tag = support::parseDecimal(text);
        if (!tag) {
            throw CLI::ValidationError("TAG", "\"" + text + "\" is no number");
        }
        arguments_.tag = *tag;
    }

    Arguments& arguments_;
    bool hasCommand_ = false;
    CLI::App app_;
};

}  // namespace

std::variant<Arguments, EarlyExit> parseArguments(int argc, const char* const* argv) {
    Arguments arguments;
    Parser parser(arguments);
    try {
        parser.parse(argc, argv);
        return arguments;
    } catch (const CLI::CallForHelp&) {
        return EarlyExit{.status = done, .output = std::string(helpText), .error = {}};
    } catch (const CLI::ParseError& error) {
        return EarlyExit{
            .status = usageError,
            .output = {},
            .error = std::string("tarnvale-helperctl: ") + error.what() +
                     "\nRun tarnvale-helperctl --help for more.\n"};
    }
}

}  // namespace tarnvale::helperctl
