// What the device must get for a list of files: reckoned from the sound alone, sample by sample,
// with none of the player's code. And sound of every kind to ask it about.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "make_files.h"
#include "run_player.h"

enum class packing { pcm, native, dop, i2s };

// What the first file and the device make of the stream: the form of a device's sample, and what is
// put into it.
struct stream_form {
    const char *name; // of the ALSA format
    size_t bytes;     // of a sample
    int padding;      // bits above the sample's in its word
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
inline constexpr std::array<stream_form, 11> stream_forms = {{{"S8", 1, 0},
                                                              s16_le,
                                                              s24_3le,
                                                              s24_le,
                                                              s32_le,
                                                              float_le,
                                                              i2s,
                                                              {"DSD_U32_BE", 4, 0, packing::native},
                                                              dop_s32,
                                                              {"S24_LE", 4, 8, packing::dop},
                                                              {"S24_3LE", 3, 0, packing::dop}}};

struct cuts {
    bool left;
    bool right;
};

// --- Sound --------------------------------------------------------------------------------------

struct sample_row {
    size_t bytes;
    bool floats;
};
inline constexpr std::array<sample_row, 5> samples = {
    {{1, false}, {2, false}, {3, false}, {4, false}, {4, true}}};

// As a WAV file stores it.
struct pcm_sound {
    sample_row sample;
    size_t channels;
    int rate; // Hz
    bytes data;
};

// Random samples, stereo and 16 bits wide if nothing else is said; floats in and around -1 to 1,
// with those that have no place there.
pcm_sound random_pcm(int rate, size_t frames, uint32_t seed = 1, sample_row sample = {2, false},
                     size_t channels = 2);

enum class wave_kind { riff, rf64, extensible };
bytes wave_file(const pcm_sound &sound, wave_kind kind = wave_kind::riff);
// The path of a file with such sound.
std::string scratch_wave(const std::string &name, int rate, size_t frames, uint32_t seed = 1);

// Two channels, the oldest bit of a byte highest.
struct dsd_sound {
    bytes left;
    bytes right;
    uint32_t rate; // Hz
};
dsd_sound random_dsd(size_t bytes_per_channel, uint32_t seed, uint32_t rate);

// The sound in each container, each with something that is easy to get wrong.
extern const std::array<bytes (*)(const dsd_sound &sound), 3> dsd_containers; // DSF, DSDIFF, WSD

// --- What the device gets -----------------------------------------------------------------------

bytes device_bytes(const pcm_sound &sound, const stream_form &form, cuts cut = {});
bytes device_bytes(const dsd_sound &sound, const stream_form &form, cuts cut = {});

// Settings with which the device takes that form, and no other one.
play_settings settings_for(const stream_form &form, std::vector<std::string> arguments);

// The line that every run with an ordinary WAV file leaves on standard error.
inline const std::string stream_line = "Open 44100Hzfs PCM stream\n";

// Places in the sound that the device gets, and what begins there.
using named_parts = std::map<size_t, std::string>;

// Expects of a run whose first file has the given rate that the device got silence for a second, no
// write more than that takes, and then the sound, with nothing before, between or behind, and that
// all of it was heard. One that is not whole may have left out any end of it. parts: what a failure
// names.
void expect_stream(const play_result &result, const stream_form &form, int64_t file_rate,
                   const bytes &sound, bool whole = true,
                   const named_parts &parts = {{0, "sound"}});

// --- Mixed lists --------------------------------------------------------------------------------

// Files of every kind, all in one directory in the order of their names.
struct mixed_list {
    std::string directory;
    int64_t rate; // of the first file
    bytes sound;  // what the device gets behind the silence
    named_parts parts;
};
// The first file makes the stream what form says; the others are of every kind, of up to
// most_frames frames of the device each.
mixed_list make_mixed_list(const stream_form &form, size_t files, size_t most_frames, cuts cut);
