#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "dir2files.h"

namespace
{

namespace fs = std::filesystem;
using names = std::vector<std::string>;

// A fresh folder for each test, and the current directory while it runs.
class Expansion : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::string pattern = fs::temp_directory_path() / "sonivane-XXXXXX";
        folder = mkdtemp(pattern.data());
        before = fs::current_path();
        fs::current_path(folder);
    }
    void TearDown() override
    {
        pool_free();
        fs::current_path(before);
        fs::remove_all(folder);
    }
    static void touch(const fs::path &path)
    {
        std::ofstream file(path);
    }
    // The list for the arguments, and what was printed on standard error.
    names expand(names arguments)
    {
        std::vector<char *> argv = {nullptr, nullptr}; // two entries taken by options
        for (std::string &argument : arguments) argv.push_back(argument.data());
        testing::internal::CaptureStderr();
        char **list = expand_file_list(2, static_cast<int32_t>(argv.size()), argv.data());
        errors = testing::internal::GetCapturedStderr();
        names result;
        for (; *list != nullptr; ++list) result.emplace_back(*list);
        return result;
    }
    fs::path folder, before;
    std::string errors;
};

TEST_F(Expansion, FilesAndDirectoriesGiveOneSortedList)
{
    fs::create_directories("music/sub");
    fs::create_directory("empty");
    fs::create_directory("only/");
    fs::create_directory("only/sub");
    for (const char *path : {"b.wav", "a.wav", "A.wav", "music/z.txt", "music/.hidden", "music/b",
                             "music/sub/deep.wav", "only/sub/x"})
        touch(path);
    fs::create_symlink("z.txt", "music/link");
    fs::create_symlink("../a.wav", "music/outside");
    fs::create_directory_symlink("music", "linked");
    fs::create_symlink("a.wav", "c.wav");
    ASSERT_EQ(mkfifo("pipe", 0600), 0);

    const struct {
        names arguments, expected;
    } cases[] = {
        {{"b.wav", "a.wav"}, {"a.wav", "b.wav"}},
        {{"a.wav", "b.wav", "a.wav", "A.wav"}, {"A.wav", "a.wav", "a.wav", "b.wav"}},
        {{}, {"./A.wav", "./a.wav", "./b.wav"}},
        {{"music", "a.wav"}, {"a.wav", "music/.hidden", "music/b", "music/z.txt"}},
        {{"music/"}, {"music/.hidden", "music/b", "music/z.txt"}},
        {{"linked"}, {"linked/.hidden", "linked/b", "linked/z.txt"}},
        {{"c.wav", "music/link", "pipe", "/dev/null"}, {"c.wav", "music/link"}},
        {{"only"}, {}},
        {{"empty", "pipe"}, {}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(expand(c.arguments), c.expected);
        EXPECT_EQ(errors, "");
    }
}

TEST_F(Expansion, WhatCannotBeReadIsReportedAndLeftOut)
{
    touch("a.wav");
    touch("b.wav");
    fs::create_symlink("nowhere", "dangling");
    EXPECT_EQ(expand({"b.wav", "missing", "a.wav"}), (names{"a.wav", "b.wav"}));
    EXPECT_EQ(errors, "No such file or directory\n\nERROR dir2files 136 cannot stat missing\n");
    EXPECT_EQ(expand({"dangling"}), names{});
    EXPECT_EQ(errors, "No such file or directory\n\nERROR dir2files 136 cannot stat dangling\n");
    EXPECT_EQ(expand({"a.wav/x"}), names{});
    EXPECT_EQ(errors, "Not a directory\n\nERROR dir2files 136 cannot stat a.wav/x\n");
}

TEST_F(Expansion, ADirectoryThatCannotBeOpenedIsReported)
{
    fs::create_directory("closed");
    touch("a.wav");
    // No free descriptor: the one fault of opendir that even root meets.
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    testing::internal::CaptureStderr();
    const rlimit none = {0, saved.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    walk_path("closed");
    walk_path("a.wav");
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Too many open files\n\nERROR dir2files 151 directory closed open failed.\n");
    EXPECT_EQ(pool_count, 1);
}

TEST_F(Expansion, AComposedPathIsCut)
{
    std::string deep;
    while (deep.size() < 1990) deep += std::string(198, 'd') + "/";
    fs::create_directories(deep);
    const std::string name = std::string(50, 'a') + "123456789";
    touch(deep + name);
    EXPECT_EQ(expand({deep}), names{(deep + name).substr(0, 2046)});
}

TEST_F(Expansion, NamesEqualWithinTheLimitStayInTheirOrder)
{
    touch("2");
    touch("1");
    names far, near; // what tells them apart lies behind 2048 bytes, or before
    for (int i = 0; i < 50; ++i) {
        const std::string name = i % 3 == 0 ? "1" : "2";
        far.push_back(fs::current_path().string() + std::string(2048, '/') + name);
        near.push_back("./" + name);
    }
    EXPECT_EQ(expand(far), far);
    names sorted = near;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(expand(near), sorted);
}

TEST_F(Expansion, ManyNamesTakeWellUnderASecond)
{
    touch("a");
    names arguments;
    for (int i = 0; i < 10000; ++i) arguments.push_back(i % 7 % 2 == 0 ? "./a" : "a");
    const auto start = std::chrono::steady_clock::now();
    const names list = expand(arguments);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(list.size(), 10000U);
    EXPECT_TRUE(std::is_sorted(list.begin(), list.end()));
}

// --- The pool -----------------------------------------------------------------------------------

class Pool : public testing::Test
{
  protected:
    void TearDown() override
    {
        pool_free();
    }
    static void add(size_t length)
    {
        const std::string name(length, 'n');
        pool_add(static_cast<int32_t>(length), name.c_str());
    }
};

TEST_F(Pool, GrowsByWholeDoublings)
{
    const struct {
        std::vector<size_t> lengths;
        int32_t used, size;
    } cases[] = {
        {{0}, 1, 1024},       {{1023}, 1024, 1024},     {{1022, 0}, 1024, 1024},
        {{1024}, 1025, 2048}, {{500, 523}, 1025, 2048}, {{500, 522}, 1024, 1024},
        {{5000}, 5001, 8192}, {{1023, 0}, 1025, 2048},  {{4095, 4095}, 8192, 8192},
    };
    for (const auto &c : cases) {
        for (const size_t length : c.lengths) add(length);
        EXPECT_EQ(pool_chars_used, c.used);
        EXPECT_EQ(pool_chars_size, c.size);
        pool_free();
    }
    for (int32_t i = 0; i < 128; ++i) add(1);
    EXPECT_EQ(pool_capacity, 128);
    add(1);
    EXPECT_EQ(pool_capacity, 256);
    EXPECT_EQ(pool_offsets[128], 256);
    EXPECT_STREQ(pool_chars + pool_offsets[128], "n");
}

TEST_F(Pool, AResetKeepsTheStorageAndAFreeDoesNot)
{
    add(3000);
    pool_reset();
    EXPECT_EQ(pool_count + pool_chars_used, 0);
    EXPECT_EQ(pool_chars_size, 4096);
    EXPECT_EQ(pool_capacity, 128);
    pool_free();
    pool_free();
    EXPECT_EQ(pool_chars_size + pool_capacity, 0);
    EXPECT_EQ(pool_chars, nullptr);
    EXPECT_EQ(pool_offsets, nullptr);
}

// The numbers alone are brought to their limit: a name that would pass it must not be stored.
TEST_F(Pool, ANameThatOffsetsCannotReachIsDropped)
{
    constexpr int32_t limit = std::numeric_limits<int32_t>::max();
    add(1);
    pool_chars_size = 1 << 30;
    for (const int32_t used : {1 << 30, limit - 2, limit - 1, limit}) {
        pool_chars_used = used;
        add(1);
        EXPECT_EQ(pool_count, 1);
        EXPECT_EQ(pool_chars_used, used);
    }
    pool_chars_used = 2;
    pool_capacity = pool_count = 1 << 30;
    add(1);
    EXPECT_EQ(pool_count, 1 << 30);
    EXPECT_EQ(pool_chars_used, 2);
}

// The sanitizers have an allocator of their own, which does not run out this way.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED
#endif
#endif
#if !defined(SANITIZED) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Expands 20000 names with no block of memory of 64 KiB left. Ends the process: with 1 when the
// list is whole, 2 when it is empty and the pool whole, 3 when the pool is short and the list no
// longer.
[[noreturn]] void expand_without_memory(bool pool_is_large)
{
    static char file[] = "/etc/passwd";
    std::vector<char *> argv(20000, file);
    const auto count = static_cast<int32_t>(argv.size());
    if (pool_is_large) expand_file_list(0, count, argv.data());
    pool_reset();
    const rlimit none = {1 << 20, 1 << 20}; // less than the process has: nothing more
    setrlimit(RLIMIT_AS, &none);
    void *volatile block = nullptr; // so that no compiler leaves the calls out
    do {
        block = std::malloc(1 << 16);
    } while (block != nullptr);
    char **list = expand_file_list(0, count, argv.data());
    int32_t listed = 0;
    while (list[listed] != nullptr) ++listed;
    const int32_t stored = pool_count;
    pool_reset(); // must not take the empty list for its own
    if (listed == count) _exit(1);
    if (stored == count && listed == 0) _exit(2);
    _exit(stored > 0 && stored < count && (listed == 0 || listed == stored) ? 3 : 4);
}

TEST_F(Pool, ALackOfMemoryGivesAShorterOrAnEmptyList)
{
    EXPECT_EXIT(expand_without_memory(true), testing::ExitedWithCode(2), "");
    EXPECT_EXIT(expand_without_memory(false), testing::ExitedWithCode(3), "");
}
#endif

} // namespace
