#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "parse_param.h"
#include "sonivane.h"

namespace
{

using words = std::vector<std::string>;

const std::string usage_text =
    "usage:\tsonivane [params...] sound_file...\n\n"
    "params:\t\t-D device_name\tdefine device name(Cf. -D hw:1,0)\n"
    "params:\t\t-B buffer_size\tdefine data buffer length(Cf. -B 1M)\n"
    "params:\t\t-os\tplayback over sampled souund\n"
    "params:\t\t--short-filter\tpower less machine mode. available with -os option\n"
    "params:\t\t--version\tprint out program version\n"
    "params:\t\t--silent\tsuppress time count messages(for AJAX system)\n"
    "params:\t\t--left-cut\tkeep left channel silent\n"
    "params:\t\t--right-cut\tkeep right channel silent\n";

void parse(words arguments, int32_t with_frequency = 0)
{
    oversample = short_filter = left_cut = right_cut = silent = flag_off;
    device_name = {};
    buffer_bytes = 0;
    mode_label = nullptr;
    args_used = -1;
    arguments.insert(arguments.begin(), "sonivane");
    std::vector<char *> argv;
    for (std::string &argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    parse_options(static_cast<int32_t>(arguments.size()), argv.data(), with_frequency);
}

words split(const std::string &line)
{
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

// Every option variable that is not as at the start.
std::string changed_options()
{
    std::string text;
    const std::pair<const char *, int32_t> flags[] = {{"os", oversample},
                                                      {"short", short_filter},
                                                      {"left", left_cut},
                                                      {"right", right_cut},
                                                      {"silent", silent}};
    for (const auto &[name, value] : flags) {
        if (value != flag_off) text += std::string(name) + (value == flag_on ? " " : "? ");
    }
    if (device_name[0] != '\0') text += std::string("D=") + device_name.data() + " ";
    if (buffer_bytes != 0) text += "B=" + std::to_string(buffer_bytes) + " ";
    if (mode_label != nullptr) text += std::string("mode=") + mode_label + " ";
    return text;
}

TEST(Options, AreCountedAndSet)
{
    const struct {
        const char *arguments;
        int32_t used;
        const char *changed;
    } cases[] = {
        {"", 2, ""},
        {"a.wav", 1, ""},
        {"-os a.wav", 2, "os "},
        {"-D hw:1,0 -B 4M --silent a.wav b.wav", 6, "silent D=hw:1,0 B=4194304 "},
        {"a.wav -os", 2, "os "},
        {"a.wav b.wav -os", 2, "os "},
        {"-x a.wav", 1, ""},
        {"-x -os a.wav", 2, "os "},
        {"--frequency 44100 a.wav", 1, ""},
        {"- -- --- a.wav", 1, ""},
        {"--short-filter --left-cut --right-cut --silent -os", 6, "os short left right silent "},
        {"--skip x -os", 4, "os "},
        {"--skip -os a", 3, ""},
        {"-D -os a", 3, "D=-os "},
        {"-D a -D b -B 2M -B 3M f", 9, "D=b B=3145728 "},
        {"-os -D", 2, "os "},
        {"-os -B", 2, "os "},
        {"-os --skip", 2, "os "},
        {"--mode=1", 2, "mode=DoP "},
        {"--mode=1 --mode=2", 3, "mode=Bi-Naural "},
        {"--mode 1", 1, ""},
        {"-mode=1 --os -silent --D x --B 2 -skip 1", 1, ""},
        {"-OS -d x -Dx --Silent --silentx --silen", 1, ""},
    };
    for (const auto &c : cases) {
        parse(split(c.arguments));
        EXPECT_EQ(args_used, c.used) << c.arguments;
        EXPECT_EQ(changed_options(), c.changed) << c.arguments;
    }
    parse(split("--frequency 44100 -os a.wav"), -1);
    EXPECT_EQ(args_used, 4) << "admitted by the caller's flag";
}

TEST(Options, ABufferSizeIsANumberAndAFactor)
{
    constexpr uint64_t limit = uint64_t{1} << 31; // of what the driver takes
    const struct {
        const char *value;
        uint64_t bytes;
    } cases[] = {
        {"1M", 1048576},
        {"1m", 1048576},
        {"2k", 2048},
        {"2K", 2048},
        {"1000", 1000},
        {"1000x", 1000},
        {"1000 k", 1000},
        {" +7k", 7168},
        {"1kk", 1024},
        {"0", 0},
        {"0x10", 0},
        {"-5", ~uint64_t{4}},
        {"-1k", ~uint64_t{1023}},
        {"2147483647", 2147483647},
        {"2147483647M", uint64_t{2147483647} << 20},
        {"4096M", uint64_t{1} << 32},
        {"-2147483648M", ~uint64_t{0} - (uint64_t{1} << 51) + 1},
    };
    for (const auto &c : cases) {
        parse({"-B", c.value});
        EXPECT_EQ(buffer_bytes, c.bytes) << c.value;
    }
    // Numbers of more than 32 bits must not wrap into a size that would be taken.
    for (const char *value : {"2147483648", "4294967297", "4296015872", "17592186044416M",
                              "-4294967295", "18446744073709551617k", "-99999999999999999999M"}) {
        parse({"-B", value});
        EXPECT_GE(buffer_bytes, limit) << value;
    }
}

TEST(Options, ADeviceNameIsCutToItsRoom)
{
    for (const size_t length : {1U, 1023U, 1024U, 5000U}) {
        parse({"-D", std::string(length, 'd')});
        EXPECT_EQ(std::string(device_name.data()),
                  std::string(std::min<size_t>(length, 1023), 'd'));
    }
}

TEST(OptionsDeathTest, SomeEndTheProgram)
{
    const struct {
        const char *arguments;
        int status;
        std::string output; // on standard output
        const char *error;  // the whole of standard error
    } cases[] = {
        {"-?", 1, usage_text, "^$"},
        {"--help --mode=3", 1, usage_text, "^$"},
        {"--version", 0, "sonivane Ver.1.4 ", "^$"},
        {"--mode=3 --help", 54, "", "^\nERROR parse_param 54 illegal mode name 3 passed.\n$"},
        {"--mode=1x", 54, "", "^\nERROR parse_param 54 illegal mode name 1x passed.\n$"},
        {"--mode=", 54, "", "^\nERROR parse_param 54 illegal mode name  passed.\n$"},
        {"-B abc", 183, usage_text, "^\nERROR parse_param 183 illegal buffer size abc passed.\n$"},
        {"-B -", 183, usage_text, "^\nERROR parse_param 183 illegal buffer size - passed.\n$"},
        {"-B M", 183, usage_text, "^\nERROR parse_param 183 illegal buffer size M passed.\n$"},
        {"-B -os", 183, usage_text, "^\nERROR parse_param 183 illegal buffer size -os passed.\n$"},
    };
    for (const auto &c : cases) {
        testing::internal::CaptureStdout();
        EXPECT_EXIT(parse(split(c.arguments)), testing::ExitedWithCode(c.status), c.error)
            << c.arguments;
        const std::string output = testing::internal::GetCapturedStdout();
        if (c.status == 0) {
            EXPECT_EQ(output.rfind(c.output, 0), 0U) << output;
            EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
        } else {
            EXPECT_EQ(output, c.output) << c.arguments;
        }
    }
    EXPECT_EXIT(parse({"-B", ""}), testing::ExitedWithCode(183), "illegal buffer size  passed.");
    // What stands in front of --version has been applied; what stands behind it has not.
    EXPECT_EXIT(
        {
            std::atexit([] { std::fputs(changed_options().c_str(), stderr); });
            parse(split("-os --version --silent"));
        },
        testing::ExitedWithCode(0), "^os $");
}

TEST(Options, StringsAreComparedWholeUpToALimit)
{
    const std::string longest(1024, 'x');
    const struct {
        std::string a, b;
        int32_t equal;
    } cases[] = {
        {"", "", -1},
        {"os", "os", -1},
        {"os", "o", 0},
        {"o", "os", 0},
        {"os", "OS", 0},
        {longest, longest, -1},
        {longest + "x", longest + "x", 0},
        {longest, longest + "x", 0},
    };
    for (const auto &c : cases) EXPECT_EQ(strings_equal(c.a.c_str(), c.b.c_str()), c.equal) << c.a;
}

} // namespace
