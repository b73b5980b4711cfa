#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "dir2files.h"

namespace
{

namespace fs = std::filesystem;

// A fresh folder for each test, and the current directory while it runs.
class Expansion : public testing::Test
{
  protected:
    Expansion()
    {
        fs::current_path(folder);
    }
    ~Expansion() override
    {
        pool_free();
        fs::current_path(before);
        fs::remove_all(folder);
    }
    const fs::path before = fs::current_path();
    const fs::path folder =
        mkdtemp((fs::temp_directory_path() / "sonivane-XXXXXX").string().data());
};

// The list for the arguments, each behind a blank, and behind it what standard error got.
std::string expand(const std::string &line)
{
    std::istringstream stream(line);
    std::vector<std::string> words(std::istream_iterator<std::string>(stream), {});
    std::vector<char *> argv = {nullptr, nullptr}; // two entries taken by options
    for (std::string &word : words) argv.push_back(word.data());
    testing::internal::CaptureStderr();
    std::string result;
    for (char **list = expand_file_list(2, static_cast<int32_t>(argv.size()), argv.data());
         *list != nullptr; ++list)
        result += std::string(" ") + *list;
    return result + testing::internal::GetCapturedStderr();
}

TEST_F(Expansion, FilesAndDirectoriesGiveOneSortedList)
{
    for (const char *path : {"music/sub", "empty", "only/sub"}) fs::create_directories(path);
    for (const char *path : {"b.wav", "a.wav", "A.wav", "music/z.txt", "music/.hidden", "music/b",
                             "music/sub/deep.wav", "only/sub/x"})
        std::ofstream file(path);
    const char *links[][2] = {
        {"z.txt", "music/link"}, {"music", "linked"}, {"a.wav", "c.wav"}, {"no", "dead"}};
    for (const auto &[to, path] : links) fs::create_symlink(to, path);
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    const std::string no_file = "No such file or directory\n\nERROR dir2files 136 cannot stat ";
    const std::pair<const char *, std::string> cases[] = {
        {"b.wav a.wav A.wav b.wav", " A.wav a.wav b.wav b.wav"},
        {"", " ./A.wav ./a.wav ./b.wav"},
        {"music a.wav", " a.wav music/.hidden music/b music/z.txt"},
        {"music/ linked",
         " linked/.hidden linked/b linked/z.txt music/.hidden music/b music/z.txt"},
        {"c.wav music/link pipe /dev/null", " c.wav music/link"},
        {"only empty pipe", ""},
        {"b.wav none a.wav dead", " a.wav b.wav" + no_file + "none\n" + no_file + "dead\n"},
        {"a.wav/x", "Not a directory\n\nERROR dir2files 136 cannot stat a.wav/x\n"},
    };
    for (const auto &[arguments, expected] : cases) EXPECT_EQ(expand(arguments), expected);

    // No free descriptor: the one fault of opendir that even root meets.
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    testing::internal::CaptureStderr();
    const rlimit none = {0, saved.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    walk_path("music");
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Too many open files\n\nERROR dir2files 151 directory music open failed.\n");
}

TEST_F(Expansion, LongPathsAreCutAndSortedUpToALimit)
{
    std::string deep;
    while (deep.size() < 1990) deep += std::string(198, 'd') + "/";
    fs::create_directories(deep);
    const std::string path = deep + std::string(50, 'a') + "123456789";
    std::ofstream file(path);
    EXPECT_EQ(expand(deep), std::string(1, ' ').append(path, 0, 2046));

    for (const char *name : {"1", "2"}) std::ofstream empty(name);
    // What tells the names apart is byte 2048, or the one behind it, where they stay in their
    // order.
    for (const size_t same : {2047U, 2048U}) {
        std::string given, halves[2];
        for (int i = 0; i < 50; ++i) {
            const std::string name = " ." + std::string(same - 1, '/') + (i % 3 == 0 ? "1" : "2");
            given += name;
            halves[i % 3 != 0] += name;
        }
        EXPECT_EQ(expand(given), same < 2048 ? halves[0] + halves[1] : given);
    }
}

TEST_F(Expansion, ThePoolGrowsByWholeDoublings)
{
    const std::string name(5000, 'n');
    const auto add = [&](int32_t length) { pool_add(length, name.c_str()); };
    // Two lengths, the bytes they take, the block's.
    const std::array<int32_t, 4> cases[] = {
        {1022, 0, 1024, 1024},  {1023, 0, 1025, 2048},    {500, 522, 1024, 1024},
        {500, 523, 1025, 2048}, {4095, 4095, 8192, 8192}, {5000, 0, 5002, 8192},
    };
    for (const auto &[first, second, used, size] : cases) {
        pool_free();
        add(first);
        add(second);
        EXPECT_EQ(pool_chars_used, used);
        EXPECT_EQ(pool_chars_size, size);
    }
    while (pool_count < 128) add(1);
    EXPECT_EQ(pool_capacity, 128);
    add(1);
    EXPECT_EQ(pool_capacity, 256);
    EXPECT_STREQ(pool_chars + pool_offsets[128], "n");
    pool_reset();
    EXPECT_EQ(pool_count + pool_chars_used, 0);
    EXPECT_EQ(pool_capacity + pool_chars_size, 256 + 8192) << "kept for the next list";

    // The number alone is brought to its limit: what would pass it must not be stored.
    pool_chars_used = std::numeric_limits<int32_t>::max();
    add(1);
    EXPECT_EQ(pool_count, 0);
}

} // namespace
