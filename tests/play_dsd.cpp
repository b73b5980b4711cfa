// DSD files through the whole player: no bit is changed, and no DoP marker is ever out of step.
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <string>
#include <vector>

#include "play_model.h"
#include "run_player.h"

namespace
{

// Low rates have a short second of silence.
constexpr uint32_t slow_rate = 256000;

// --- Files --------------------------------------------------------------------------------------

struct dsd_sound {
    bytes left; // oldest bit highest
    bytes right;
    uint32_t rate;
};

dsd_sound noise_of(size_t count, uint32_t seed, uint32_t rate = slow_rate)
{
    return {noise(seed, count), noise(seed + 1000, count), rate};
}

bytes stream_of(const dsd_sound &sound)
{
    return dsd_stream_of(sound.left, sound.right);
}

// The sound in each container; each with something that is easy to get wrong.
bytes as_dsf(const dsd_sound &s) // ends inside a byte
{
    const auto bits = static_cast<int64_t>(s.left.size() * 8);
    return make_dsf({.rate = s.rate, .sample_count = bits - 3, .left = s.left, .right = s.right});
}

bytes as_dsdiff(const dsd_sound &s) // right comes first
{
    return make_dsdiff({.channels = {"SRGT", "SLFT"},
                        .rate = s.rate,
                        .frames = dsd_frames(s.left, s.right, 2, 1, 0)});
}

bytes as_wsd(const dsd_sound &s) // a channel between left and right
{
    return make_wsd({.channels = 3,
                     .rate = s.rate,
                     .assignment = 0x54000000,
                     .frames = dsd_frames(s.left, s.right, 3, 0, 2)});
}

struct container_row {
    const char *name;
    bytes (*make)(const dsd_sound &sound);
};
constexpr std::array<container_row, 3> containers = {
    {{"a.dsf", as_dsf}, {"b.dff", as_dsdiff}, {"c.wsd", as_wsd}}};

constexpr std::array<dsd_form, 5> forms = {native, dop_s32, dop_s24, dop_s24_3, i2s};
constexpr std::array<cuts, 4> all_cuts = {
    {{false, false}, {true, false}, {false, true}, {true, true}}};

// --- A controller -------------------------------------------------------------------------------

struct controller_words {
    volatile int32_t pid;
    volatile int32_t state;
};

// The block under a key of this process, removed at the end of it.
controller_words *shared_block()
{
    static const int id = shmget(getpid(), 4096, IPC_CREAT | 0600);
    static auto *words = [] {
        std::atexit([] { shmctl(id, IPC_RMID, nullptr); });
        return static_cast<controller_words *>(shmat(id, nullptr, 0));
    }();
    return words;
}

// Settings with which a DSD stream may go as I2S.
play_settings beside_controller(play_settings settings)
{
    settings.device_name = "hw:3,0";
    settings.stand_ins = true;
    settings.capture["CARD_NAME"] = "snd_rpi_dac";
    settings.capture["KEY"] = std::to_string(getpid());
    return settings;
}

play_settings settings_for(const dsd_form &form, const std::vector<std::string> &arguments)
{
    play_settings settings = {.arguments = arguments, .capture = {{"FORMATS", form.device.name}}};
    if (form.packing != dsd_packing::i2s) return settings;
    shared_block()->state = -1; // told already: no signal
    return beside_controller(settings);
}

// --- What a DoP receiver hears ------------------------------------------------------------------

struct dop_payload {
    bytes left;
    bytes right;
};

uint32_t dop_sample_at(const bytes &capture, const device_form &device, size_t at)
{
    uint32_t word = 0;
    for (size_t i = 0; i < device.bytes; ++i)
        word |= static_cast<uint32_t>(capture[at + i]) << 8 * i;
    return device.bytes == 4 && device.padding == 0 ? word >> 8 : word;
}

// Takes the bits out of a capture; fails where a receiver would fall back to PCM.
dop_payload receive_dop(const bytes &capture, const device_form &device)
{
    dop_payload payload;
    const size_t frame_bytes = device.bytes * 2;
    EXPECT_EQ(capture.size() % frame_bytes, 0U);
    for (size_t at = 0; at + frame_bytes <= capture.size(); at += frame_bytes) {
        const uint32_t left = dop_sample_at(capture, device, at);
        const uint32_t right = dop_sample_at(capture, device, at + device.bytes);
        const uint32_t marker = at / frame_bytes % 2 == 0 ? 0xFA : 0x05;
        EXPECT_EQ(left >> 16, marker) << "in frame " << at / frame_bytes;
        EXPECT_EQ(right >> 16, marker) << "in frame " << at / frame_bytes;
        if (testing::Test::HasFailure()) break;
        put_be(payload.left, left & 0xFFFF, 2);
        put_be(payload.right, right & 0xFFFF, 2);
    }
    return payload;
}

bytes filled_up(bytes channel)
{
    while (channel.size() % 4 != 0) channel.push_back(0x96);
    return channel;
}

// --- Tests --------------------------------------------------------------------------------------

// A file ends inside a byte, a group of eight and a block.
TEST(play_dsd, every_container_in_every_form)
{
    for (const container_row &container : containers) {
        for (const dsd_form &form : forms) {
            for (const cuts &cut : all_cuts) {
                SCOPED_TRACE(std::string(container.name) + " on " + form.device.name);
                const auto sound = noise_of(9001, 1);
                std::vector<std::string> arguments;
                if (cut.left) arguments.push_back("--left-cut");
                if (cut.right) arguments.push_back("--right-cut");
                arguments.push_back(scratch_file(container.name, container.make(sound)));
                const auto result = run_player(settings_for(form, arguments));
                expect_dsd_stream(result, form, sound.rate,
                                  device_bytes(stream_of(sound), form, 0, cut));
            }
        }
    }
}

TEST(play_dsd, odd_transfers_and_file_borders_keep_the_markers_in_turn)
{
    std::vector<std::string> files;
    bytes stream;
    dop_payload told;
    for (size_t i = 0; i < 6; ++i) { // lengths of every place in a group
        const auto sound = noise_of(5000 + i, static_cast<uint32_t>(i));
        const container_row &container = containers[i % containers.size()];
        files.push_back(scratch_file(std::to_string(i) + container.name, container.make(sound)));
        put_bytes(stream, stream_of(sound));
        put_bytes(told.left, filled_up(sound.left));
        put_bytes(told.right, filled_up(sound.right));
    }
    for (const char *caps : {"1", "7", "1 13 2000", "random 100 1", "random 3000 2"}) {
        for (const dsd_form &form : forms) {
            SCOPED_TRACE(std::string(caps) + " on " + form.device.name);
            auto settings = settings_for(form, files);
            settings.capture["CAPS"] = caps;
            const auto result = run_player(settings);
            expect_dsd_stream(result, form, slow_rate, device_bytes(stream, form));
            if (form.packing != dsd_packing::dop) continue;
            auto heard = receive_dop(result.capture, form.device);
            const auto silent = static_cast<ptrdiff_t>(told_preroll(result, slow_rate / 16) * 2);
            const bytes silence(static_cast<size_t>(silent), 0x55);
            ASSERT_TRUE(heard.left.size() > silence.size());
            EXPECT_TRUE(std::equal(silence.begin(), silence.end(), heard.left.begin()));
            EXPECT_TRUE(std::equal(silence.begin(), silence.end(), heard.right.begin()));
            heard.left.erase(heard.left.begin(), heard.left.begin() + silent);
            heard.right.erase(heard.right.begin(), heard.right.begin() + silent);
            EXPECT_EQ(heard.left, told.left);
            EXPECT_EQ(heard.right, told.right);
        }
    }
}

// Longer than the ring, on a slow device: the feeder waits for room and goes round.
TEST(play_dsd, a_full_ring_gives_the_same)
{
    const auto sound = noise_of(900001, 1, 2822400);
    const auto file = scratch_file("a.dsf", as_dsf(sound));
    for (const dsd_form &form : forms) {
        for (const char *size : {"1536K", "1600013"}) {
            SCOPED_TRACE(std::string(size) + " on " + form.device.name);
            auto settings = settings_for(form, {"-B", size, file});
            settings.capture["SPEED"] = "20";
            expect_dsd_stream(run_player(settings), form, sound.rate,
                              device_bytes(stream_of(sound), form));
        }
    }
}

// The first file's form of stream stays; later files are packed into it by their own rules.
TEST(play_dsd, lists_of_dsd_and_pcm_play_into_one_stream)
{
    struct row {
        dsd_form form; // as the device and the kind of the first file give it
        bool dsd_first;
        const char *ring = "1536K";
    };
    constexpr dsd_form dop_s16 = {s16_le, dsd_packing::dop, 16};
    const auto pcm = random_pcm(3, false, 2, 16000, 3001, 5);
    const auto sound = noise_of(800003, 6);
    const auto pcm_file = scratch_file("m.wav", wave_file(pcm));
    const auto first = scratch_file("a.dsf", as_dsf(sound));
    const auto second = scratch_file("z.dff", as_dsdiff(sound));
    for (const auto &[form, dsd_first, ring] :
         std::initializer_list<row>{{dop_s32, true},
                                    {dop_s24, true},
                                    {dop_s24_3, true, "1572869"},
                                    {native, true},
                                    {i2s, true},
                                    {dop_s32, false},
                                    {dop_s24, false},
                                    {dop_s24_3, false},
                                    {dop_s16, false},
                                    {dop_s16, false, "1572868"}}) {
        SCOPED_TRACE(std::string(form.device.name) + (dsd_first ? " from DSD" : " from PCM"));
        std::vector<std::string> arguments = {"-B", ring, pcm_file, second};
        if (dsd_first) arguments.push_back(first);
        const auto result = run_player(settings_for(form, arguments));
        const bytes stream = stream_of(sound);
        // Behind 16-bit PCM a DoP frame takes two of the device's.
        const dsd_form packing = form.device.bytes == 2 ? dop_s32 : form;
        bytes told = dsd_first ? device_bytes(stream, packing) : bytes{};
        put_bytes(told, device_bytes(pcm, form.device));
        put_bytes(told, device_bytes(stream, packing, dsd_first ? stream.size() / 4 : 0));
        if (dsd_first)
            expect_dsd_stream(result, form, sound.rate, told);
        else
            expect_pcm_stream(result, form.device, pcm.rate, told);
    }
}

// --- Negotiation --------------------------------------------------------------------------------

TEST(play_dsd, the_best_form_that_the_device_takes)
{
    struct row {
        uint32_t bit_rate;
        const char *accepted;
        const char *taken; // format and rate
        const char *banner;
    };
    const std::initializer_list<row> rows = {
        {2822400, "S24_3LE S24_LE S32_LE DSD_U32_BE", "DSD_U32_BE rate 88200", "2.8fMHzfs native"},
        {5644800, "S24_3LE S24_LE S32_LE DSD_U32_BE", "DSD_U32_BE rate 176400", "5.6fMHzfs native"},
        {11289600, "DSD_U32_BE DSD_U32_LE", "DSD_U32_BE rate 352800", "11.2fMHzfs native"},
        {2822400, "S24_3LE S24_LE S32_LE DSD_U32_LE", "S32_LE rate 176400", "2.8fMHzfs DoP"},
        {5644800, "S24_3LE S24_LE S16_LE", "S24_LE rate 352800", "5.6fMHzfs DoP"},
        {11289600, "S24_3LE S16_LE", "S24_3LE rate 705600", "11.2fMHzfs DoP"},
        {11289615, "S32_LE", "S32_LE rate 705600", "11.2fMHzfs DoP"},
        {128050, "S32_LE", "S32_LE rate 8002", "0.1fMHzfs DoP"},
        {128050, "DSD_U32_BE", "DSD_U32_BE rate 4001", "0.1fMHzfs native"},
    };
    for (const auto &[bit_rate, accepted, taken, banner] : rows) {
        SCOPED_TRACE(std::string(accepted) + " at " + std::to_string(bit_rate));
        const auto file = scratch_file("a.dff", as_dsdiff(noise_of(400, 1, bit_rate)));
        const auto result =
            run_player({.arguments = {"-os", file}, .capture = {{"FORMATS", accepted}}});
        EXPECT_EQ(result.status, 0);
        EXPECT_TRUE(log_has(result, std::string("params ") + taken + " "));
        EXPECT_EQ(result.err, std::string("Open ") + banner + " stream\n");
    }
}

TEST(play_dsd, what_no_device_takes_is_refused)
{
    const auto fast = scratch_file("a.dff", as_dsdiff(noise_of(400, 1, 11289616)));
    const auto too_fast = run_player({.arguments = {fast}});
    EXPECT_EQ(too_fast.status, 456 & 255);
    EXPECT_EQ(too_fast.err,
              report_text("alsathread", 456, "Delta Sigma frequency too high 11289616Hz\n"));
    const auto slow = scratch_file("b.dff", as_dsdiff(noise_of(400, 1)));
    const auto refused = run_player({.arguments = {slow}, .capture = {{"FORMATS", "S16_LE"}}});
    EXPECT_EQ(refused.status, 514 & 255);
    EXPECT_EQ(refused.err,
              report_text("alsathread", 167,
                          "snd_pcm_hw_params_set_format(Delta Sigma stream) failed.\n") +
                  report_text("alsathread", 514, "sound_hwparams() failed. Invalid argument\n"));
}

// --- The controller -----------------------------------------------------------------------------

std::atomic<int> signals;
std::atomic<int32_t> state_at_signal;

// The controller is this process.
void on_news(int)
{
    ++signals;
    state_at_signal = shared_block()->state;
}

TEST(play_dsd, a_controller_is_told_of_changes_only)
{
    struct row {
        const char *name;
        const char *file;
        const char *formats;
        const char *device;
        const char *card;
        int32_t state; // before
        int32_t told;  // after
        const char *banner;
    };
    const auto dsd = scratch_file("a.dsf", as_dsf(noise_of(400, 1, 2822400)));
    const auto wav = scratch_file("a.wav", wave_file(random_pcm(2, false, 2, 44100, 100, 1)));
    const std::initializer_list<row> rows = {
        {"news", dsd.c_str(), "S32_LE", "hw:1,0", "rpi", 0, -1, "2.8fMHzfs I2S"},
        {"no news", dsd.c_str(), "S32_LE", "hw:1,0", "snd_rpi_x", -1, -1, "2.8fMHzfs I2S"},
        {"PCM after I2S", wav.c_str(), "S32_LE", "hw:1,0", "rpi", -1, 0, "44100Hzfs PCM"},
        {"PCM after PCM", wav.c_str(), "S32_LE", "hw:1,0", "rpi", 0, 0, "44100Hzfs PCM"},
        {"other card", dsd.c_str(), "S32_LE", "hw:1,0", "RPI", 7, 0, "2.8fMHzfs DoP"},
        {"card without a name", dsd.c_str(), "S32_LE", "hw:1,0", "", -1, 0, "2.8fMHzfs DoP"},
        {"other device", dsd.c_str(), "S32_LE", "capture", "rpi", -1, 0, "2.8fMHzfs DoP"},
        {"native", dsd.c_str(), "S32_LE DSD_U32_BE", "hw:1,0", "rpi", -1, 0, "2.8fMHzfs native"},
    };
    shared_block()->pid = getpid();
    std::signal(SIGINT, on_news);
    for (const row &row : rows) {
        SCOPED_TRACE(row.name);
        signals = 0;
        shared_block()->state = row.state;
        auto settings =
            beside_controller({.arguments = {row.file}, .capture = {{"FORMATS", row.formats}}});
        settings.device_name = row.device;
        settings.capture["CARD_NAME"] = row.card;
        const auto result = run_player(settings);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, std::string("Open ") + row.banner + " stream\n");
        EXPECT_TRUE(log_has(result, "ftok /tmp/sonivane.key 255"));
        EXPECT_EQ(shared_block()->state, row.told);
        const bool changed = (row.state != 0) != (row.told != 0);
        EXPECT_EQ(signals, changed ? 1 : 0);
        if (changed) {
            EXPECT_EQ(state_at_signal, row.told);
        }
    }
    std::signal(SIGINT, SIG_DFL);
}

// 0 names the group of the player itself.
TEST(play_dsd, a_controller_without_a_process_is_not_signalled)
{
    const auto sound = noise_of(400, 1);
    shared_block()->pid = 0;
    shared_block()->state = 0;
    const auto result =
        run_player(beside_controller({.arguments = {scratch_file("a.dsf", as_dsf(sound))}}));
    EXPECT_EQ(shared_block()->state, -1);
    expect_dsd_stream(result, i2s, slow_rate, device_bytes(stream_of(sound), i2s));
}

// In I2S form there is one word only.
TEST(play_dsd, i2s_is_not_tried_in_24_bits)
{
    auto settings = settings_for(i2s, {scratch_file("a.dsf", as_dsf(noise_of(400, 1)))});
    settings.capture["FORMATS"] = "S24_LE S24_3LE";
    const auto result = run_player(settings);
    EXPECT_EQ(result.status, 514 & 255);
    EXPECT_EQ(result.err,
              report_text("alsathread", 514, "sound_hwparams() failed. Invalid argument\n"));
}

} // namespace
