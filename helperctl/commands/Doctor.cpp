// SPDX-License-Identifier: MIT

#include "helperctl/commands/Doctor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <ostream>
#include <system_error>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "core/base/HelperVersion.h"
#include "firewall/analysis/Listing.h"
#include "firewall/policy/AnchorText.h"
#include "firewall/policy/Review.h"
#include "helperctl/Answer.h"
#include "helperctl/LogEntries.h"
#include "helperctl/MacTools.h"
#include "helperctl/StoredNetworks.h"
#include "platform/Command.h"
#include "support/Files.h"
#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

using FirewallAnalysis::ListedLine;
using platform::HelperClientError;

constexpr const char* pfctlPath = "/sbin/pfctl";

/// The examination of one machine.
class Examination {
public:
    Examination(
        const Connect& connect,
        platform::CodeSigning& codeSigning,
        const std::vector<NetworkFirewall::HostAddress>& hosts)
        : connect_(connect), codeSigning_(codeSigning), hosts_(hosts) {}

    std::vector<Check> run(bool isRoot) {
        const bool answers = checkHelper();
        checkPf(answers);
        if (isRoot) {
            checkMainRuleset();
            checkRules();
            checkStore();
        }
        checkLog();
        checkLinks();
        checkResolver();
        checkLeftovers();
        checkLinux();
        checkMac();
        return std::move(checks_);
    }

private:
    void ok(std::string check, std::string says) {
        checks_.push_back({std::move(check), "ok", std::move(says), {}});
    }
    void problem(std::string check, std::string says, std::string advice) {
        checks_.push_back({std::move(check), "problem", std::move(says), std::move(advice)});
    }
    void unknown(std::string check, std::string says) {
        checks_.push_back({std::move(check), "unknown", std::move(says), {}});
    }

    /// Whether the helper answers. Keeps its report.
    bool checkHelper() {
        try {
            const auto helper = connect_();
            const auto version = helper->helperVersion().value_or("?");
            const auto& ours = helperVersionString();
            if (version == ours) {
                ok("helper", "It answers. Its version is " + version + ", as this program's.");
            } else {
                problem(
                    "helper",
                    "It answers with version " + version + ", but this program is of version " +
                        ours + ".",
                    "After an upgrade, end the helper that still runs: sudo tarnvale-helperctl "
                    "shutdown. Otherwise install both from one place.");
            }
            report_ = helper->firewallReport().result;
            return true;
        } catch (const HelperClientError& error) {
            if (error.errorCase() == HelperClientError::Case::notAdmitted) {
                try {
                    explainRefusal(error.what());
                } catch (const std::exception& obstacle) {
                    problem(
                        "helper", std::string(error.what()) + " " + obstacle.what(), howToSign());
                }
            } else {
                problem("helper", error.what(), howToStart());
            }
            return false;
        }
    }

    static std::string howToStart() {
        return std::filesystem::exists("/usr/bin/systemctl")
                   ? "See: systemctl status tarnvale-adminhelper.socket. To start it: sudo "
                     "systemctl enable --now tarnvale-adminhelper.service."
                   : "Open Tarnvale, and allow it in the background in System Settings, Login "
                     "Items.";
    }

    void explainRefusal(const std::string& what) {
        if (const auto untrusted = codeSigning_.trustProblem()) {
            problem(
                "helper",
                "It admits nobody: " + *untrusted + ".",
                "Install the certificates of whoever signs clients there: owned by root, mode "
                "0644.");
            return;
        }
        const auto code = codeSigning_.self();
        const auto information = code ? code->signingInformation() : std::nullopt;
        if (!information) {
            problem("helper", "It doesn't admit this program, which is not signed.", howToSign());
        } else if (const auto why = code->chainProblem()) {
            problem(
                "helper",
                "It doesn't admit this program, because the system doesn't trust its signer: " +
                    *why + ".",
                howToSign());
        } else if (!code->isValid("anchor apple generic")) {
            problem(
                "helper",
                "It doesn't admit this program: its signature isn't of this very program, has "
                "expired, or leads to no root that this system trusts.",
                howToSign());
        } else {
            problem(
                "helper",
                what + (" This program is signed by team " +
                        information->teamIdentifier.value_or("(none)") + " as " +
                        information->identifier.value_or("(none)") + "."),
                "The helper admits one team's com.brackwen.tarnvale and "
                "com.brackwen.tarnvale.service only.");
        }
    }

    static std::string howToSign() {
        return "Sign it as docs/signing.md says, as com.brackwen.tarnvale.service.";
    }

    void checkPf(bool answers) {
        auto text = report_.value_or("");
        if (const auto listing = FirewallAnalysis::readReport(text);
            listing && listing->isEnabled) {
            if (*listing->isEnabled) {
                ok("pf", "It is on.");
            } else if (listing->lines.empty()) {
                ok("pf", "It is off, and there is nothing for it to enforce.");
            } else {
                problem(
                    "pf",
                    "It is off, so nothing is enforced.",
                    "Turn it on: sudo pfctl -E. The next apply does, too.");
            }
        } else {
            unknown(
                "pf",
                answers ? "The helper's report doesn't say whether it is on."
                        : "Whether it is on is for the helper to say.");
        }
    }

    /// On macOS the system's main ruleset leads to the helper's anchor; there, other products
    /// replace it. Linux has no main ruleset.
    void checkMainRuleset() {
        const auto listing = platform::runCommand(pfctlPath, {"-sr"});
        if (listing.standardError.find("an anchor is needed") != std::string::npos) {
            return;
        }
        if (listing.status != 0) {
            unknown("main ruleset", "pfctl doesn't list it.");
            return;
        }
        constexpr std::string_view anchor = "anchor \"com.apple/*\"";
        std::string quick;
        for (const auto line : support::split(listing.standardOutput, '\n')) {
            if (line.starts_with(anchor)) {
                const auto condition = support::trimWhitespace(line.substr(anchor.size()));
                if (!condition.empty() && condition != "all") {
                    problem(
                        "main ruleset",
                        "It leads only some packets to the helper's anchor: " + std::string(line),
                        "Load the system's own rules again: sudo pfctl -f /etc/pf.conf.");
                } else if (quick.empty()) {
                    ok("main ruleset", "It leads to the helper's anchor.");
                } else {
                    problem(
                        "main ruleset",
                        "A line before the helper's anchor decides first: " + quick,
                        "Find out what put it there; it overrides what Tarnvale enforces.");
                }
                return;
            }
            if (line.find(" quick ") != std::string_view::npos && quick.empty()) {
                quick = line;
            }
        }
        problem(
            "main ruleset",
            "It has no anchor \"com.apple/*\": rules can be loaded, but none is enforced.",
            "Other products replace /etc/pf.conf's rules. Load the system's own again: sudo pfctl "
            "-f /etc/pf.conf.");
    }

    /// The lines of a ruleset's text.
    static std::vector<ListedLine> linesIn(std::string_view text) {
        std::vector<ListedLine> lines;
        for (const auto line : support::split(text, '\n')) {
            if (auto listed = FirewallAnalysis::readListedLine(line)) {
                lines.push_back(*std::move(listed));
            }
        }
        return lines;
    }

    static bool agree(const std::vector<ListedLine>& a, const std::vector<ListedLine>& b) {
        return std::ranges::equal(a, b, [](const ListedLine& one, const ListedLine& other) {
            return one.subnet == other.subnet && FirewallAnalysis::sameEffect(one.line, other.line);
        });
    }

    /// What is stored, what was last written and what is in force.
    void checkRules() {
        const auto path = storePath();
        const bool isStored = ::access(path.c_str(), F_OK) == 0;
        auto store = readStore();
        if (isStored && !store) {
            problem(
                "rules",
                "What is stored in \"" + path + "\" can't be read.",
                "Each user's next apply stores that user's networks anew; the helper keeps the "
                "file under another name.");
            return;
        }
        std::string expected;
        if (store) {
            const auto all = NetworkFirewall::review(
                NetworkFirewall::mergedPolicies(*std::move(store)).policies, hosts_);
            expected = NetworkFirewall::anchorText(all.enforceable, {});
            reportRefused(all);
        }
        const auto listing = platform::runCommand(
            pfctlPath, {"-a", std::string(NetworkFirewall::anchorName), "-v", "-sr"});
        listsRules_ = listing.status == 0;
        if (!listsRules_) {
            const auto& complaint = listing.standardError;
            problem(
                "rules",
                "What is in force can't be listed: " + complaint.substr(0, complaint.find('\n')),
                "Nothing can be enforced either, as long as pfctl fails.");
            return;
        }
        compare(linesIn(expected), linesIn(loadedRulesetText()), linesIn(listing.standardOutput));
    }

    void compare(
        const std::vector<ListedLine>& stored,
        const std::vector<ListedLine>& written,
        const std::vector<ListedLine>& enforced) {
        const std::string again =
            "Load them again: sudo tarnvale-helperctl shutdown, then tarnvale-helperctl version.";
        if (!agree(written, enforced)) {
            problem(
                "rules",
                enforced.empty() ? "What was loaded is gone: nothing is in force. Something else "
                                   "has flushed the packet filter."
                                 : "What is in force is not what the helper last loaded: "
                                   "something else has changed it.",
                again);
        } else if (!agree(stored, written)) {
            problem(
                "rules",
                "What is in force is not what is stored would give on this machine now.",
                again);
        } else {
            ok("rules",
               "What is stored, what was loaded and what is in force agree: " +
                   counted(enforced.size(), "line") + ".");
        }
    }

    void reportRefused(const NetworkFirewall::Review& all) {
        for (const auto& note : all.refused) {
            problem(
                "networks",
                "The stored network \"" + *note.networkName + "\" is not enforced: " + note.problem,
                "If its subnet has changed, apply it again.");
        }
        if (!all.skippedRules.empty()) {
            problem(
                "networks",
                counted(all.skippedRules.size(), "stored rule") + " can't be written.",
                "sudo tarnvale-helperctl status lists them with the reasons.");
        }
    }

    void checkStore() { checkFile("store", storePath(), 0600); }
    void checkLog() { checkFile("log", logPath, 0644); }

    void checkFile(const std::string& check, const std::string& path, mode_t mode) {
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0) {
            if (errno == ENOENT) {
                ok(check, "There is none yet.");
            } else {
                unknown(check, "\"" + path + "\" can't be looked at.");
            }
            return;
        }
        std::array<char, 8> octal{};
        std::snprintf(octal.data(), octal.size(), "%04o", static_cast<unsigned>(mode));
        if (!S_ISREG(info.st_mode)) {
            problem(check, "\"" + path + "\" is not a file.", "Move it out of the way.");
        } else if (info.st_uid != 0 || (info.st_mode & 07777) != mode) {
            problem(
                check,
                "\"" + path + "\" is not root's with mode " + octal.data() + ".",
                "sudo chown root \"" + path + "\" && sudo chmod " + octal.data() + " \"" + path +
                    "\"");
        } else {
            ok(check, "\"" + path + "\" is root's, with mode " + octal.data() + ".");
        }
    }

    void checkLinks() {
        bool isFine = true;
        for (const char* const path : {"/usr/local/bin/tarnvale", "/usr/local/bin/tvx"}) {
            std::error_code error;
            const auto kind = std::filesystem::symlink_status(path, error).type();
            if (kind == std::filesystem::file_type::not_found) {
                continue;
            }
            if (kind != std::filesystem::file_type::symlink) {
                isFine = false;
                problem(
                    "links",
                    std::string(path) + " is not a link: the helper leaves it alone.",
                    "If it is in the way, move it and run: sudo tarnvale-helperctl link install.");
            } else if (!std::filesystem::exists(path, error)) {
                isFine = false;
                problem(
                    "links",
                    std::string(path) + " leads nowhere.",
                    "sudo tarnvale-helperctl link install, or link remove.");
            } else if (const auto target = std::filesystem::read_symlink(path, error);
                       target.filename() != "tarnvale" && target.filename() != "tx") {
                isFine = false;
                problem(
                    "links",
                    std::string(path) + " leads to something else: " + target.string() + ".",
                    "If it is in the way, move it and run: sudo tarnvale-helperctl link install.");
            }
        }
        if (isFine) {
            ok("links", "Those in /usr/local/bin are in order, as far as there are any.");
        }
    }

    void checkResolver() {
        bool isFine = true;
        for (const char* const path : {"/etc/resolver/tvx", "/etc/resolver/tarnvale"}) {
            std::error_code error;
            if (!std::filesystem::exists(std::filesystem::symlink_status(path, error))) {
                continue;
            }
            const auto content = support::readFile(path);
            const bool isOurs =
                content && content->find("Installed by Tarnvale") != std::string::npos;
            if (!isOurs) {
                isFine = false;
                problem(
                    "resolver",
                    std::string(path) + " is not the helper's, which leaves it alone.",
                    "If it is in the way, move it and run: sudo tarnvale-helperctl resolver on.");
            } else if (
                content->find("\nnameserver 127.0.0.1\n") == std::string::npos ||
                content->find("\nport 5380\n") == std::string::npos) {
                isFine = false;
                problem(
                    "resolver",
                    std::string(path) + " doesn't lead to Tarnvale's DNS proxy.",
                    "sudo tarnvale-helperctl resolver on");
            }
        }
        if (isFine) {
            ok("resolver", "The files in /etc/resolver are in order, as far as there are any.");
        }
    }

    /// What earlier versions left. The helper cleans up at each load.
    void checkLeftovers() {
        std::vector<std::string> found;
        std::error_code error;
        for (const char* const path : {"/usr/local/bin/tx", "/usr/local/bin/txr"}) {
            // Other products have tools of these names, too.
            const auto target = std::filesystem::read_symlink(path, error).string();
            if (!error && target.find("/Tarnvale.app/") != std::string::npos) {
                found.emplace_back(path);
            }
        }
        constexpr const char* oldAnchor = "/etc/pf.anchors/com.tarnvale.firewall";
        if (std::filesystem::exists(std::filesystem::symlink_status(oldAnchor, error))) {
            found.emplace_back(oldAnchor);
        }
        const auto conf = support::readFile("/etc/pf.conf");
        if (conf && conf->find("com.tarnvale.firewall") != std::string::npos) {
            found.emplace_back("/etc/pf.conf's references");
        }
        if (found.empty()) {
            ok("leftovers", "There are none of earlier versions.");
            return;
        }
        std::string list;
        for (const auto& each : found) {
            list += (list.empty() ? "" : ", ") + each;
        }
        problem(
            "leftovers",
            "Earlier versions left " + list + ".",
            "The next apply cleans up pf's, \"link install\" the links, if they are the helper's.");
    }

    /// The first line of a small file; nothing if there is no such file.
    static std::optional<std::string> valueOf(const char* path) {
        const auto content = support::readFile(path);
        return content ? std::optional(content->substr(0, content->find('\n'))) : std::nullopt;
    }

    void checkLinux() {
        if (!std::filesystem::exists("/proc/sys/kernel")) {
            return;
        }
        if (listsRules_ || std::filesystem::exists("/sys/module/nf_tables")) {
            ok("nf_tables", "The kernel has it.");
        } else {
            unknown("nf_tables", "Only root can ask the kernel for it.");
        }
        if (std::filesystem::exists("/proc/sys/net/netfilter/nf_conntrack_max")) {
            ok("conntrack", "The kernel tracks connections.");
        } else {
            unknown("conntrack", "It is not loaded; the first load of rules loads it.");
        }
        if (valueOf("/proc/sys/net/bridge/bridge-nf-call-iptables") == "1") {
            problem(
                "br_netfilter",
                "It is active: frames between two machines on one bridge meet the rules, too.",
                "If nothing else needs it: sudo sysctl net.bridge.bridge-nf-call-iptables=0.");
        } else {
            ok("br_netfilter", "It doesn't show bridged frames to the rules.");
        }
        checkPtrace();
    }

    /// Never a problem: admission tells users apart, not one user's programs. Whatever the scope
    /// is, a preloaded library speaks for an admitted client.
    void checkPtrace() {
        const auto scope = valueOf("/proc/sys/kernel/yama/ptrace_scope");
        ok("ptrace",
           scope && *scope != "0"
               ? "Its scope is " + *scope +
                     ": a program can't take over clients of its user that it hasn't started."
               : "Any program of a user can take over that user's clients. Where that matters, "
                 "narrow it: sudo sysctl kernel.yama.ptrace_scope=1.");
    }

    void checkMac() {
        constexpr const char* firewall = "/usr/libexec/ApplicationFirewall/socketfilterfw";
        if (::access(firewall, X_OK) == 0) {
            checkApplicationFirewall(firewall);
        }
        constexpr const char* launchctl = "/bin/launchctl";
        if (::access(launchctl, X_OK) == 0) {
            checkBackgroundItem(launchctl);
        }
    }

    /// It may keep bootpd, which gives machines their addresses, from being asked.
    void checkApplicationFirewall(const std::string& firewall) {
        constexpr const char* bootpd = "/usr/libexec/bootpd";
        const auto answer = [&](const std::vector<std::string>& question) {
            return platform::runCommand(firewall, question).standardOutput;
        };
        const auto blocked = isBlocked(
            answer({"--getglobalstate"}),
            answer({"--getblockall"}),
            answer({"--getappblocked", bootpd}));
        if (!blocked) {
            unknown("bootpd", "The application firewall doesn't say whether it blocks it.");
        } else if (*blocked) {
            problem(
                "bootpd",
                "The application firewall blocks it: machines get no addresses.",
                "Don't let it block all incoming connections, and: sudo " + firewall +
                    " --unblockapp " + bootpd + ".");
        } else {
            ok("bootpd", "The application firewall lets it hand out addresses.");
        }
    }

    void checkBackgroundItem(const char* launchctl) {
        const std::string service = "com.brackwen.tarnvale.adminhelper";
        const char* const howToAllow =
            "Open Tarnvale, and allow it in the background in System Settings, Login Items.";
        if (isTurnedOff(
                platform::runCommand(launchctl, {"print-disabled", "system"}).standardOutput,
                service)) {
            problem("background item", "The helper is turned off.", howToAllow);
        } else if (platform::runCommand(launchctl, {"print", "system/" + service}).status != 0) {
            problem("background item", "The system doesn't know the helper.", howToAllow);
        } else {
            ok("background item", "The system may start the helper.");
        }
    }

    const Connect& connect_;
    platform::CodeSigning& codeSigning_;
    const std::vector<NetworkFirewall::HostAddress>& hosts_;
    std::optional<std::string> report_;
    bool listsRules_ = false;
    std::vector<Check> checks_;
};

void print(const Check& check, const Console& console) {
    constexpr std::size_t indent = 12;
    const bool isOk = check.state == "ok";
    const bool isUnknown = check.state == "unknown";
    const std::string word = isUnknown ? "can't tell" : check.state;
    auto lines = wrapped(printable(check.check + ": " + check.says), indent);
    if (!check.advice.empty()) {
        for (const auto& line : wrapped(printable("-> " + check.advice), indent)) {
            lines.push_back(line);
        }
    }
    console.output << console.inked(
                          isOk        ? Ink::green
                          : isUnknown ? Ink::yellow
                                      : Ink::red,
                          word)
                   << std::string(indent - word.size(), ' ') << lines.front() << '\n';
    for (std::size_t i = 1; i < lines.size(); ++i) {
        console.output << std::string(indent, ' ') << lines[i] << '\n';
    }
}

}  // namespace

std::vector<Check> examine(
    const Connect& connect,
    platform::CodeSigning& codeSigning,
    const std::vector<NetworkFirewall::HostAddress>& hosts,
    bool isRoot) {
    return Examination(connect, codeSigning, hosts).run(isRoot);
}

int doctor(const Session& session) {
    const auto codeSigning = platform::makeCodeSigning();
    const auto checks =
        examine(session.connect, *codeSigning, NetworkFirewall::hostAddresses(), ::geteuid() == 0);
    if (session.console.wantsJson()) {
        session.console.writeResult("doctor", checks);
    } else {
        for (const auto& check : checks) {
            print(check, session.console);
        }
    }
    const bool isWell =
        std::ranges::none_of(checks, [](const Check& check) { return check.state == "problem"; });
    return isWell ? done : refusedOrFailed;
}

}  // namespace tarnvale::helperctl
