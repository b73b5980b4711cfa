#include "parse_param.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dir2files.h"
#include "events.h"
#include "lookout.h"
#include "sonivane.h"
#include "util.h"

namespace
{

constexpr const char *unit = "parse_param";

constexpr const char *version_text = "Plays PCM and DSD files bit-perfect to one ALSA device";

constexpr int usage_status = 1; // exit status

constexpr size_t longest_compare = 1025; // bytes that strings_equal looks at

const char *program_name; // argv[0], for the usage text

// --- Values of options --------------------------------------------------------------------------

struct mode_row {
    const char *name;
    const char *label; // printed at the end of the status line
};
constexpr mode_row mode_table[] = {{"1", "DoP"}, {"2", "Bi-Naural"}, {nullptr, nullptr}};

struct size_factor {
    char letter;
    int64_t bytes;
};
constexpr std::array<size_factor, 4> size_factors = {
    {{'K', 1024}, {'k', 1024}, {'M', 1048576}, {'m', 1048576}}};

// Larger than any ring, and small enough to be multiplied by every factor. Numbers are clamped to
// it, so that one with too many digits is refused as too large and cannot wrap to a smaller size.
constexpr long long largest_number = 1LL << 32;

int64_t factor_of(char letter)
{
    for (const size_factor &factor : size_factors)
        if (factor.letter == letter) return factor.bytes;
    return 1;
}

// --- What the options do ------------------------------------------------------------------------

[[noreturn]] void show_usage(const char *)
{
    print_usage(program_name);
    std::exit(usage_status);
}

[[noreturn]] void show_version(const char *)
{
    std::printf("sonivane Ver." SONIVANE_VERSION " %s\n", version_text);
    std::exit(EXIT_SUCCESS);
}

void set_device(const char *name)
{
    std::snprintf(device_name.data(), device_name.size(), "%s", name);
}

// In bytes. A negative number becomes an unsigned size above all limits, which is refused later.
uint64_t read_size(const char *size)
{
    char *end = nullptr;
    const long long number = std::strtoll(size, &end, 10);
    if (end == size) {
        print_usage(program_name);
        fatal_report(unit, 183, "illegal buffer size %s passed.\n", printable(size));
    }
    const int64_t count = std::clamp(number, -largest_number, largest_number);
    return static_cast<uint64_t>(count * factor_of(*end));
}

void set_buffer_size(const char *size)
{
    buffer_bytes = read_size(size);
}

void set_prime(const char *size)
{
    prime_bytes = read_size(size);
}

void set_events(const char *number)
{
    if (!events_open(number))
        fatal_report(unit, 61, "--events needs an open descriptor, not %s.\n", printable(number));
}

const char *list_path; // null: the names are on the command line

void set_list(const char *path)
{
    list_path = path;
}

// Called after all options are parsed: the last list counts, and no name may be given with it.
void take_list(bool names_given)
{
    if (list_path == nullptr) return;
    if (names_given) fatal_report(unit, 63, "--list takes the place of names.\n");
    if (!read_list(list_path))
        fatal_report(unit, 67, "cannot read the list %s.\n", printable(list_path));
}

constexpr int64_t most_seconds = 100000000000000000; // ten times this and one digit fit in 64 bits

// Parses digits with at most one decimal point before, among or after them. False for anything
// else. The time is decimal because a binary fraction is not exact: at 100 frames per second 0.29 s
// would be frame 28.
bool read_time(const char *text, exact_time *time)
{
    *time = {};
    int64_t weight = 0; // of the last digit, in attoseconds; 0 before the decimal point
    int digits = 0;
    bool point = false;
    for (; *text != '\0'; ++text) {
        const int digit = *text - '0';
        if (*text == '.' && !point) {
            point = true;
            weight = attoseconds_per_second;
            continue;
        }
        if (digit < 0 || digit > 9) return false;
        ++digits;
        weight /= 10;
        time->attoseconds += weight * digit;
        if (!point) time->seconds = std::min(time->seconds * 10 + digit, most_seconds);
    }
    return digits > 0;
}

void set_start(const char *seconds)
{
    if (!read_time(seconds, &start_time))
        fatal_report(unit, 71, "illegal start %s passed.\n", printable(seconds));
}

template <int32_t &flag> void set_flag(const char *)
{
    flag = flag_on;
}

void set_strict(const char *)
{
    store_release(strict, flag_on);
}

void ignore_value(const char *) {}

// --- The options --------------------------------------------------------------------------------

enum class value_place { none, next_entry, after_equals };

struct option_row {
    const char *word;
    value_place value;
    void (*apply)(const char *value);
    const char *help; // the line of the usage text; null: not printed there
};

// In the order of the usage text. Words are compared as a whole and case-sensitively. Only a word
// that ends with an equals sign is compared as a prefix.
constexpr option_row options[] = {
    {"-D", value_place::next_entry, set_device,
     "params:\t\t-D device_name\tdefine device name(Cf. -D hw:1,0)"},
    {"-B", value_place::next_entry, set_buffer_size,
     "params:\t\t-B buffer_size\tdefine data buffer length(Cf. -B 1M)"},
    {"-os", value_place::none, set_flag<oversample>,
     "params:\t\t-os\tplayback over sampled souund"},
    {"--short-filter", value_place::none, set_flag<short_filter>,
     "params:\t\t--short-filter\tpower less machine mode. available with -os option"},
    {"--version", value_place::none, show_version,
     "params:\t\t--version\tprint out program version"},
    {"--silent", value_place::none, set_flag<silent>,
     "params:\t\t--silent\tsuppress time count messages(for AJAX system)"},
    {"--left-cut", value_place::none, set_flag<left_cut>,
     "params:\t\t--left-cut\tkeep left channel silent"},
    {"--right-cut", value_place::none, set_flag<right_cut>,
     "params:\t\t--right-cut\tkeep right channel silent"},
    {"-?", value_place::none, show_usage, nullptr},
    {"--help", value_place::none, show_usage, nullptr},
    {"--mode=", value_place::after_equals, select_mode, nullptr},
    {"--events=", value_place::after_equals, set_events, nullptr},
    {"--strict", value_place::none, set_strict, nullptr},
    {"--reopen", value_place::none, set_flag<reopen>, nullptr},
    {"--list=", value_place::after_equals, set_list, nullptr},
    {"--start=", value_place::after_equals, set_start, nullptr},
    {"--prime=", value_place::after_equals, set_prime, nullptr},
    {"--keep-going", value_place::none, set_flag<keep_going>, nullptr},
    {"--skip", value_place::next_entry, ignore_value, nullptr},
};
constexpr option_row frequency_option = {"--frequency", value_place::next_entry, ignore_value,
                                         nullptr};

bool matches(const option_row &option, const char *entry, bool has_next)
{
    if (option.value == value_place::after_equals)
        return std::strncmp(entry, option.word, std::strlen(option.word)) == 0;
    if (option.value == value_place::next_entry && !has_next) return false;
    return strings_equal(entry, option.word) != 0;
}

// Null if the entry is not an option.
const option_row *find_option(const char *entry, bool has_next, bool with_frequency)
{
    for (const option_row &option : options)
        if (matches(option, entry, has_next)) return &option;
    if (with_frequency && matches(frequency_option, entry, has_next)) return &frequency_option;
    return nullptr;
}

} // namespace

int32_t strings_equal(const char *a, const char *b)
{
    for (size_t i = 0; i < longest_compare; ++i) {
        if (a[i] != b[i]) return 0;
        if (a[i] == '\0') return -1;
    }
    return 0;
}

void select_mode(const char *name)
{
    for (const mode_row *row = mode_table; row->name != nullptr; ++row) {
        if (strings_equal(name, row->name) == 0) continue;
        mode_label = row->label;
        return;
    }
    fatal_report(unit, 54, "illegal mode name %s passed.\n", printable(name));
}

void print_usage(const char *program)
{
    std::printf("usage:\t%s [params...] sound_file...\n\n", program);
    for (const option_row &option : options)
        if (option.help != nullptr) std::puts(option.help);
}

void parse_options(int32_t argc, char **argv, int32_t with_frequency)
{
    if (argc == 1) {
        args_used = 2; // more than argc, so that main prints the usage text
        return;
    }
    program_name = argv[0];
    args_used = 1;
    list_path = nullptr;
    for (int32_t i = 1; i < argc; ++i) {
        const bool has_next = i + 1 < argc;
        const option_row *option = find_option(argv[i], has_next, with_frequency != 0);
        if (option == nullptr) continue; // a name, or a word that the list expansion reports
        ++args_used;
        if (option->value == value_place::next_entry) {
            ++args_used;
            ++i;
        }
        const bool attached = option->value == value_place::after_equals;
        option->apply(attached ? argv[i] + std::strlen(option->word) : argv[i]);
    }
    take_list(args_used < argc);
}
