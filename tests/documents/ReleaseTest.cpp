// SPDX-License-Identifier: MIT
//
// scripts/release in a repository of its own: what it changes, what it refuses, and what it offers
// in the end. Building packages is left to a program that only pretends to, and so is
// the bill of materials where reuse is not installed.

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* repository = "/tmp/release/sources";

class ReleaseTest : public testing::Test {
protected:
    void SetUp() override {
        if (!exists("/usr/bin/git")) {
            GTEST_SKIP() << "git is not installed";
        }
        fs::remove_all("/tmp/release");
        for (const char* name :
             {"CMakeLists.txt",
              "CHANGELOG.md",
              "debian/changelog",
              "scripts/changelog",
              "scripts/dist",
              "scripts/release",
              "scripts/version"}) {
            const auto copy = fs::path(repository) / name;
            fs::create_directories(copy.parent_path());
            fs::copy_file(fs::path(TARNVALE_SOURCE_DIR) / name, copy);
        }
        put(file(".gitignore"), "build/\n");
        setChangelog(
            "## [Unreleased]\n\n### Added\n\n- Wings.\n\n## [" + last() +
            "] - 2026-11-22\n\nThe first.\n");
        putScript(
            file("scripts/build-debs"),
            "folder=${!#}\nrm -rf \"$folder\"\nmkdir -p \"$folder\"\n"
            "echo \"${*:1:$#-1}\" >\"$folder/helper_$(scripts/version).deb\"\n");
        if (!exists("/usr/bin/reuse")) {
            putScript(
                "/tmp/release/bin/reuse",
                "[ \"$*\" = spdx ]\nprintf '%s\\n' 'SPDXVersion: SPDX-2.1' 'DocumentName: sources' "
                "'Creator: Person: Anonymous ()' 'Creator: Organization: Anonymous ()'\n");
        }
        put("/tmp/release/.gitconfig",
            "[user]\n  name = Ada\n  email = ada@example.org\n[init]\n  defaultBranch = main\n");
        inRepository("git init --quiet && git add . && git commit --quiet --message Begin");
    }

    static std::string file(const std::string& name) {
        return std::string(repository) + "/" + name;
    }

    static void setChangelog(const std::string& entries) {
        put(file("CHANGELOG.md"), "# Changelog\n\n" + entries);
    }

    static Finished inRepository(const std::string& command) {
        fs::current_path(repository);
        return run(
            {"/usr/bin/env",
             "HOME=/tmp/release",
             "PATH=/tmp/release/bin:/usr/bin:/bin",
             "/bin/bash",
             "-c",
             command});
    }

    /// The version that the sources have now.
    static std::string last() {
        const auto shown = run({TARNVALE_SOURCE_DIR "/scripts/version"}).output;
        EXPECT_THAT(shown, ContainsRegex("^[0-9]+[.][0-9]+[.][0-9]+\n$"));
        return shown.substr(0, shown.find('\n'));
    }

    /// Everything that a release may change.
    static std::string state() {
        return inRepository(
                   "git log --format=%s; git tag; git status --porcelain; cat CMakeLists.txt "
                   "CHANGELOG.md debian/changelog; ls")
            .output;
    }

    static void expectRefused(const std::string& arguments, const std::string& reason) {
        const auto before = state();
        const auto refused = inRepository("scripts/release " + arguments);
        EXPECT_NE(refused.status, 0);
        EXPECT_EQ(refused.error, reason + "\n");
        EXPECT_EQ(state(), before);
    }
};

TEST_F(ReleaseTest, SetsTheVersionAndClosesTheChangelog) {
    const auto debian = contentOf(file("debian/changelog"));

    const auto released = inRepository("scripts/release 98.7.6");

    EXPECT_EQ(released.error, "");
    EXPECT_EQ(released.status, 0);
    EXPECT_THAT(released.output, HasSubstr("\n  git push --atomic origin main v98.7.6\n"));
    EXPECT_EQ(inRepository("scripts/version").output, "98.7.6\n");
    EXPECT_THAT(
        contentOf(file("CHANGELOG.md")),
        ContainsRegex(
            "^# Changelog\n\n## \\[Unreleased\\]\n\n## \\[98.7.6\\] - [0-9]{4}-[0-9]{2}-[0-9]{2}"
            "\n\n### Added\n\n- Wings.\n\n## \\["));
    EXPECT_THAT(
        contentOf(file("debian/changelog")),
        ContainsRegex(
            "^tarnvale-adminhelper \\(98.7.6\\) [^\n]*\n\n[^\n]*\n\n -- [^\n]*>  [A-Z][a-z]{2}, "
            "[0-9]{2} [A-Z][a-z]{2} [0-9]{4} [0-9:]{8} \\+0000\n\n"));
    EXPECT_TRUE(contentOf(file("debian/changelog")).ends_with("\n\n" + debian));
    EXPECT_EQ(
        inRepository("git status --porcelain; git log -1 --format=%s").output,
        "release: Call this version 98.7.6\n");
    EXPECT_EQ(
        inRepository("git for-each-ref --format='%(objecttype) %(contents)' refs/tags/v98.7.6")
            .output,
        "tag TarnvaleAdminHelper 98.7.6\n\n### Added\n\n- Wings.\n\n");
    EXPECT_EQ(
        inRepository("git diff --name-only v98.7.6~1 v98.7.6").output,
        "CHANGELOG.md\nCMakeLists.txt\ndebian/changelog\n");
}

TEST_F(ReleaseTest, OffersPackagesArchiveBillAndSums) {
    inRepository("scripts/release 98.7.6");

    EXPECT_EQ(
        inRepository(
            "cd build/dist && ls && sha256sum --check --quiet SHA256SUMS && wc -l <SHA256SUMS")
            .output,
        "SHA256SUMS\nTarnvaleAdminHelper-98.7.6.spdx\nTarnvaleAdminHelper-98.7.6.tar.gz\n"
        "helper_98.7.6.deb\n3\n");
    EXPECT_THAT(
        contentOf(file("build/dist/TarnvaleAdminHelper-98.7.6.spdx")),
        AllOf(
            StartsWith("SPDXVersion: SPDX-2."),
            HasSubstr("\nDocumentName: TarnvaleAdminHelper-98.7.6\n"),
            HasSubstr("\nCreator: Organization: The TarnvaleAdminHelper developers ()\n"),
            Not(HasSubstr("Anonymous"))));
    EXPECT_EQ(contentOf(file("build/dist/helper_98.7.6.deb")), "\n");
    EXPECT_EQ(
        inRepository("tar -xOf build/dist/*.tar.gz TarnvaleAdminHelper-98.7.6/CHANGELOG.md").output,
        contentOf(file("CHANGELOG.md")));
}

TEST_F(ReleaseTest, MakesTheSameArchiveElsewhereAndLater) {
    inRepository("scripts/release 98.7.6");
    const auto archive = contentOf(file("build/dist/TarnvaleAdminHelper-98.7.6.tar.gz"));

    const auto again = inRepository(
        "git clone --quiet --branch v98.7.6 . ../elsewhere 2>/dev/null && cd ../elsewhere && "
        "TZ=Asia/Tokyo scripts/dist ../offered >/dev/null");

    EXPECT_EQ(again.error, "");
    EXPECT_TRUE(contentOf("/tmp/release/offered/TarnvaleAdminHelper-98.7.6.tar.gz") == archive);
}

TEST_F(ReleaseTest, HasThePackagesClientSigned) {
    put("/tmp/release/key", "");
    put("/tmp/release/chain.pem", "");

    inRepository("cd .. && sources/scripts/release --sign key chain.pem 98.7.6");

    EXPECT_EQ(
        contentOf(file("build/dist/helper_98.7.6.deb")),
        "--sign /tmp/release/key /tmp/release/chain.pem\n");
}

TEST_F(ReleaseTest, LooksForTheSigningFilesFirst) {
    put("/tmp/release/key", "");
    for (const std::string dry : {"", "--dry-run "}) {
        expectRefused(
            dry + "--sign ../key ../none/chain.pem 98.7.6",
            "release: /tmp/release/none/chain.pem can't be read");
        expectRefused(dry + "--sign .. ../key 98.7.6", "release: /tmp/release can't be read");
    }
}

TEST_F(ReleaseTest, LeavesNothingBehindWhereItFails) {
    putScript(file(".git/hooks/pre-commit"), "echo 'This is not formatted.' >&2\nfalse\n");
    expectRefused("98.7.6", "This is not formatted.\nrelease: all is as it was");
    fs::remove(file(".git/hooks/pre-commit"));

    // In the place of the tag is a folder of tags.
    inRepository("git tag v98.7.6/draft");
    const auto before = state();
    const auto refused = inRepository("scripts/release 98.7.6");
    EXPECT_NE(refused.status, 0);
    EXPECT_THAT(refused.error, EndsWith("\nrelease: all is as it was\n"));
    EXPECT_EQ(state(), before);

    inRepository("sed -i 's/^## .Unreleased./&:/' CHANGELOG.md && git commit -qam Explain");
    expectRefused(
        "98.7.7", "release: CHANGELOG.md has no heading [Unreleased]\nrelease: all is as it was");
}

TEST_F(ReleaseTest, SaysHowToTakeItBack) {
    const auto takenBack = [](const std::string& said) {
        const std::string_view start = "o take it back:";
        const auto command = said.substr(said.find(start) + start.size());
        EXPECT_EQ(inRepository(command + "rm -rf build").error, "");
        return state();
    };
    const auto before = state();

    const auto released = inRepository("scripts/release 98.7.6");

    EXPECT_EQ(released.status, 0);
    EXPECT_NE(state(), before);
    EXPECT_EQ(takenBack(released.output), before);

    putScript(file("scripts/build-debs"), "false\n");
    inRepository("git commit --quiet --all --message Break");
    const auto broken = state();
    const auto failed = inRepository("scripts/release 98.7.6");
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.error, StartsWith("release: v98.7.6 is made, but not what it offers; "));
    EXPECT_NE(state(), broken);
    EXPECT_EQ(takenBack(failed.error), broken);
}

TEST_F(ReleaseTest, TakesAFolderOnlyFromAnEarlierBuild) {
    fs::copy_file(
        TARNVALE_SOURCE_DIR "/scripts/build-debs",
        file("scripts/build-debs"),
        fs::copy_options::overwrite_existing);
    inRepository("git commit --quiet --all --message Build");
    putScript(
        "/tmp/release/bin/dpkg-buildpackage",
        "touch ../tarnvale-new.deb ../tarnvale-x.buildinfo ../tarnvale-x.changes\n");
    put("/tmp/release/notes/read-me-later", "");
    put("/tmp/release/folders/tarnvale-cat/pictures", "");
    const auto before = state();
    for (const std::string folder : {".", "..", "scripts", "../notes", "../folders"}) {
        const auto refused = inRepository("scripts/dist " + folder);
        EXPECT_EQ(refused.status, 1) << folder;
        EXPECT_THAT(
            refused.error,
            ContainsRegex("^build-debs: /[^\n]+ is of no earlier build; the packages need a folder "
                          "to themselves\n$"));
    }
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(exists("/tmp/release/notes/read-me-later"));

    for (const char* earlier : {"", "touch ../built/tarnvale-old.deb && "}) {
        const auto built = inRepository(earlier + "scripts/dist ../built"s);
        EXPECT_EQ(built.error, "");
        EXPECT_EQ(
            inRepository("ls ../built | grep -v ^Tarn").output,
            "SHA256SUMS\ntarnvale-new.deb\ntarnvale-x.buildinfo\ntarnvale-x.changes\n");
    }
}

TEST_F(ReleaseTest, ChangesNothingWhenItIsDry) {
    const auto before = state();

    const auto checked = inRepository("scripts/release --dry-run 98.7.6");

    EXPECT_EQ(checked.error, "");
    EXPECT_EQ(
        checked.output,
        "release: 98.7.6 can follow " + last() +
            ", with this in CHANGELOG.md:\n\n### Added\n\n- Wings.\n");
    EXPECT_EQ(state(), before);
}

TEST_F(ReleaseTest, TakesOnlyAGreaterVersion) {
    expectRefused(
        last(), "release: " + last() + " isn't greater than " + last() + ", the last version");
    expectRefused("0.0.10", "release: 0.0.10 isn't greater than " + last() + ", the last version");
    for (const char* version : {"", "1", "1.2", "v1.2.3", "01.2.3", "1.2.3-rc1", "1.2.3 4.5.6"}) {
        expectRefused(
            version, "usage: release [--dry-run] [--sign KEY CERTIFICATES] VERSION, such as 1.4.0");
    }
    inRepository(
        "sed -i 's/ VERSION [0-9.]* / VERSION 1.9.0 /' CMakeLists.txt && "
        "sed -i 's/^## .[0-9.]*. -/## [1.9.0] -/' CHANGELOG.md && git commit -qam Nine");
    EXPECT_EQ(inRepository("scripts/release --dry-run 1.10.0").status, 0);
    expectRefused("1.8.9", "release: 1.8.9 isn't greater than 1.9.0, the last version");
}

TEST_F(ReleaseTest, TakesOnlyATreeThatIsReady) {
    inRepository("git tag v98.7.6");
    expectRefused("98.7.6", "release: there is a tag v98.7.6");
    inRepository("git checkout --quiet -b side");
    expectRefused("98.7.7", "release: this is side, not main");
    inRepository("git checkout --quiet --detach main");
    expectRefused("98.7.7", "release: this is no branch, not main");
    inRepository("git checkout --quiet main && touch new");
    expectRefused("98.7.7", "release: there are changes that aren't committed");
    inRepository("rm new");
    setChangelog("## [Unreleased]\n\n## [" + last() + "] - 2026-11-22\n\nThe first.\n");
    inRepository("git commit --quiet --all --message Forget");
    expectRefused("98.7.7", "release: CHANGELOG.md says nothing of what is unreleased");
    setChangelog("## [Unreleased]\n\n### Added\n\n### Fixed\n\n## [" + last() + "] - 2026-11-22\n");
    inRepository("git commit --quiet --all --message Prepare");
    expectRefused("98.7.7", "release: CHANGELOG.md says nothing of what is unreleased");
    setChangelog("## [Unreleased]\n\n- Wings.\n\n## [0.0.1] - 2026-11-22\n\nThe first.\n");
    inRepository("git commit --quiet --all --message Mistake");
    expectRefused("98.7.7", "release: the newest version in CHANGELOG.md isn't " + last());
}

TEST(ChangelogTest, HasTheVersionOfTheSourcesAsItsNewest) {
    const std::string scripts = TARNVALE_SOURCE_DIR "/scripts/";
    const auto version = run({scripts + "version"}).output;
    EXPECT_EQ(run({scripts + "changelog", "--newest"}).output, version);
    EXPECT_THAT(
        contentOf(TARNVALE_SOURCE_DIR "/debian/changelog"),
        StartsWith("tarnvale-adminhelper (" + version.substr(0, version.find('\n')) + ") "));

    // In the form of the page that it names: no other headings, no version twice, newest first.
    const auto log = contentOf(TARNVALE_SOURCE_DIR "/CHANGELOG.md");
    const auto headings = run({"/bin/sed", "-n", "s/^##* //p"}, log).output;
    EXPECT_THAT(
        headings,
        testing::MatchesRegex(
            "Changelog\n\\[Unreleased\\]\n(Added\n|Changed\n|Deprecated\n|Removed\n|Fixed\n|"
            "Security\n|\\[[0-9.]+\\] - [0-9]{4}-[0-9]{2}-[0-9]{2}\n)*"));
    const auto versions = run({"/bin/sed", "-n", R"(s/^## .\([0-9.]*\). - .*/\1/p)"}, log).output;
    EXPECT_EQ(
        run({"/usr/bin/sort", "--version-sort", "--reverse", "--unique"}, versions).output,
        versions);
}

}  // namespace
}  // namespace tarnvale::test
