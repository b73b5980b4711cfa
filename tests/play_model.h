// What the device must get for a list of files: reckoned from the sound alone, sample by sample,
// with none of the player's code. And sound of every kind to ask it about.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "make_files.h"
#include "run_player.h"

// The form of a sample on the device.
struct device_form {
    const char *name; // of the ALSA format
    size_t bytes;     // of a sample
    int padding;      // bits above the sample's in its word
    bool floats = false;
};
inline constexpr device_form s16_le = {"S16_LE", 2, 0};
inline constexpr device_form s24_3le = {"S24_3LE", 3, 0};
inline constexpr device_form s24_le = {"S24_LE", 4, 8};
inline constexpr device_form s32_le = {"S32_LE", 4, 0};
inline constexpr device_form float_le = {"FLOAT_LE", 4, 0, true};
inline constexpr device_form dsd_u32_be = {"DSD_U32_BE", 4, 0};

// What the first file and the device make of the stream.
enum class packing { pcm, native, dop, i2s };
struct stream_form {
    device_form device;
    packing kind;
};
inline constexpr std::array<stream_form, 5> pcm_forms = {{{s16_le, packing::pcm},
                                                          {s24_3le, packing::pcm},
                                                          {s24_le, packing::pcm},
                                                          {s32_le, packing::pcm},
                                                          {float_le, packing::pcm}}};
inline constexpr std::array<stream_form, 5> dsd_forms = {{{dsd_u32_be, packing::native},
                                                          {s32_le, packing::dop},
                                                          {s24_le, packing::dop},
                                                          {s24_3le, packing::dop},
                                                          {s32_le, packing::i2s}}};

struct cuts {
    bool left;
    bool right;
};
inline constexpr std::array<cuts, 4> all_cuts = {
    {{false, false}, {true, false}, {false, true}, {true, true}}};
std::vector<std::string> cut_options(const cuts &cut);

// --- Sound --------------------------------------------------------------------------------------

// As a WAV file stores it.
struct pcm_sound {
    size_t sample_bytes;
    bool floats;
    size_t channels;
    int rate; // Hz
    bytes data;
};

struct sample_row {
    size_t bytes;
    bool floats;
};
inline constexpr std::array<sample_row, 5> samples = {
    {{1, false}, {2, false}, {3, false}, {4, false}, {4, true}}};

// Random samples; floats in and around -1 to 1, with those that have no place there.
pcm_sound random_pcm(const sample_row &sample, size_t channels, int rate, size_t frames,
                     uint32_t seed);

enum class wave_kind { riff, rf64, extensible };
bytes wave_file(const pcm_sound &sound, wave_kind kind = wave_kind::riff);

// Two channels, the oldest bit of a byte highest.
struct dsd_sound {
    bytes left;
    bytes right;
    uint32_t rate; // Hz
};
dsd_sound random_dsd(size_t bytes_per_channel, uint32_t seed, uint32_t rate);

// The sound in each container, each with something that is easy to get wrong.
struct container_row {
    const char *name; // of a file
    bytes (*make)(const dsd_sound &sound);
};
extern const std::array<container_row, 3> containers;

// --- What the device gets -----------------------------------------------------------------------

bytes device_bytes(const pcm_sound &sound, const device_form &device, cuts cut = {});
bytes device_bytes(const dsd_sound &sound, const stream_form &form, cuts cut = {});

// The rate of the device for a stream whose first file has the given rate, in Hz.
int device_rate(const stream_form &form, int64_t file_rate);

// Settings with which the device takes that form, and no other one.
play_settings settings_for(const stream_form &form, std::vector<std::string> arguments);

// The first trouble of a run whose first file has the given rate, or "": the device must get
// silence for a second, no write more than that takes, and then the sound, with nothing before,
// between or behind. A run that was broken off may have left out any end of it.
enum class extent { whole, broken_off };
std::string stream_trouble(const play_result &result, const stream_form &form, int64_t file_rate,
                           const bytes &sound, extent told = extent::whole);

// --- Mixed lists --------------------------------------------------------------------------------

// Files of every kind, all in one directory in the order of their names.
struct mixed_list {
    std::string directory;
    int64_t rate; // of the first file
    bytes sound;  // what the device gets behind the silence
};
// The first file makes the stream what form says; the others are of every kind, of up to
// most_frames frames of the device each.
mixed_list make_mixed_list(const stream_form &form, size_t files, size_t most_frames, uint32_t seed,
                           cuts cut = {});

// The size of a test that may go on for as long as one likes: SONIVANE_SOAK, if it is given.
int soak_size(int usual);
