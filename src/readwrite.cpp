#include "readwrite.h"

#include <cstring>
#include <span>

#include "util.h"

namespace
{

constexpr int32_t tag_limit = 8; // bytes of the longest tag

bool read_bytes(std::FILE *fp, std::span<uint8_t> bytes)
{
    if (std::fread(bytes.data(), 1, bytes.size(), fp) == bytes.size()) return true;
    std::fputs("fread() failed.\n", stderr);
    return false;
}

template <typename T, bool big_endian> int32_t read_number(std::FILE *fp, T *value)
{
    std::array<uint8_t, sizeof(T)> bytes;
    if (!read_bytes(fp, bytes)) return 0;
    T number = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const uint8_t byte = bytes[big_endian ? i : bytes.size() - 1 - i];
        number = static_cast<T>(number << 8 | byte);
    }
    *value = number;
    return -1;
}

} // namespace

int32_t read_le32(std::FILE *fp, uint32_t *value)
{
    return read_number<uint32_t, false>(fp, value);
}

int32_t read_le64(std::FILE *fp, uint64_t *value)
{
    return read_number<uint64_t, false>(fp, value);
}

int32_t read_be16(std::FILE *fp, uint16_t *value)
{
    return read_number<uint16_t, true>(fp, value);
}

int32_t read_be32(std::FILE *fp, uint32_t *value)
{
    return read_number<uint32_t, true>(fp, value);
}

int32_t read_be64(std::FILE *fp, uint64_t *value)
{
    return read_number<uint64_t, true>(fp, value);
}

int32_t check_tag(std::FILE *fp, const char *expected, int32_t n)
{
    std::array<char, tag_limit> tag{};
    const auto length = static_cast<size_t>(n);
    if (std::fread(tag.data(), 1, length, fp) != length) {
        report("readwrite", 223, "read() %d bytes failed.\n", n);
        return 0;
    }
    return std::memcmp(tag.data(), expected, length) == 0 ? 1 : 0;
}

bool read_name(std::FILE *fp, chunk_name *name)
{
    return std::fread(name->data(), 1, name->size(), fp) == name->size();
}

bool name_is(const chunk_name &name, const char *text)
{
    return std::memcmp(name.data(), text, name.size()) == 0;
}

bool skip_bytes(std::FILE *fp, uint64_t n)
{
    if (n == 0) return true;
    const off_t here = ftello(fp);
    if (here < 0 || n > static_cast<uint64_t>(INT64_MAX - here)) return false;
    return fseeko(fp, static_cast<off_t>(n), SEEK_CUR) == 0;
}
