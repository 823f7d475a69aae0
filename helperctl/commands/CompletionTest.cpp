// SPDX-License-Identifier: MIT
//
// The three shells complete command lines by the scripts that `completion` prints.

#include "helperctl/commands/Completion.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helperctl/Answer.h"
#include "helperctl/CommandForms.h"
#include "support/Text.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::helperctl {
namespace {

using testing::Each;
using testing::IsSupersetOf;
using testing::UnorderedElementsAreArray;
using Words = std::vector<std::string>;

std::string scriptFor(Shell shell) {
    Arguments arguments;
    arguments.shell = shell;
    std::ostringstream output;
    Console console{.output = output, .errors = output};
    const Connect connect;
    EXPECT_EQ(completion({arguments, connect, console}), done);
    return output.str();
}

/// Reads command lines, and prints what may complete each and then "##".
constexpr std::string_view bashDriver = R"(
source /tmp/completing/script
ls() {
    command ls "$@"
    cat /tmp/completing/more-interfaces
}
compopt() {
    true  # the true one works only where a key has asked
}
while IFS= read -r line; do
    read -ra COMP_WORDS <<<"${line//=/ = }"  # as readline splits it
    [[ $line != *' ' ]] || COMP_WORDS+=('')
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _tarnvale_helperctl
    [ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}"
    echo "##"
done
)";

constexpr std::string_view fishDriver = R"(
source /tmp/completing/script
functions --copy __fish_print_interfaces true_interfaces
function __fish_print_interfaces
    true_interfaces
    cat /tmp/completing/more-interfaces
end
while read -l line
    complete -C "$line" | string replace -r '\t.*' ''
    echo "##"
end
)";

/// What completes in zsh does so only at a terminal: its own, which runs another zsh. A function in
/// place of compadd prints what would be offered.
constexpr std::string_view zshDriver = R"(
zmodload zsh/zpty || exit 77
zpty inner TERM=dumb zsh -f -i || exit 77
zpty -w inner 'PROMPT= PROMPT2= RPROMPT= fpath=(/tmp/completing/functions $fpath)
source /tmp/completing/inner'
zpty -r inner ready $'*READY\r\n*' || exit 77
while IFS= read -r line; do
    zpty -n -w inner "$line"$'\t'
    zpty -r inner text $'*\1*\2' || exit 1
    text=${text#*$'\1'}
    print -rn -- ${text%$'\2'} | tr -d '\r'
    echo "##"
done
zpty -d inner
)";

constexpr std::string_view zshInner = R"(
unset zle_bracketed_paste
autoload -Uz compinit
compinit -u -d /tmp/completing/dump
zle -C offered complete-word offer
offer() {
    _main_complete
    compstate[insert]= compstate[list]=
}
# Forgets the line itself: what is typed now may meet a terminal that edits lines of its own.
answer() {
    print -n $'\1'
    zle offered
    print -n $'\2'
    BUFFER=
    zle -I
}
zle -N answer
bindkey '^I' answer
zstyle ':completion:*' completer _complete
compadd() {
    if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then
        builtin compadd "$@"
        return
    fi
    local -a offered
    builtin compadd -A offered "$@"
    ((${#offered} == 0)) || print -rl -- "${(@Q)offered}"
    builtin compadd "$@"
}
ls() {
    command ls "$@"
    cat /tmp/completing/more-interfaces
}
print READY
)";

struct ShellCase {
    const char* name;
    Shell shell;
    std::string_view driver;

    friend std::ostream& operator<<(std::ostream& out, const ShellCase& each) {
        return out << each.name;
    }
};

class CompletionTest : public testing::TestWithParam<ShellCase> {
protected:
    void SetUp() override {
        if (!test::exists(program())) {
            GTEST_SKIP() << GetParam().name << " is not installed";
        }
        if (GetParam().shell == Shell::zsh &&
            test::run({program(), "-fc", "zmodload zsh/zpty && zpty terminal true"}).status != 0) {
            GTEST_SKIP() << "zsh gets no terminal here";
        }
        const auto script = scriptFor(GetParam().shell);
        test::put("/tmp/completing/script", script);
        test::put("/tmp/completing/functions/_tarnvale-helperctl", script);
        test::put("/tmp/completing/driver", GetParam().driver);
        test::put("/tmp/completing/inner", zshInner);
        test::put("/tmp/completing/more-interfaces", "");
        test::put("/tmp/completing/files/lab.json", "[]");
        test::put("/tmp/completing/files/lab two.json", "[]");
        test::put("/tmp/completing/files/other", "");
    }

    static std::string program() {
        for (const std::string folder : {"/bin/", "/usr/bin/"}) {
            if (test::exists(folder + GetParam().name)) {
                return folder + GetParam().name;
            }
        }
        return "none";
    }

    /// What the shell offers for each of these command lines, which lack the program's name.
    static std::vector<Words> completions(const Words& lines) {
        std::string input;
        for (const auto& line : lines) {
            input.append("tarnvale-helperctl ").append(line).append("\n");
        }
        std::filesystem::current_path("/tmp/completing/files");
        const auto asked = test::run(
            {"/usr/bin/env", "HOME=/tmp/completing", program(), "/tmp/completing/driver"}, input);
        EXPECT_EQ(asked.error, "");
        EXPECT_EQ(asked.status, 0);
        std::vector<Words> offered(1);
        for (const auto line : support::split(asked.output, '\n')) {
            if (line == "##") {
                offered.emplace_back();
            } else if (!line.empty()) {
                offered.back().emplace_back(line);
            }
        }
        offered.pop_back();
        EXPECT_EQ(offered.size(), lines.size());
        offered.resize(lines.size());
        return offered;
    }
};

/// Without the option before the value, which fish repeats.
std::string value(const std::string& word) {
    return word.substr(word.find('=') + 1);
}

TEST_P(CompletionTest, OffersWhatMayCome) {
    struct Case {
        std::string line;
        Words offered;
    };
    const std::vector<Case> cases{
        {"ap", {"apply"}},
        {"v", {"version", "validate", "vlan"}},
        {"vlan ", {"create", "delete"}},
        {"vlan create ", {}},
        {"vlan create lab 7 lo", {"lo"}},
        {"vlan delete lo", {"lo"}},
        {"resolver o", {"on", "off"}},
        {"help vl", {"vlan"}},
        {"help vlan c", {"create"}},
        {"--format j", {"json"}},
        {"--format json ap", {"apply"}},
        {"--format=j", {"json"}},
        {"--format=json ap", {"apply"}},
        {"--user root ap", {"apply"}},
        {"--user roo", {"root"}},
        {"link --user=root in", {"install"}},
        {"log --operation=app", {"applyFirewall"}},
        {"log --operation s", {"setTarnvaleResolver", "start"}},
        {"log --since 2h --operation e", {"end"}},
        {"log --since ", {}},
        {"completion ", {"bash", "zsh", "fish"}},
        {"completion bash ", {}},
        {"apply --str", {"--strict"}},
        {"apply --confirm 60 la", {"lab.json", "lab two.json"}},
        {"apply -- ot", {"other"}},
        {"diff lab.json ot", {"other"}},
        {"diff lab.json other ", {}},
        {"matrix ot", {"other"}},
        {"matrix --live ot", {}},
        {"matrix --svg ot", {"other"}},
        {"explain lab.json ", {}},
        {"version --wat", {}},
        {"status --wat", {"--watch"}},
        {"export ", {}},
    };
    Words lines;
    std::transform(cases.begin(), cases.end(), std::back_inserter(lines), [](const Case& each) {
        return each.line;
    });

    const auto offered = completions(lines);

    for (std::size_t i = 0; i < cases.size(); ++i) {
        Words words;
        std::transform(offered[i].begin(), offered[i].end(), std::back_inserter(words), value);
        EXPECT_THAT(words, UnorderedElementsAreArray(cases[i].offered)) << cases[i].line;
    }
}

TEST_P(CompletionTest, KnowsEveryCommandAndOption) {
    Words lines;
    std::vector<Words> expected;
    Words firsts;
    for (const auto& form : commandForms()) {
        const std::string first(form.words.substr(0, form.words.find(' ')));
        if (form.words.empty()) {
            continue;
        }
        if (std::find(firsts.begin(), firsts.end(), first) == firsts.end()) {
            firsts.push_back(first);
        }
        lines.push_back(std::string(form.words) + " --");
        auto& names = expected.emplace_back(Words{"--help"});
        for (const auto& option : commonOptions()) {
            names.emplace_back(option.name);
        }
        for (const auto& option : form.options) {
            names.emplace_back(option.name);
        }
        EXPECT_FALSE(form.summary.empty()) << form.words;
    }
    lines.emplace_back("");
    expected.push_back(firsts);

    const auto offered = completions(lines);

    for (std::size_t i = 0; i < lines.size(); ++i) {
        Words words;
        for (const auto& word : offered[i]) {
            words.push_back(word.substr(0, word.find('=')));
        }
        EXPECT_THAT(words, UnorderedElementsAreArray(expected[i])) << lines[i];
    }
}

TEST_P(CompletionTest, RunsNothingThatAnInterfaceIsNamed) {
    const std::string name = "$(echo>ran)";
    std::filesystem::remove("/tmp/completing/files/ran");
    test::put("/tmp/completing/more-interfaces", name + "\n");

    const auto offered = completions({"vlan delete ", "vlan create lab 7 "});

    // fish and zsh quote it once it is in the command line, bash leaves that to the script.
    const auto shown = GetParam().shell == Shell::bash ? R"(\$\(echo\>ran\))" : name;
    EXPECT_THAT(offered, Each(IsSupersetOf({"lo", shown.c_str()})));
    EXPECT_FALSE(test::exists("/tmp/completing/files/ran"));
}

INSTANTIATE_TEST_SUITE_P(
    Shells,
    CompletionTest,
    testing::Values(
        ShellCase{"bash", Shell::bash, bashDriver},
        ShellCase{"zsh", Shell::zsh, zshDriver},
        ShellCase{"fish", Shell::fish, fishDriver}),
    [](const auto& shell) { return std::string(shell.param.name); });

TEST(CompletionScriptTest, IsReadWithoutACommandLine) {
    if (!test::exists("/usr/bin/zsh")) {
        GTEST_SKIP() << "zsh is not installed";
    }
    test::put("/tmp/completing/script", scriptFor(Shell::zsh));

    const auto read = test::run(
        {"/usr/bin/zsh",
         "-fc",
         "autoload -Uz compinit; compinit -u -d /tmp/completing/dump; "
         "source /tmp/completing/script; print $_comps[tarnvale-helperctl]"});

    EXPECT_EQ(read.error, "");
    EXPECT_EQ(read.output, "_tarnvale-helperctl\n");
}

}  // namespace
}  // namespace tarnvale::helperctl
