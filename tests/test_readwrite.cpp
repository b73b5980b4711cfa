// Numbers, tags and chunk names from a stream.
#include "readwrite.h"

#include <gtest/gtest.h>

#include "open_bytes.h"

namespace
{

constexpr uint64_t untouched = 0x5A5A5A5A5A5A5A5A;

// Reads one number, widened; *value is untouched's low part before.
template <typename T, int32_t (*read)(std::FILE *, T *)> int32_t widened(std::FILE *fp, uint64_t *v)
{
    T value = static_cast<T>(untouched);
    const int32_t result = read(fp, &value);
    *v = value;
    return result;
}

TEST(Readwrite, NumbersInBothOrdersAndCutShort)
{
    const struct {
        int32_t (*read)(std::FILE *, uint64_t *);
        size_t width;
        uint64_t expected; // of F0 01 02 .. 07
    } cases[] = {
        {widened<uint32_t, read_le32>, 4, 0x030201F0},
        {widened<uint64_t, read_le64>, 8, 0x07060504030201F0},
        {widened<uint16_t, read_be16>, 2, 0xF001},
        {widened<uint32_t, read_be32>, 4, 0xF0010203},
        {widened<uint64_t, read_be64>, 8, 0xF001020304050607},
    };
    const bytes content = hex_bytes("F0 01 02 03 04 05 06 07");
    for (const auto &c : cases) {
        for (size_t length = 0; length <= c.width; ++length) {
            SCOPED_TRACE(testing::Message() << c.width << " bytes wanted, " << length << " there");
            std::FILE *fp = open_fuzz_file(content.data(), length);
            uint64_t value = 0;
            testing::internal::CaptureStderr();
            const int32_t result = c.read(fp, &value);
            const std::string printed = testing::internal::GetCapturedStderr();
            const bool whole = length == c.width;
            const uint64_t kept = untouched >> (64 - 8 * c.width);
            EXPECT_EQ(result, whole ? -1 : 0);
            EXPECT_EQ(value, whole ? c.expected : kept);
            EXPECT_EQ(printed, whole ? "" : "fread() failed.\n");
            EXPECT_EQ(std::ftell(fp), static_cast<long>(length));
            std::fclose(fp);
        }
    }
}

TEST(Readwrite, TagsAreComparedWhole)
{
    const std::tuple<std::string, int32_t, const char *> cases[] = {
        {"WAVEds64xx", 1, ""},
        {"WAVEds65xx", 0, ""},
        {"WAVEds6", 0, "\nERROR readwrite 223 read() 8 bytes failed.\n"},
    };
    for (const auto &[content, result, printed] : cases) {
        const bytes file = text(content);
        std::FILE *fp = open_fuzz_file(file.data(), file.size());
        testing::internal::CaptureStderr();
        EXPECT_EQ(check_tag(fp, "WAVEds64", 8), result);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), printed);
        EXPECT_EQ(std::ftell(fp), static_cast<long>(std::min<size_t>(file.size(), 8)));
        std::fclose(fp);
    }
}

TEST(Readwrite, SkipsForwardOnly)
{
    const bytes content(16);
    std::FILE *fp = open_fuzz_file(content.data(), content.size());
    EXPECT_TRUE(skip_bytes(fp, 10));
    for (const uint64_t n :
         {UINT64_MAX, UINT64_MAX - 9, uint64_t{1} << 63, uint64_t{INT64_MAX} - 9})
        EXPECT_FALSE(skip_bytes(fp, n)) << n;
    EXPECT_EQ(std::ftell(fp), 10);
    EXPECT_TRUE(skip_bytes(fp, uint64_t{INT64_MAX} - 10));
    chunk_name name;
    EXPECT_FALSE(read_name(fp, &name));
    std::fclose(fp);
}

} // namespace
