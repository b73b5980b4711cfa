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
    parse_options(static_cast<int32_t>(arguments.size()), argv.data(), with_frequency);
}

// The words before a row's arrow, and what stands behind it.
std::pair<words, std::string> halves(const std::string &row)
{
    const size_t arrow = row.find(" -> ");
    std::istringstream stream(row.substr(0, arrow));
    return {{std::istream_iterator<std::string>(stream), {}}, row.substr(arrow + 4)};
}

// The entries taken, and every option variable that is not as at the start.
std::string outcome()
{
    const char *names[] = {" os", " short", " left", " right", " silent"};
    const int32_t flags[] = {oversample, short_filter, left_cut, right_cut, silent};
    std::string text = std::to_string(args_used);
    for (size_t i = 0; i < std::size(flags); ++i)
        if (flags[i] != flag_off) text += flags[i] == flag_on ? names[i] : " ?";
    if (device_name[0] != '\0') text += std::string(" D=") + device_name.data();
    const bool huge = buffer_bytes > INT32_MAX; // more than any ring takes
    if (buffer_bytes != 0) text += " B=" + (huge ? "huge" : std::to_string(buffer_bytes));
    if (mode_label != nullptr) text += std::string(" ") + mode_label;
    return text;
}

TEST(Options, AreCountedAndSet)
{
    for (const char *row :
         {" -> 2", "a.wav b.wav -os -> 2 os", "-x -os a.wav -> 2 os", "- -- --- a.wav -> 1",
          "-D a -D b -B 2M -B 3M f -> 9 D=b B=3145728",
          "-D hw:1,0 -B 4M --silent a.wav b.wav -> 6 silent D=hw:1,0 B=4194304",
          "--short-filter --left-cut --right-cut --silent -os -> 6 os short left right silent",
          "--skip x -os -> 4 os", "--skip -os a -> 3", "-D -os a -> 3 D=-os", "-os -D -> 2 os",
          "-os -B -> 2 os", "-os --skip -> 2 os", "--mode=1 -> 2 DoP", "--mode 1 -> 1",
          "--mode=1 --mode=2 -> 3 Bi-Naural", "-mode=1 --os -silent --D x --B 2 -skip 1 -> 1",
          "-OS -d x -Dx --Silent --silentx --silen -> 1", "--frequency 44100 a.wav -> 1",
          "-B 1m -> 3 B=1048576", "-B 2k -> 3 B=2048", "-B 2K -> 3 B=2048", "-B 1000x -> 3 B=1000",
          "-B +7k -> 3 B=7168", "-B 1kk -> 3 B=1024", "-B 0 -> 3", "-B 0x10 -> 3",
          "-B 2147483647 -> 3 B=2147483647", "-B -1k -> 3 B=huge", "-B -2147483648M -> 3 B=huge",
          // Numbers of more than 32 bits must not wrap into a size that would be taken.
          "-B 2147483648 -> 3 B=huge", "-B 4296015872 -> 3 B=huge",
          "-B 17592186044416M -> 3 B=huge", "-B 18446744073709551617k -> 3 B=huge",
          "-B -99999999999999999999M -> 3 B=huge"}) {
        const auto [arguments, expected] = halves(row);
        parse(arguments);
        EXPECT_EQ(outcome(), expected) << row;
    }
    parse({"--frequency", "44100", "-os", "a.wav"}, -1);
    EXPECT_EQ(outcome(), "4 os") << "admitted by the caller's flag";
    const std::string longest(1024, 'x'), longer = longest + "x";
    EXPECT_EQ(strings_equal(longest.c_str(), longest.c_str()), -1);
    EXPECT_EQ(strings_equal(longer.c_str(), longer.c_str()), 0);
    parse({"-D", std::string(1024, 'd')});
    EXPECT_EQ(outcome(), "3 D=" + std::string(1023, 'd'));
}

TEST(OptionsDeathTest, SomeEndTheProgram)
{
    for (const char *row :
         {"-? -> ", "--help --mode=3 -> ", "--mode=3 --help -> mode name 3",
          "--mode= -> mode name ", "--mode=1x -> mode name 1x", "-B abc -> buffer size abc",
          "-B - -> buffer size -", "-B M -> buffer size M", "-B -os -> buffer size -os"}) {
        const auto [arguments, told] = halves(row);
        const int status = told.empty() ? 1 : told[0] == 'm' ? 54 : 183;
        const std::string report =
            "\nERROR parse_param " + std::to_string(status) + " illegal " + told + " passed.\n";
        testing::internal::CaptureStdout();
        EXPECT_EXIT(parse(arguments), testing::ExitedWithCode(status),
                    "^" + (told.empty() ? told : report) + "$");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), status == 54 ? "" : usage_text) << row;
    }
    // What stands in front of --version has been applied; what stands behind it has not.
    const auto leave = [] {
        std::atexit([] { std::fputs(outcome().c_str(), stderr); });
        parse({"-os", "--version", "--silent"});
    };
    testing::internal::CaptureStdout();
    EXPECT_EXIT(leave(), testing::ExitedWithCode(0), "^3 os$");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "sonivane Ver.1.4 Plays PCM and DSD files bit-perfect to one ALSA device\n");
}

} // namespace
