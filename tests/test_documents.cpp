// Holds what is told about the player together with what it does: options, modes, report numbers,
// exit statuses and the version, as they stand in the sources, the usage text, the manual page, the
// completions and the changelogs.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "parse_param.h"

namespace
{

namespace fs = std::filesystem;
using words = std::set<std::string>;

const fs::path tree = fs::path(__FILE__).parent_path().parent_path();

std::string text_of(const fs::path &name)
{
    std::ifstream file(tree / name);
    EXPECT_TRUE(file) << name;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// All that the pattern's group finds, put behind a prefix.
words find_all(const std::string &text, const char *pattern, const std::string &prefix = "")
{
    const std::regex expression(pattern, std::regex::ECMAScript | std::regex::multiline);
    words found;
    for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end;
         ++match)
        found.insert(prefix + match->str(1));
    return found;
}

words join(words a, const words &b)
{
    a.insert(b.begin(), b.end());
    return a;
}

const words &parser_options()
{
    static const words options =
        find_all(text_of("src/parse_param.cpp"), R"re(^ +\{"(-[^"]+)", value_place)re");
    return options;
}

std::string without(std::string text, const std::string &cut)
{
    for (size_t at = text.find(cut); at != std::string::npos; at = text.find(cut))
        text.erase(at, cut.size());
    return text;
}

// What the pattern's group finds in each unit, behind the unit's name.
words find_in_sources(const char *pattern)
{
    words found;
    for (const fs::directory_entry &file : fs::directory_iterator(tree / "src")) {
        if (file.path().extension() != ".cpp") continue;
        const std::string unit = file.path().stem().string() + " ";
        found = join(found, find_all(text_of(file.path()), pattern, unit));
    }
    return found;
}

// A report's number stands in front of its text, or in a constant named after it.
words reports_in_sources()
{
    return join(find_in_sources(R"re(\b(\d{2,4}),\s*(?:"|no_memory))re"),
                find_in_sources(R"re(constexpr int32_t report_\w+ = (\d+);)re"));
}

// Those that are printed by a call that returns. The filter leaves by a road of its own, behind
// every one of them.
words mild_reports_in_sources()
{
    words mild = join(find_in_sources(R"re(\breport\(\s*(?:unit|"\w+"),\s*(\d+))re"),
                      find_in_sources(R"re(\breport_system_error\(\s*(\d+))re"));
    mild.insert("ringbuffer 16");
    std::erase_if(mild, [](const std::string &name) { return name.starts_with("common "); });
    return mild;
}

} // namespace

TEST(documents, usage_tells_options_of_the_parser)
{
    testing::internal::CaptureStdout();
    print_usage("sonivane");
    const words told =
        find_all(testing::internal::GetCapturedStdout(), R"re(^params:\t\t(-[^ \t]+))re");
    EXPECT_EQ(told.size(), 8U);
    for (const std::string &word : told) EXPECT_TRUE(parser_options().contains(word)) << word;
}

TEST(documents, manual_page_has_every_option_twice)
{
    const std::string page = without(text_of("docs/sonivane.1"), R"(\&)");
    const size_t description = page.find("\n.Sh DESCRIPTION");
    ASSERT_NE(description, std::string::npos);
    const char *flag = R"re(\bFl ([^ \n]+))re";
    EXPECT_EQ(find_all(page.substr(0, description), flag, "-"), parser_options());
    const words entries = join(find_all(page, R"re(^\.It Fl ([^ \n]+))re", "-"),
                               find_all(page, R"re(, Fl (.)$)re", "-"));
    EXPECT_EQ(entries, parser_options());
    EXPECT_EQ(find_all(page, flag, "-"), parser_options()); // and no other is spoken of
}

TEST(documents, completions_offer_every_option)
{
    const std::string bash = text_of("docs/completions/sonivane.bash");
    const size_t first = bash.find("compgen -W '-os");
    ASSERT_NE(first, std::string::npos);
    const std::string list = bash.substr(first, bash.find("' --", first) - first);
    EXPECT_EQ(find_all(list, R"re([ '](-[^ '\nW]+))re"), parser_options());

    const std::string zsh = without(text_of("docs/completions/_sonivane"), R"(\)");
    words offered = find_all(zsh, R"re(^ +'(?:\([^)]*\))?\*?(-[^[]+)\[)re");
    EXPECT_EQ(offered.erase("--mode=-"), 1U); // the value follows in the same word
    offered.insert("--mode=");
    EXPECT_EQ(offered, parser_options());

    const std::string fish = text_of("docs/completions/sonivane.fish");
    offered = join(find_all(fish, R"re(^complete -c sonivane -[so] '?([^ ']+))re", "-"),
                   find_all(fish, R"re(^complete -c sonivane -l ([^ ]+))re", "--"));
    EXPECT_EQ(offered.erase("--mode"), 1U);
    offered.insert("--mode=");
    EXPECT_EQ(offered, parser_options());
}

TEST(documents, modes_are_offered_as_the_parser_knows_them)
{
    const std::string table = text_of("src/parse_param.cpp");
    const words modes = find_all(table, R"re(\{"(\w+", "[^"]+)"\})re");
    EXPECT_EQ(modes.size(), 2U);
    for (const std::string &row : modes) {
        const std::string name = row.substr(0, row.find('"'));
        const std::string label = row.substr(row.rfind('"') + 1);
        const std::string bash = text_of("docs/completions/sonivane.bash");
        const words in_bash = find_all(bash, R"re(--mode\)\n[^']*'([^']*)')re");
        ASSERT_EQ(in_bash.size(), 1U);
        EXPECT_NE((" " + *in_bash.begin() + " ").find(" " + name + " "), std::string::npos) << name;
        EXPECT_NE(text_of("docs/completions/_sonivane").find(name + "\\:" + label),
                  std::string::npos);
        EXPECT_NE(text_of("docs/completions/sonivane.fish").find(name + "\\t" + label),
                  std::string::npos);
        EXPECT_NE(text_of("docs/sonivane.1").find(".Ql " + label + "\nfor the name " + name),
                  std::string::npos);
    }
}

TEST(documents, manual_page_tells_every_report_and_its_exit_status)
{
    const std::string page = text_of("docs/sonivane.1");
    const words told = find_all(page, R"re(^\.It Sy (\w+ \d+) No )re");
    const words printed = reports_in_sources();
    EXPECT_GT(printed.size(), 55U);
    for (const std::string &name : printed) EXPECT_TRUE(told.contains(name)) << name;
    for (const std::string &name : told) EXPECT_TRUE(printed.contains(name)) << name;

    const words fatal = find_all(page, R"re(^\.It Sy (\w+ \d+ No \(status \d+)\))re");
    const words goes_on = find_all(page, R"re(^\.It Sy (\w+ \d+) No \(goes on\))re");
    EXPECT_EQ(fatal.size() + goes_on.size(), told.size());
    EXPECT_EQ(goes_on, mild_reports_in_sources());
    for (const std::string &entry : fatal) {
        const int number = std::stoi(entry.substr(entry.find(' ')));
        EXPECT_EQ(std::stoi(entry.substr(entry.rfind(' '))), number & 0xFF) << entry;
    }
}

TEST(documents, versions_agree)
{
    const words version = find_all(text_of("CMakeLists.txt"), R"re(sonivane VERSION (\S+))re");
    ASSERT_EQ(version.size(), 1U);
    EXPECT_EQ(find_all(text_of("src/parse_param.cpp"), R"re(Ver\.([\d.]+))re"), version);
    EXPECT_TRUE(
        text_of("docs/changelog.Debian").starts_with("sonivane (" + *version.begin() + "-"));
    EXPECT_TRUE(
        find_all(text_of("CHANGELOG.md"), R"re(^## ([\d.]+))re").contains(*version.begin()));
}
