// SPDX-License-Identifier: MIT

#include "helperctl/commands/Matrix.h"

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helperctl/commands/MatrixPicture.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/JsonSchema.h"
#include "tests/support/PolicyText.h"
#include "tests/support/Program.h"

namespace tarnvale::helperctl {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testing::ThrowsMessage;

std::string examplePath(const std::string& example) {
    return TARNVALE_SOURCE_DIR "/examples/" + example + ".json";
}

std::string printed(const Arguments& arguments, Format format = Format::text) {
    std::ostringstream output;
    std::ostringstream errors;
    Console console{.output = output, .errors = errors, .format = format};
    const Connect connect;
    EXPECT_EQ(matrix({.arguments = arguments, .connect = connect, .console = console}), 0);
    EXPECT_EQ(errors.str(), "");
    return output.str();
}

Arguments of(const std::string& file) {
    Arguments arguments;
    arguments.file = file;
    return arguments;
}

TEST(MatrixTest, PrintsATableForEachNetwork) {
    EXPECT_EQ(
        printed(of(examplePath("lab"))),
        "Lab, 192.168.64.0/24\n"
        "  with                      from its machines         to its machines\n"
        "  the host                  everything                tcp 22\n"
        "  anywhere else             everything                tcp 22\n"
        "  10.0.0.0/8                nothing                   tcp 22\n");
    EXPECT_THAT(
        printed(of(examplePath("web-server"))),
        HasSubstr("\n"
                  "  anywhere else             nothing                   tcp 80 and 443; udp 443;\n"
                  "                                                      icmp\n"
                  "  198.51.100.0/24           nothing                   nothing\n"
                  "  203.0.113.0/24            tcp 5432-5433             tcp 80 and 443; udp 443;\n"
                  "                                                      icmp\n"));
}

TEST(MatrixTest, SaysWhereNothingIsEnforced) {
    const auto path = testing::TempDir() + "matrix.json";
    test::put(path, "[]");

    EXPECT_EQ(printed(of(path)), "No network is enforced: everything passes.\n");
}

TEST(MatrixTest, PrintsJsonOfItsSchema) {
    const auto json = printed(of(examplePath("lab")), Format::json);

    EXPECT_EQ(test::judgedBySchema("helperctl", json), "yes") << json;
    EXPECT_THAT(
        json,
        HasSubstr(R"({"from":"Lab","passes":"nothing","rules":["rule 2 of Lab"],)"
                  R"("to":"10.0.0.0\/8"})"));
}

TEST(MatrixTest, DrawsAPictureWithLinksToRules) {
    const auto policy = test::policyText(
        {{.name = R"(<b>\"&)", .rules = {{.remoteCIDR = "10.0.0.0/8", .ports = "22"}}}});

    const auto svg = svgOf(Matrix(NamedRuleset::ofFile(policy, {})));

    EXPECT_THAT(svg, StartsWith(R"(<svg xmlns="http://www.w3.org/2000/svg" width=")"));
    EXPECT_THAT(svg, HasSubstr(R"(<a href="#n0-r1">)"));
    EXPECT_THAT(svg, HasSubstr(R"(<text class="rule" id="n0-r1")"));
    EXPECT_THAT(svg, HasSubstr("&lt;b&gt;&quot;&amp;, rule 1 (allow tcp 22 from 10.0.0.0/8)"));
    EXPECT_THAT(svg, Not(HasSubstr("<b>")));
}

/// Networks with names of every kind, under rules of every kind.
std::string trickyPolicies() {
    std::vector<test::NetworkText> networks;
    for (const char* const name :
         {"Lab",
          "Büro München – Entwicklungsabteilung, zweiter Stock, Raum 204",
          "WWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWWW",
          "研究室のネットワーク東京本社第二",
          R"(<b>\"&' x)",
          "",
          "😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀😀"}) {
        networks.push_back(
            {.number = 64 + static_cast<int>(networks.size()),
             .name = name,
             .rules = {
                 {.ports = "22"},
                 {.remoteCIDR = "198.51.100.0/24", .ports = "8000-8080", .proto = "any"},
                 {.remoteCIDR = "203.0.113.0/24", .ports = "", .proto = "icmp"},
                 {.ports = "25", .direction = "outbound", .action = "deny"},
                 {.ports = "53", .direction = "outbound", .action = "deny", .proto = "udp"},
                 {.remoteCIDR = "10.0.0.0/8",
                  .ports = "",
                  .direction = "outbound",
                  .action = "deny",
                  .proto = "any"}}});
    }
    return test::policyText(networks);
}

std::string svgOf(const std::string& policy) {
    return svgOf(Matrix(NamedRuleset::ofFile(policy, {})));
}

/// What tests/support/check-picture says.
std::string checked(const std::string& svg, const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command{
        "/usr/bin/python3", TARNVALE_SOURCE_DIR "/tests/support/check-picture"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const auto finished = test::run(command, svg);
    return finished.error + finished.output;
}

TEST(MatrixTest, KeepsEveryTextOfThePictureInItsPlace) {
    EXPECT_EQ(checked(svgOf(test::contentOf(examplePath("web-server")))), "");
    EXPECT_EQ(checked(svgOf(std::string("[]"))), "");
    EXPECT_EQ(checked(svgOf(trickyPolicies())), "");
}

TEST(MatrixTest, DrawsWhatRenderersUnderstand) {
    if (test::run({"/bin/sh", "-c", "command -v rsvg-convert"}).status != 0) {
        GTEST_SKIP() << "Nothing here draws SVG: Debian's librsvg2-bin does.";
    }

    const auto colours = checked(svgOf(trickyPolicies()), {"render"});

    for (const char* const colour :
         {"#ffffff\n", "#cdebc9\n", "#fbe8b4\n", "#f6cfcb\n", "#f0f0f0\n", "#000000\n"}) {
        EXPECT_THAT(colours, HasSubstr(colour));
    }
}

TEST(MatrixTest, WritesThePictureWhereItIsToldTo) {
    auto arguments = of(examplePath("lab"));
    arguments.svg = testing::TempDir() + "matrix.svg";

    EXPECT_EQ(printed(arguments), "");
    EXPECT_THAT(test::contentOf(*arguments.svg), StartsWith("<svg "));

    arguments.svg = "/no/such/folder";
    EXPECT_THAT(
        [&] { printed(arguments); },
        ThrowsMessage<std::runtime_error>(
            "Could not write \"/no/such/folder\": No such file or directory."));
}

}  // namespace
}  // namespace tarnvale::helperctl
