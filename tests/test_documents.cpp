// Compares the manual page, the completions, docs/front-end.md, the README and the changelogs with
// the sources: options, modes, report numbers, exit statuses, events and the version.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>

namespace
{

namespace fs = std::filesystem;
using words = std::set<std::string>;

const fs::path tree = SOURCE_TREE;

// The content of a file. Empty if there is no such file; every test here then fails.
std::string text_of(const fs::path &name)
{
    std::ifstream file(tree / name);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The part of text from the first `from` to the next `to`.
std::string part_of(const std::string &text, const std::string &from, const std::string &to)
{
    const size_t start = text.find(from);
    return text.substr(start, text.find(to, start + from.size()) - start);
}

// All matches of a pattern, each formatted from its groups.
words find_all(const std::string &text, const char *pattern, const std::string &form = "$1$2")
{
    words found;
    const std::regex expression(pattern, std::regex::ECMAScript | std::regex::multiline);
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
        found.insert(at->format(form));
    return found;
}

TEST(documents, describe_the_options_and_modes_of_the_parser)
{
    const std::string parser = text_of("src/parse_param.cpp"), page = text_of("docs/sonivane.1"),
                      bash = text_of("docs/completions/sonivane.bash"),
                      zsh = text_of("docs/completions/_sonivane"),
                      fish = text_of("docs/completions/sonivane.fish");
    const words options = find_all(parser, R"re(^ +\{"(-[^"=]+))re");
    EXPECT_GT(options.size(), 8U);
    const char *const flag = R"(\bFl ([^\s\\=]+))";
    EXPECT_EQ(find_all(part_of(page, "", ".Sh DESCRIPTION"), flag, "-$1"), options);
    EXPECT_EQ(find_all(page, flag, "-$1"), options);
    EXPECT_EQ(find_all(page, R"(^\.It Fl ([^\s=]+)|, Fl (.)\\&$)", "-$1$2"), options);
    EXPECT_EQ(find_all(part_of(bash, "'-os", "' --"), "(-[^\\s'=]+)"), options);
    EXPECT_EQ(find_all(zsh, R"(^ +'(?:\*|\(- \*\))?(-[^=[\\]*)\\?(\??))"), options);
    const std::string spelled = std::regex_replace(fish, std::regex(" -l | -a '--"), " -o -");
    EXPECT_EQ(find_all(spelled, R"(^complete -c sonivane (-)[so] '?([^\s'=]+))"), options);

    // Two sets: the options whose value is the next word, and all options with a value.
    const char *const option = R"((--?\w[-\w]*))";
    const words next = find_all(parser, R"re(^ +\{"(\S+)", value_place::next_entry)re");
    const words valued = find_all(parser, R"re(^ +\{"([^"=]+)=?", value_place::[na][^o])re");
    EXPECT_EQ(find_all(part_of(bash, "case ${words", "((++i))"), option), next);
    EXPECT_EQ(find_all(part_of(fish, "contains -- $word", "\n"), option), next);
    EXPECT_EQ(find_all(part_of(bash, "case $prev", "esac"), R"((-\S+)(?=\)$| \|))"), valued);
    EXPECT_EQ(find_all(spelled, R"(^complete -c sonivane (-)[so] ([^\s=]+)(?:=| -x))"), valued);

    const words modes = find_all(parser, R"re(\{"(\w)", "([^"]+))re");
    EXPECT_EQ(find_all(page, R"(\.Ql (\S+)\nfor the name (\w))", "$2$1"), modes);
    EXPECT_EQ(find_all(zsh, R"((\w)\\:([\w-]+))"), modes);
    EXPECT_EQ(find_all(fish, R"((\w)\\t([\w-]+))"), modes);
    EXPECT_EQ(find_all(bash, "([1-9])[ ']"), find_all(parser, R"re(\{"(\w)", ")re"));
}

// The bash completion offers options only before the first name.
TEST(documents, offer_options_before_names_only)
{
    const std::string script = (tree / "docs/completions/sonivane.bash").string();
    const std::string complete =
        "bash -c 'complete() { :; }; . \"$0\"; line=($1)\n"
        "_init_completion() { words=(${line[*]}) cur=${line[-1]} cword=$((${#line[*]} - 1)); }\n"
        "_sonivane; test ${#COMPREPLY[*]} -gt 2' '" +
        script + "' 'sonivane -os -B 4M ";
    EXPECT_EQ(std::system((complete + "--s'").c_str()), 0);       // NOLINT(cert-env33-c)
    EXPECT_NE(std::system((complete + "a.wav --s'").c_str()), 0); // NOLINT(cert-env33-c)
}

// In the sources the number of a report is before its text, or in a constant report_*. After a
// report that is printed by a function that returns, the player goes on. The exception is report
// 153 of the filter, after which the process ends.
TEST(documents, list_every_report_and_its_exit_status)
{
    words printed, nonfatal = {"ringbuffer 16"};
    for (const auto &entry : fs::directory_iterator(tree / "src")) {
        const fs::path &file = entry.path();
        const std::string stem = file.stem().string(), unit = stem == "lookout" ? "sonivane" : stem;
        const std::string text = text_of(file), form = unit + " $1$2";
        if (file.extension() != ".cpp") continue;
        printed.merge(find_all(text, R"re(\b([0-9]{2,4}),\s*["n]|report_\w+ = ([0-9]+))re", form));
        nonfatal.merge(find_all(
            text, R"re(\b(?:stopping_)?report(?:\(\s*[a-z"]+,|_system_error\()\s*([0-9]+))re",
            form));
    }
    EXPECT_GT(printed.size(), 55U);
    nonfatal.erase("common 153");
    words entries, rows;
    for (const std::string &name : printed) {
        const std::string number = name.substr(name.find(' ') + 1);
        const auto status = std::to_string(std::stoi(number) & 0xFF);
        const bool goes_on = nonfatal.contains(name);
        entries.insert(name + (goes_on ? " goes on" : " status " + status));
        rows.insert(name + (goes_on ? " –" : " " + (status == number ? "same" : status)));
    }
    const std::string page = text_of("docs/sonivane.1");
    EXPECT_EQ(find_all(page, R"(^\.It Sy (\w+ [0-9]+) No \(([^)]+)\)$)", "$1 $2"), entries);
    const words listed =
        find_all(text_of("README.md"), R"(^\| `(\w+) .*?([0-9]+)` \| (\S+) \|)", "$1 $2 $3");
    EXPECT_GT(listed.size(), 10U);
    EXPECT_TRUE(std::ranges::includes(rows, listed)) << testing::PrintToString(listed);
}

TEST(documents, describe_the_events_with_their_fields_and_values)
{
    const std::string page = text_of("docs/front-end.md"), source = text_of("src/events.cpp"),
                      player = text_of("src/sonivane.cpp") + text_of("src/dir2files.cpp"),
                      table = part_of(page, "| Event", "\n\n"),
                      fields = std::regex_replace(table, std::regex("\\|[^|]*\\|\n"), "\n");
    // The names of the events, each followed by its fields with a leading blank, in their order.
    const auto listed = [](const std::string &text, const char *pattern) {
        return std::regex_replace(text, std::regex(pattern), "$1\n $2$3",
                                  std::regex_constants::format_no_copy);
    };
    std::string sent = listed(part_of(source, "void event_", "\n\n\n"),
                              R"re(_line>\(\s*"([^"]+)"|_field\{"(\w+)"|\b(seconds)_into\()re");
    const size_t end = sent.find("end\n"); // sent by two calls; the second one has all fields
    sent.erase(end, sent.rfind("end\n") - end);
    EXPECT_EQ(listed(fields, R"(\n\| `([^`]+)` |`(\w+)`)"), sent);

    words values = {"rf64", "pcm", "native", "dop", "i2s", "report"};
    values.merge(
        find_all(player, R"re(\{container_\w+, "(\w+)"|(?:_left_out|_error)\(.*"([^"\n]+)"\))re"));
    EXPECT_EQ(find_all(table, "`\"([^`]+)\"`"), values);
    EXPECT_EQ(find_all(part_of(page, "## Reasons", "## "), "^\\| `([^`]+)` \\| \\w"),
              find_all(part_of(source, "name_of(stop_reason", "\n}"), "return \"([^\"]+)"));
}

TEST(documents, have_the_same_version)
{
    const words version = find_all(text_of("CMakeLists.txt"), R"(sonivane VERSION (\S+))");
    ASSERT_EQ(version.size(), 1U);
    EXPECT_TRUE(text_of("debian/changelog").starts_with("sonivane (" + *version.begin() + ") "));
    EXPECT_TRUE(find_all(text_of("CHANGELOG.md"), "^## ([0-9.]+)").contains(*version.begin()));
}

} // namespace
