// SPDX-License-Identifier: MIT

#include "helperctl/commands/Completion.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <map>
#include <ostream>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "helperctl/Answer.h"
#include "helperctl/CommandForms.h"

namespace tarnvale::helperctl {
namespace {

// The three scripts work alike. They walk over the words before the one to complete and keep the
// words of the command, the number of operands behind it, and the option whose value comes next.
// Together these say what may come.

/// A word to choose, and what it does.
struct Choice {
    std::string word;
    std::string summary;
};

/// What may come in one place.
struct Content {
    WordKind kind = WordKind::command;
    std::vector<Choice> choices;
};

/// The command so far and how many operands it has, as in "diff 1"; " 0" begins a command line.
using Place = std::string;

Place placeOf(std::string_view command, std::size_t operands) {
    return std::string(command).append(" ").append(std::to_string(operands));
}

std::vector<Choice> choicesOf(const std::vector<std::string_view>& words) {
    std::vector<Choice> choices;
    std::ranges::transform(words, std::back_inserter(choices), [](std::string_view word) {
        return Choice{.word = std::string(word), .summary = {}};
    });
    return choices;
}

/// Adds the commands as they are named behind these words, such as "help".
void addCommands(std::map<Place, Content>& places, const std::string& before) {
    for (const auto& form : commandForms()) {
        if (form.words.empty()) {
            continue;
        }
        const auto space = form.words.find(' ');
        const std::string first(form.words.substr(0, space));
        auto& choices = places[placeOf(before, 0)].choices;
        if (space == std::string_view::npos) {
            choices.push_back({.word = first, .summary = std::string(form.summary)});
            continue;
        }
        const std::string second(form.words.substr(space + 1));
        if (const auto known = std::ranges::find(choices, first, &Choice::word);
            known == choices.end()) {
            choices.push_back({.word = first, .summary = second});
        } else {
            known->summary.append(", ").append(second);
        }
        auto group = before;
        group.append(before.empty() ? "" : " ").append(first);
        places[placeOf(group, 0)].choices.push_back(
            {.word = second, .summary = std::string(form.summary)});
    }
}

std::map<Place, Content> allPlaces() {
    std::map<Place, Content> places;
    addCommands(places, "");
    for (const auto& form : commandForms()) {
        std::size_t operands = 0;
        for (const auto& operand : form.operands) {
            if (operand.kind == WordKind::command) {
                addCommands(places, std::string(form.words));
            } else if (operand.kind != WordKind::text || !operand.words.empty()) {
                places[placeOf(form.words, operands)] = {
                    .kind = operand.kind, .choices = choicesOf(operand.words)};
            }
            ++operands;
        }
    }
    return places;
}

/// Each command with one word more, as in " status" and "vlan create".
std::vector<std::string> steps(const std::map<Place, Content>& places) {
    std::vector<std::string> steps;
    for (const auto& [place, content] : places) {
        if (content.kind != WordKind::command) {
            continue;
        }
        for (const auto& choice : content.choices) {
            steps.push_back(place.substr(0, place.rfind(' ') + 1) + choice.word);
        }
    }
    return steps;
}

/// The options of a command, as they are written, or those of all.
std::vector<Choice> optionChoices(std::span<const Option> options) {
    std::vector<Choice> choices;
    for (const auto& option : options) {
        for (const auto name : {option.name, option.shortName}) {
            if (!name.empty()) {
                choices.push_back(
                    {.word = std::string(name), .summary = std::string(option.summary)});
            }
        }
    }
    return choices;
}

constexpr std::string_view helpSummary = "print the help";
constexpr std::string_view versionSummary = "print the version of this program";

/// Every option that takes a value, once.
std::vector<Option> optionsWithValues() {
    std::map<std::string_view, Option> options;
    const auto add = [&](std::span<const Option> some) {
        for (const auto& option : some) {
            if (!option.value.empty()) {
                options.emplace(option.name, option);
            }
        }
    };
    add(commonOptions());
    for (const auto& form : commandForms()) {
        add(form.options);
    }
    std::vector<Option> all;
    std::ranges::transform(
        options, std::back_inserter(all), [](const auto& named) { return named.second; });
    return all;
}

/// The options that stand in place of a first operand.
std::set<std::string_view> optionsForOperands() {
    std::set<std::string_view> names;
    for (const auto& form : commandForms()) {
        for (const auto& operand : form.operands) {
            for (const auto& option : form.options) {
                const auto* const target = std::get_if<bool Arguments::*>(&option.target);
                if (target != nullptr && operand.absentWith == *target) {
                    names.insert(option.name);
                }
            }
        }
    }
    return names;
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
    std::string text;
    for (const auto& part : parts) {
        text.append(text.empty() ? "" : separator).append(part);
    }
    return text;
}

template <class Range, class Function>
std::string joinedAs(const Range& range, std::string_view separator, const Function& function) {
    std::vector<std::string> parts;
    std::ranges::transform(range, std::back_inserter(parts), function);
    return joined(parts, separator);
}

/// The text in single quotes, in which the shell takes `escapedQuote` for one.
std::string inQuotes(std::string_view text, std::string_view escapedQuote = R"('\'')") {
    std::string quoted = "'";
    for (const char c : text) {
        quoted.append(c == '\'' ? escapedQuote : std::string_view(&c, 1));
    }
    return quoted + "'";
}

std::string quotedForFish(std::string_view text) {
    return inQuotes(text, R"(\')");
}

std::string quotedWord(const std::string& word) {
    return inQuotes(word);
}

std::string words(const std::vector<Choice>& choices) {
    return joinedAs(choices, " ", &Choice::word);
}

/// The text with a line feed, which the shell ignores, behind a separator wherever a line gets
/// long.
std::string filled(std::string_view text, std::string_view separator, std::size_t indent) {
    constexpr std::size_t maxWidth = 100;
    std::string lines;
    std::size_t width = indent;
    while (!text.empty()) {
        const auto end = std::min(text.find(separator), text.size());
        if (width + end + separator.size() > maxWidth) {
            lines.append("\\\n").append(indent, ' ');
            width = indent;
        }
        const auto piece = text.substr(0, std::min(end + separator.size(), text.size()));
        lines.append(piece);
        width += piece.size();
        text.remove_prefix(piece.size());
    }
    return lines;
}

/// The walk over the words, which bash and zsh read alike; `each` begins the loop.
std::string walk(const std::map<Place, Content>& places, std::string_view each) {
    const auto names = [](const auto& options) {
        return joinedAs(options, " | ", [](const auto& option) { return std::string(option); });
    };
    std::vector<std::string_view> valued;
    for (const auto& option : optionsWithValues()) {
        valued.push_back(option.name);
    }
    std::string text = "    ";
    return text.append(each)
        .append(R"(
        if [[ -n $expects ]]; then
            [[ $word == '=' ]] || expects=
        elif [[ -z $only_operands && $word == -?* ]]; then
            case $word in
                --) only_operands=yes ;;
                )")
        .append(names(valued))
        .append(R"() expects=$word ;;
                )")
        .append(names(optionsForOperands()))
        .append(R"() operands=$((operands + 1)) ;;
            esac
        else
            case "$command $word" in
                )")
        .append(filled(joinedAs(steps(places), " | ", quotedWord), " | ", 20))
        .append(R"()
                    command=${command:+$command }$word ;;
                *) operands=$((operands + 1)) ;;
            esac
        fi
    done
)");
}

/// One line of a `case` for each place, or for all places where the same may come.
std::string placeCases(
    const std::map<Place, Content>& places,
    const std::function<std::string(const Content&)>& answer) {
    std::map<std::string, std::vector<std::string>> placesOf;
    for (const auto& [place, content] : places) {
        placesOf[answer(content)].push_back(inQuotes(place));
    }
    std::string cases;
    for (const auto& [text, alike] : placesOf) {
        cases.append("            ")
            .append(joined(alike, " | "))
            .append(") ")
            .append(text)
            .append(" ;;\n");
    }
    return cases;
}

std::string optionCases(const std::function<std::string(const std::vector<Choice>&)>& answer) {
    std::string cases = "            '') " +
                        answer({{.word = "--version", .summary = std::string(versionSummary)}}) +
                        " ;;\n";
    for (const auto& form : commandForms()) {
        if (!form.options.empty()) {
            cases.append("            ")
                .append(inQuotes(form.words))
                .append(") ")
                .append(answer(optionChoices(form.options)))
                .append(" ;;\n");
        }
    }
    return cases;
}

std::string valueCases(
    const std::function<std::string(WordKind, const std::vector<Choice>&)>& answer) {
    std::string cases;
    for (const auto& option : optionsWithValues()) {
        if (option.kind != WordKind::text || !option.words.empty()) {
            cases.append("            ")
                .append(option.name)
                .append(") ")
                .append(answer(option.kind, choicesOf(option.words)))
                .append(" ;;\n");
        }
    }
    return cases;
}

std::vector<Choice> optionsOfAll() {
    auto choices = optionChoices(commonOptions());
    choices.push_back({.word = "--help", .summary = std::string(helpSummary)});
    return choices;
}

std::string bashScript() {
    const auto places = allPlaces();
    const auto content = [](WordKind kind, const std::vector<Choice>& choices) -> std::string {
        switch (kind) {
            case WordKind::file:
                return "wanted=(-f)";
            case WordKind::user:
                return "wanted=(-u)";
            case WordKind::interface:
                // compgen expands the list itself, once. Whatever the script expanded would be
                // shell text to compgen, and an interface's name would be run.
                return R"script(wanted=(-W '$(ls /sys/class/net 2>/dev/null || ifconfig -l)'))script";
            default:
                return "wanted=(-W " + inQuotes(words(choices)) + ")";
        }
    };
    std::string script =
        R"(# Completes command lines of tarnvale-helperctl in bash; "tarnvale-helperctl completion bash" prints this.

_tarnvale_helperctl() {
    local current=${COMP_WORDS[COMP_CWORD]} command='' operands=0 expects='' only_operands=''
    local options word i quoted=yes
    local -a wanted=()
)";
    script
        .append(
            walk(places, "for ((i = 1; i < COMP_CWORD; ++i)); do\n        word=${COMP_WORDS[i]}"))
        .append(R"(    [[ $current != '=' ]] || current=''
    if [[ -n $expects ]]; then
        case $expects in
)")
        .append(valueCases(content))
        .append(R"(        esac
    elif [[ -z $only_operands && $current == -* ]]; then
        options=)")
        .append(inQuotes(words(optionsOfAll())))
        .append(R"(
        case $command in
)")
        .append(optionCases([](const std::vector<Choice>& choices) {
            return "options+=" + inQuotes(" " + words(choices));
        }))
        .append(R"(        esac
        wanted=(-W "$options")
    else
        case "$command $operands" in
)")
        .append(placeCases(
            places, [&](const Content& place) { return content(place.kind, place.choices); }))
        .append(R"(        esac
    fi

    COMPREPLY=()
    ((${#wanted[@]} > 0)) || return
    # readline quotes file names only, and only where compopt, which macOS's bash lacks, says so.
    [[ ${wanted[0]} == -f ]] && compopt -o filenames 2>/dev/null && quoted=''
    while IFS='' read -r word; do
        [[ -z $quoted ]] || printf -v word %q "$word"
        COMPREPLY+=("$word")
    done < <(compgen "${wanted[@]}" -- "$current")
}
complete -F _tarnvale_helperctl tarnvale-helperctl
)");
    return script;
}

std::string zshScript() {
    const auto places = allPlaces();
    const auto described = [](const std::vector<Choice>& choices) {
        return "(" +
               joinedAs(
                   choices,
                   " ",
                   [](const Choice& choice) {
                       return inQuotes(
                           choice.word + (choice.summary.empty() ? "" : ":" + choice.summary));
                   }) +
               ")";
    };
    const auto content = [&](WordKind kind, const std::vector<Choice>& choices) -> std::string {
        switch (kind) {
            case WordKind::file:
                return "_files && return";
            case WordKind::user:
                return "_users && return";
            case WordKind::interface:
                return R"script(choices=(${=$(ls /sys/class/net 2>/dev/null || ifconfig -l)}))script";
            default:
                return "choices=" + described(choices);
        }
    };
    std::string script =
        R"(#compdef tarnvale-helperctl
# Completes command lines of tarnvale-helperctl in zsh; "tarnvale-helperctl completion zsh" prints this.

_tarnvale-helperctl() {
    local command='' expects='' only_operands='' word
    local -i operands=0
    local -a choices
)";
    script.append(walk(places, "for word in \"${(@Q)words[2,CURRENT-1]}\"; do"))
        .append(R"(    if [[ -z $expects$only_operands && $PREFIX == --*=* ]]; then
        expects=${PREFIX%%=*}
        compset -P '*='
    fi
    if [[ -n $expects ]]; then
        case $expects in
)")
        .append(valueCases(content))
        .append(R"(        esac
    elif [[ -z $only_operands && $PREFIX == -* ]]; then
        choices=)")
        .append(described(optionsOfAll()))
        .append(R"(
        case $command in
)")
        .append(optionCases(
            [&](const std::vector<Choice>& choices) { return "choices+=" + described(choices); }))
        .append(R"(        esac
        _describe -o option choices
        return
    else
        case "$command $operands" in
)")
        .append(placeCases(
            places, [&](const Content& place) { return content(place.kind, place.choices); }))
        .append(R"(        esac
    fi
    _describe argument choices
}

# The completion system calls what it has loaded from a file; a shell that reads this only learns of it.
if [[ ${funcstack[1]} == _tarnvale-helperctl ]]; then
    _tarnvale-helperctl "$@"
else
    compdef _tarnvale-helperctl tarnvale-helperctl
fi
)");
    return script;
}

/// What `complete` takes to offer this.
std::string fishContent(WordKind kind, const std::vector<Choice>& choices) {
    return kind == WordKind::file   ? " -r -F"
           : kind == WordKind::user ? " -x -a '(__fish_complete_users)'"
           : choices.empty()        ? " -x"
                                    : " -x -a " + quotedForFish(words(choices));
}

std::string fishOption(const Option& option, const std::string& condition) {
    auto line = "complete -c tarnvale-helperctl" + condition;
    line.append(option.shortName.empty() ? "" : " -s ")
        .append(option.shortName.substr(option.shortName.empty() ? 0 : 1))
        .append(" -l ")
        .append(option.name.substr(2))
        .append(option.value.empty() ? "" : fishContent(option.kind, choicesOf(option.words)));
    return line.append(" -d ").append(quotedForFish(option.summary)).append("\n");
}

/// The lines that offer what may come in each place.
std::string fishOffers(const std::map<Place, Content>& places) {
    // Where the same may come, as behind "help" and without it, one line says so.
    std::map<std::string, std::string> placesOf;
    for (const auto& [place, content] : places) {
        if (content.kind == WordKind::interface) {
            placesOf[" -a '(__fish_print_interfaces)'"].append(" \"").append(place).append("\"");
        }
        if (content.kind == WordKind::file) {
            placesOf[" -F"].append(" \"").append(place).append("\"");
        }
        for (const auto& [word, summary] : content.choices) {
            auto offer = " -a " + word;
            offer.append(summary.empty() ? "" : " -d " + quotedForFish(summary));
            placesOf[offer].append(" \"").append(place).append("\"");
        }
    }
    std::string lines;
    for (const auto& [offer, alike] : placesOf) {
        lines.append("complete -c tarnvale-helperctl -n '__tarnvale_helperctl_at")
            .append(alike)
            .append("'")
            .append(offer)
            .append("\n");
    }
    return lines;
}

std::string fishScript() {
    const auto places = allPlaces();
    std::string script =
        R"(# Completes command lines of tarnvale-helperctl in fish; "tarnvale-helperctl completion fish" prints this.

# Prints the words of the command so far, and how many operands follow them.
function __tarnvale_helperctl_place
    set -l command ''
    set -l operands 0
    set -l expects ''
    set -l only_operands ''
    for word in (commandline --tokenize --cut-at-cursor --current-process)[2..]
        if test -n "$expects"
            set expects ''
            continue
        end
        if test -z "$only_operands"
            switch $word
                case --
                    set only_operands yes
                    continue
                case )";
    script
        .append(joinedAs(
            optionsWithValues(),
            " ",
            [](const Option& option) { return std::string(option.name); }))
        .append(R"(
                    set expects yes
                    continue
                case )")
        .append(joinedAs(
            optionsForOperands(), " ", [](std::string_view name) { return std::string(name); }))
        .append(R"(
                    set operands (math $operands + 1)
                    continue
                case '-*'
                    test "$word" = -; or continue
            end
        end
        switch "$command $word"
            case )")
        .append(filled(joinedAs(steps(places), "  ", quotedForFish), "  ", 16))
        .append(R"(
                set command (string trim -- "$command $word")
            case '*'
                set operands (math $operands + 1)
        end
    end
    echo "$command $operands"
end

# Whether this is one of these places.
function __tarnvale_helperctl_at
    contains -- (__tarnvale_helperctl_place) $argv
end

# Whether this is the command.
function __tarnvale_helperctl_in
    string match --quiet --regex -- "^$argv \d+\$" (__tarnvale_helperctl_place)
end

complete -c tarnvale-helperctl -f
)");
    for (const auto& option : commonOptions()) {
        script += fishOption(option, "");
    }
    script.append("complete -c tarnvale-helperctl -s h -l help -d ")
        .append(quotedForFish(helpSummary))
        .append("\ncomplete -c tarnvale-helperctl -n '__tarnvale_helperctl_in \"\"' -l version -d ")
        .append(quotedForFish(versionSummary))
        .append("\n");
    for (const auto& form : commandForms()) {
        for (const auto& option : form.options) {
            script += fishOption(
                option, " -n '__tarnvale_helperctl_in \"" + std::string(form.words) + "\"'");
        }
    }
    return script + fishOffers(places);
}

std::string scriptFor(Shell shell) {
    switch (shell) {
        case Shell::zsh:
            return zshScript();
        case Shell::fish:
            return fishScript();
        case Shell::bash:
            break;
    }
    return bashScript();
}

}  // namespace

int completion(const Session& session) {
    session.console.output << scriptFor(session.arguments.shell);
    return done;
}

}  // namespace tarnvale::helperctl
