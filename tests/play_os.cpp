// Oversampling through the whole player: what the device gets is what the plain loops of the filter
// give, bit for bit, over both families, both sets and a list of several rates, which takes the
// first.
#include <gtest/gtest.h>

#include <cstring>

#include "play_model.h"
#include "scalar_filter.h"

namespace
{

// On a device of floats they go out as they are, beyond full scale too.
TEST(play_os, gives_what_the_plain_filter_gives)
{
    const struct {
        std::vector<int> rates;
        stream_form form;
    } cases[] = {{{44100}, s32_le},
                 {{48000}, s24_3le},
                 {{96000}, float_le},
                 {{44100, 48000, 44100}, float_le}};
    for (const auto &[rates, form] : cases)
        for (const bool use_short : {false, true}) {
            std::vector<std::string> arguments = {use_short ? "--short-filter" : "-os", "-os"};
            bytes words; // left-justified
            for (size_t i = 0; i < rates.size(); ++i) {
                const auto sound = random_pcm(rates[i], 5003, 1, samples[4 - i]);
                arguments.push_back(scratch_file(std::to_string(i) + ".wav", wave_file(sound)));
                put_bytes(words, device_bytes(sound, s32_le));
            }
            scalar_filter filter = use_short ? make_scalar_filter(set_44k_short, set_48k_short)
                                             : make_scalar_filter(set_44k_normal, set_48k_normal);
            const bytes input = device_bytes({{4, false}, 2, rates[0], words}, float_le);
            std::vector<float> output;
            for (size_t at = 0; at < input.size(); at += 8) {
                std::array<float, 2> frame;
                std::memcpy(frame.data(), &input[at], sizeof frame);
                scalar_filter_run(filter, rates[0], frame, output);
            }
            const auto *raw = reinterpret_cast<const uint8_t *>(output.data());
            const pcm_sound floats = {{4, true}, 2, 352800, {raw, raw + output.size() * 4}};
            auto settings = settings_for(form, arguments);
            settings.capture["CAPS"] = "random 5000 1";
            SCOPED_TRACE(std::to_string(rates[0]) + " Hz, " + arguments[0]);
            expect_stream(run_player(settings), form, 352800, device_bytes(floats, form));
        }
}

} // namespace
