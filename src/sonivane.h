// The record of a file and the state of the player.
//
// The player has one play list and one stream. Two threads work on them: the main thread reads
// files and fills the ring, and the output thread empties the ring into the device. Each variable
// that both threads use names its writer and its readers. All other variables belong to the main
// thread. Shared words are stored with store_release and read with load_acquire (atomics.h).
//
// A flag is a signed 32-bit word, flag_off or flag_on. It is compared with zero only.
#pragma once

#include <alsa/asoundlib.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

#include "atomics.h"
#include "ringbuffer.h"

inline constexpr int32_t flag_off = 0;
inline constexpr int32_t flag_on = -1;

// Units per second of soundfile::position, and the frame rate of oversampled PCM in Hz.
inline constexpr int32_t position_units_per_second = 352800;
inline constexpr int32_t oversampled_rate = 352800;

// Channels of every stream, whatever the file has.
inline constexpr int32_t stream_channels = 2;

// wave_format::wBitsPerSample of a DSD file. Any higher value means PCM.
inline constexpr int16_t dsd_bits_per_sample = 1;

// A DSD reader fills the rest of an incomplete last group of dsd_group_bytes with this byte, a
// short piece of DSD silence.
inline constexpr uint8_t dsd_fill_byte = 0x96;
inline constexpr int32_t dsd_group_bytes = 8;

// The parser that accepted a file.
enum container_kind : int32_t {
    container_dsf = 0,
    container_dsdiff = 1,
    container_wsd = 2,
    container_wav = 3,
};

// The body of a WAV "fmt " chunk with its extension. It describes DSD files too: for them
// nSamplesPerSec is the bit rate of one channel in Hz.
struct wave_format {
    int16_t wFormatTag;
    int16_t nChannels;
    int32_t nSamplesPerSec; // frames (PCM) or bits of a channel (DSD) per second
    int32_t nAvgBytesPerSec;
    int16_t nBlockAlign;    // bytes of a frame
    int16_t wBitsPerSample; // stored width in bits, or dsd_bits_per_sample
    int16_t cbSize;         // bytes of the extension
    uint16_t wValidBitsPerSample;
    uint32_t dwChannelMask;
    std::array<uint8_t, 16> SubFormat;
    std::array<uint8_t, 4> rest;
};
static_assert(sizeof(wave_format) == 44);
static_assert(offsetof(wave_format, nSamplesPerSec) == 4);
static_assert(offsetof(wave_format, nBlockAlign) == 12);
static_assert(offsetof(wave_format, cbSize) == 16);
static_assert(offsetof(wave_format, dwChannelMask) == 20);
static_assert(offsetof(wave_format, SubFormat) == 24);

// One entry of the play list. In a new one everything but path is zero. Main thread, unless a field
// names another.
struct soundfile {
    std::FILE *fp;                      // the open stream; null while there is none
    int32_t sample_format;              // SND_PCM_FORMAT_* of the stored samples; 0 for DSD
    int32_t sample_bytes;               // bytes of one stored sample; 1 for DSD
    int32_t out_sample_bytes;           // bytes of a sample on the device; set in stream_file only
    int32_t out_frame_bytes;            // bytes of a frame on the device; set in stream_file only
    int32_t channels;                   // channels stored in the file
    int32_t block_bytes;                // DSF: bytes of one per-channel block
    std::array<uint8_t, 8> channel_map; // DSDIFF, WSD: places of left [0] and right [1] in a frame
    container_kind container;
    // Time played in 1/352800 s. Written by begin_at, then by the output thread.
    std::atomic<int64_t> position;
    // PCM: bytes of the two played channels that are still to be fed. DSD: bytes of one channel;
    // constant.
    int64_t bytes_left;
    int64_t data_bytes; // as bytes_left, but constant once open; for the banner's total time
    char *path;         // owned, from malloc; null in the end sentinel
    wave_format wave;
    int32_t index; // place in the play list from 0; -1 in the end sentinel
    uint32_t dsf_version;
    uint32_t dsf_format_id;
    uint32_t dsf_channel_type;
    uint32_t dsf_channel_num;
    uint32_t dsf_sampling_frequency; // Hz
    uint32_t dsf_bits_per_sample;
    uint64_t dsf_sample_count; // bits per channel
    uint32_t dsf_block_size;   // bytes per channel
    int64_t dsf_bytes_left;    // bytes per channel still to read
    int32_t rf64;              // flag: the WAV file is of the RF64 form
    int64_t probed_bytes;      // bytes of the whole file when it was probed
    int64_t sound_offset;      // byte offset of the sound in the file when it was probed
    int64_t start_unit;        // first one to play by --start: frame (PCM), bit of a channel (DSD)
    soundfile *next;           // the next element of file_list; null in the end sentinel
};

// The second of the file that the status line shows, from 0. Any thread.
inline int64_t shown_second(const soundfile *file)
{
    return load_acquire(file->position) / position_units_per_second;
}

// Whether an open file holds DSD. Main thread.
inline bool is_dsd(const soundfile *file)
{
    return file->wave.wBitsPerSample == dsd_bits_per_sample;
}

// Sets the length of a DSD file from the number of bits of one channel in its header. Only whole
// bytes are fed. The total time of the banner also counts a last byte that is incomplete. Main
// thread.
inline void set_dsd_length(soundfile *file, int64_t bits)
{
    file->bytes_left = bits / 8;
    file->data_bytes = bits / 8 + (bits % 8 > 0 ? 1 : 0);
}

// A time of 0 or more, exact to 18 decimals. A time beyond the range is cut to one that is still
// longer than any file.
struct exact_time {
    int64_t seconds;
    int64_t attoseconds; // below attoseconds_per_second
};
inline constexpr int64_t attoseconds_per_second = 1000000000000000000;

// The memory block that an external controller shares with the player.
struct controller_block {
    std::atomic<int32_t> controller_pid;   // process to signal; written by the controller
    std::atomic<int32_t> controller_state; // non-zero: the last stream was announced as I2S
};
static_assert(sizeof(controller_block) == 8);

// The active feeder. Result: 0 if nothing could be done now, else non-zero.
using feeder_slot = int32_t (*)();
// The active reader. It stores at most count bytes. Result: the number of bytes stored; below 1 at
// the end of the file.
using reader_slot = int32_t (*)(soundfile *file, uint8_t *bytes, int32_t count);

// The play list: file_count records and an end sentinel. It is never moved.
extern soundfile *file_list;
// The files that one stream plays without a gap: from stream_file, which decides the form of the
// stream, to the file before stream_end. That is the whole list, or, with --reopen, adjacent files
// of the same form. Set by main before the output thread exists.
extern soundfile *stream_file;
extern soundfile *stream_end;
extern int32_t file_count;
extern soundfile *feeding_file;
extern std::atomic<soundfile *> playing_file; // written by main at start, then by the output thread

extern feeder_slot fill_buffer;
extern reader_slot read_samples;
extern ringbuffer *ring;

// The stream, as sound_probe settled it. Constant while the output thread exists.
extern int32_t output_format; // SND_PCM_FORMAT_*
extern int32_t output_rate;   // frames per second; 0: not settled yet
extern int32_t dsd_stream;    // 1: the device gets DSD in any form
extern int32_t i2s_mode;      // flag: DSD goes out as raw bit pairs in a PCM word
extern snd_pcm_t *pcm;        // main while it probes, then the output thread

// Bytes of free room in the ring at which the output thread wakes main to fill it. Set by main
// before that thread exists.
extern uint32_t refill_bytes;

// Options of the command line.
extern std::array<char, 1024> device_name; // always ends with a zero byte
extern int32_t oversample;
extern int32_t short_filter;
extern int32_t left_cut;
extern int32_t right_cut;
extern int32_t silent;
extern int32_t reopen;         // flag: the device is opened anew for a file of another rate or kind
extern exact_time start_time;  // from which the first file plays
extern int32_t args_used;      // entries of argv used by options, with argv[0]
extern uint64_t buffer_bytes;  // requested size of the ring; 0: not given
extern uint64_t prime_bytes;   // bytes in the ring at which the sound starts, at the latest
extern int32_t keep_going;     // flag: a device is started again after an underrun or a suspend
extern const char *mode_label; // end of the status line; may be null

extern controller_block *controller; // null when there is none

// Whether the ring holds enough to start the sound. Any thread.
bool ring_is_primed();

// When a form is requested from the device.
enum class form_offer {
    always,
    with_i2s,
    without_i2s,
    never, // there is a packing for the form, but no device is asked for the form
};

// One form of DSD on the device: how the bits of both channels are arranged in a frame.
struct dsd_form {
    int32_t format; // SND_PCM_FORMAT_* of the device
    form_offer offered;
    const char *label;      // in the stream's banner
    int32_t bits_per_frame; // of a channel
    int32_t rate_step;      // the frame rate is a multiple of this number; 2: it is even
    uint32_t frame_bytes;
    // Frames that a group of 8 bytes counts for in the budget of a feeder call. I2S makes one frame
    // of a group and DoP makes two. Both count 2, so that a call reads the same number of bytes.
    uint32_t budget_frames;
    uint8_t cut; // replaces the bytes of a channel that is to be silent
    // Packs whole groups, as the readers deliver them, into frames at out. Result: bytes stored.
    size_t (*pack)(std::span<const uint8_t> groups, uint8_t *out);
};

// All forms, in the order in which they are requested from the device.
extern const std::span<const dsd_form> dsd_forms;

// The form for a format of the device. i2s: the value of i2s_mode. A PCM format without a row of
// its own gets DoP in 4 bytes. Any thread.
const dsd_form &find_dsd_form(int32_t format, int32_t i2s);

// Opens path and offers the stream to each parser. Result: 0 if a parser accepted it. Then the
// record describes the file, fill_buffer and read_samples are set, and the stream is at the first
// sound byte. Result: -1 if no parser accepted it. Then fp is open and the caller closes it. A path
// that cannot be opened ends the process with report 725. Main thread.
int32_t open_soundfile(soundfile *file);

// Makes a file that was just opened begin at that time, by seeking to the frame (PCM) or the group
// of dsd_group_bytes (DSD) at or before it. Sets start_unit and position; all sizes stay those of
// the whole file. Result: false if the file must not be read, because by its header it ends at that
// time or earlier, or because it does not allow seeking. Main thread.
bool begin_at(soundfile *file, const exact_time &time);
// The word for the container in events. Any thread.
const char *container_word(container_kind container);

// Feeds DSD: at most 3528 frames, and not beyond the end of the ring's data area. Result: 0 if
// nothing was done, because there is no room, there are no files, or a SIGINT came; else -1. Main
// thread, through fill_buffer.
int32_t dsd_feeder();

// Feeds PCM: the result of one read, as far as there is room. Result: 0 if nothing was done,
// because there is no room, there are no files, or a SIGINT came; else -1. Main thread, through
// fill_buffer.
int32_t pcm_feeder();

// Prints the banner of a file that has started to play, and a status line each time that the
// position reaches another second. Main thread.
void status_update(soundfile *file);

// Handles a SIGINT while the output thread does not play. If nothing has been played yet, it ends
// the process with report 1045. Otherwise it stops the run, with the interrupt as the cause, and
// main goes on to its end. Without a SIGINT, or if something else already ends the run, it does
// nothing. Main and output thread.
void exit_if_interrupted();
