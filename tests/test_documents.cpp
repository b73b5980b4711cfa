// Holds what is told about the player together with what it does: options, modes, report numbers,
// exit statuses and the version, as they stand in the sources, the manual page, the completions and
// the changelogs.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <utility>

namespace
{

namespace fs = std::filesystem;
using words = std::set<std::string>;

const fs::path tree = SOURCE_TREE;

// Empty when there is none, which fits nothing here.
std::string text_of(const fs::path &name)
{
    std::ifstream file(tree / name);
    return {std::istreambuf_iterator<char>(file), {}};
}

// What the group that took part of each match is, put behind a prefix.
words find_all(const std::string &text, const char *pattern, const std::string &prefix = "")
{
    words found;
    const std::regex expression(pattern, std::regex::ECMAScript | std::regex::multiline);
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
        found.insert(prefix + at->format("$1$2"));
    return found;
}

// What the expression finds in each unit, behind the unit's name.
words find_in_sources(const char *pattern)
{
    words found;
    for (const auto &entry : fs::directory_iterator(tree / "src"))
        if (const fs::path &file = entry.path(); file.extension() == ".cpp")
            found.merge(find_all(text_of(file), pattern, file.stem().string() + " "));
    return found;
}

TEST(documents, tell_the_options_of_the_parser)
{
    const words options = find_all(text_of("src/parse_param.cpp"), R"re(^ +\{"(-[^"=]+))re");
    EXPECT_GT(options.size(), 8U);
    const std::string page = text_of("docs/sonivane.1");
    const std::string synopsis = page.substr(0, page.find(".Sh DESCRIPTION"));
    EXPECT_EQ(find_all(synopsis, R"(\bFl ([^\s\\=]+))", "-"), options);
    EXPECT_EQ(find_all(page, R"(\bFl ([^\s\\=]+))", "-"), options);
    EXPECT_EQ(find_all(page, R"(^\.It Fl ([^\s=]+)|, Fl (.)\\&$)", "-"), options);
    std::string bash = text_of("docs/completions/sonivane.bash");
    bash.erase(0, bash.find("'-os"));
    EXPECT_EQ(find_all(bash.substr(0, bash.find("' --")), R"((-[^\s'=]+))"), options);
    std::string zsh = text_of("docs/completions/_sonivane");
    std::erase(zsh, '\\');
    EXPECT_EQ(find_all(zsh, R"re(^ +'\*?(-[^=[]+)|^ +'\(- \*\)(-[^[]+))re"), options);
    const std::string fish = text_of("docs/completions/sonivane.fish");
    words offered = find_all(fish, R"(^complete -c sonivane -[so] '?([^\s']+))", "-");
    offered.merge(find_all(fish, R"(^complete -c sonivane -l (\S+))", "--"));
    EXPECT_EQ(offered, options);
}

// Behind a name the player takes none.
TEST(documents, offer_options_in_front_of_names_only)
{
    const std::string complete =
        "bash -c 'complete() { :; }; . \"$0\"; line=($1)\n"
        "_init_completion() { words=(${line[*]}) cur=${line[-1]} cword=$((${#line[*]} - 1)); }\n"
        "_sonivane; test ${#COMPREPLY[*]} -gt 2' '" +
        (tree / "docs/completions/sonivane.bash").string() + "' ";
    for (const auto &[line, offers] :
         {std::pair("'sonivane --s'", true), std::pair("'sonivane -D x -B 4M --s'", true),
          std::pair("'sonivane --skip a.wav -os --s'", true),
          std::pair("'sonivane a.wav --s'", false), std::pair("'sonivane -os -D x b --s'", false)})
        EXPECT_EQ(std::system((complete + line).c_str()) == 0, offers)
            << line; // NOLINT(cert-env33-c)
}

// A mode as it stands in the completions of zsh and fish and in the manual page.
words forms_of_mode(const std::string &name, const std::string &label)
{
    return {name + "\\:" + label, name + "\\t" + label, ".Ql " + label + "\nfor the name " + name};
}

TEST(documents, tell_the_modes_of_the_parser)
{
    const std::string docs = text_of("docs/completions/_sonivane") + text_of("docs/sonivane.1") +
                             text_of("docs/completions/sonivane.fish");
    std::string names;
    for (const auto &mode : find_all(text_of("src/parse_param.cpp"), R"r(\{"(\w", "[^"]+))r")) {
        names.append(names.empty() ? "" : " ").append(1, mode[0]);
        for (const std::string &told : forms_of_mode(mode.substr(0, 1), mode.substr(5)))
            EXPECT_NE(docs.find(told), std::string::npos) << told;
    }
    EXPECT_EQ(find_all(text_of("docs/completions/sonivane.bash"), "-W '(. [^']+)'"), words{names});
}

// A report's number stands in front of its text, or in a constant named after it. The mild ones are
// printed by a call that returns, but for the filter, which leaves in a way of its own.
TEST(documents, tell_every_report_and_its_exit_status)
{
    const words printed = find_in_sources(R"re(\b([0-9]{2,4}),\s*["n]|report_\w+ = ([0-9]+))re");
    EXPECT_GT(printed.size(), 55U);
    words mild = find_in_sources(R"re(\breport(?:\(\s*[a-z"]+,|_system_error\()\s*([0-9]+))re");
    mild.insert("ringbuffer 16");
    mild.erase("common 153");
    words entries;
    for (const std::string &name : printed) {
        const auto number = std::to_string(std::stoi(name.substr(name.find(' '))) & 0xFF);
        const std::string end = mild.contains(name) ? "goes on" : "status " + number;
        entries.insert(std::string(name).append(" No (").append(end));
    }
    const std::string page = text_of("docs/sonivane.1");
    EXPECT_EQ(find_all(page, R"(^\.It Sy (\w+ [0-9]+ No [^)]+)\)$)"), entries);
}

TEST(documents, tell_one_version)
{
    const words version = find_all(text_of("CMakeLists.txt"), R"(sonivane VERSION (\S+))");
    ASSERT_EQ(version.size(), 1U);
    EXPECT_TRUE(text_of("debian/changelog").starts_with("sonivane (" + *version.begin() + ") "));
    EXPECT_TRUE(find_all(text_of("CHANGELOG.md"), "^## ([0-9.]+)").contains(*version.begin()));
}

} // namespace
