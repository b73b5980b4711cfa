// A model of what the device must get for a list of files. It computes that from the sound alone,
// sample by sample, without code of the player. It also makes sound of every kind.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "make_files.h"
#include "run_player.h"

enum class packing { pcm, native, dop, i2s };

// The form of the stream, which the first file and the device settle: the device's format, and
// whether its samples hold PCM or DSD.
struct stream_form {
    const char *name; // of the ALSA format
    size_t bytes;     // of a sample
    int padding;      // unused bits above the sample in its word
    packing kind = packing::pcm;
    bool floats = false;
};
inline constexpr stream_form s16_le = {"S16_LE", 2, 0};
inline constexpr stream_form s24_3le = {"S24_3LE", 3, 0};
inline constexpr stream_form s24_le = {"S24_LE", 4, 8};
inline constexpr stream_form s32_le = {"S32_LE", 4, 0};
inline constexpr stream_form float_le = {"FLOAT_LE", 4, 0, packing::pcm, true};
inline constexpr stream_form i2s = {"S32_LE", 4, 0, packing::i2s};
inline constexpr stream_form dop_s32 = {"S32_LE", 4, 0, packing::dop};
inline constexpr stream_form dop_s24 = {"S24_LE", 4, 8, packing::dop};
inline constexpr stream_form dop_s24_3 = {"S24_3LE", 3, 0, packing::dop};
inline constexpr stream_form native = {"DSD_U32_BE", 4, 0, packing::native};
inline constexpr stream_form s8 = {"S8", 1, 0};
inline constexpr std::array stream_forms = {s8,  s16_le, s24_3le, s24_le,  s32_le,   float_le,
                                            i2s, native, dop_s32, dop_s24, dop_s24_3};

struct cuts {
    bool left, right;
};

// --- Sound --------------------------------------------------------------------------------------

struct sample_row {
    size_t bytes;
    bool floats;
};
inline constexpr std::array<sample_row, 5> samples = {
    {{1, false}, {2, false}, {3, false}, {4, false}, {4, true}}};

// PCM as a WAV file stores it.
struct pcm_sound {
    sample_row sample;
    size_t channels;
    int rate; // Hz
    bytes data;
};

// Random samples, by default stereo of 16 bits. Floats are between -1.1 and 1.1, with special
// values such as infinity, NaN and denormals among them.
pcm_sound random_pcm(int rate, size_t frames, uint32_t seed = 1, sample_row sample = {2, false},
                     size_t channels = 2);

enum class wave_kind { riff, rf64, extensible };
bytes wave_file(const pcm_sound &sound, wave_kind kind = wave_kind::riff);
// Writes a WAV file with the sound of random_pcm. Result: its path.
std::string scratch_wave(const std::string &name, int rate, size_t frames, uint32_t seed = 1);

// Two channels. The oldest bit of a byte is its highest.
struct dsd_sound {
    bytes left, right;
    uint32_t rate; // Hz
};
dsd_sound random_dsd(size_t bytes_per_channel, uint32_t seed, uint32_t rate);

// A file of each container with the sound. Each has a property that is easy to handle wrongly.
extern const std::array<bytes (*)(const dsd_sound &sound), 3> dsd_containers; // DSF, DSDIFF, WSD

// --- What the device gets -----------------------------------------------------------------------

bytes device_bytes(const pcm_sound &sound, const stream_form &form, cuts cut = {});
bytes device_bytes(const dsd_sound &sound, const stream_form &form, cuts cut = {});

// Settings of a device that takes that form only.
play_settings settings_for(const stream_form &form, std::vector<std::string> arguments);

// Standard error of a run with an ordinary WAV file.
inline const std::string stream_line = "Open 44100Hzfs PCM stream\n";

// Offsets in the sound that the device gets, each with the name of what begins there.
using named_parts = std::map<size_t, std::string>;

// Checks what the device got in a run whose first file has the rate file_rate: at least a second of
// silence, in no more writes than needed, and then exactly the sound, all of it played. If whole is
// false, its end may be missing. A failure names the part with the first wrong byte.
void expect_stream(const play_result &result, const stream_form &form, int64_t file_rate,
                   const bytes &sound, bool whole = true,
                   const named_parts &parts = {{0, "sound"}});

// --- Mixed lists --------------------------------------------------------------------------------

// Files of every kind in one directory, in the order of their names.
struct mixed_list {
    std::string directory;
    int64_t rate; // of the first file
    bytes sound;  // what the device gets after the silence
    named_parts parts;
};
// The first file and the device settle the form. The other files are of every kind. Each file gives
// up to most_frames frames of the device. cut: the channels that the player silences.
mixed_list make_mixed_list(const stream_form &form, size_t files, size_t most_frames, cuts cut);
