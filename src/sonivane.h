// The shared record and the player state.
//
// The player has one play list and one stream. Two threads work on them: the main thread reads
// files and fills the ring, the output thread empties the ring into the device. Next to each
// variable that both touch stands who writes it and who reads it; all others belong to the main
// thread. Shared words are stored with store_release and read with load_acquire (atomics.h).
//
// A flag is a signed 32-bit word, flag_off or flag_on, tested for zero only.
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

// Units of soundfile::position to the second, and the frame rate of oversampled PCM in Hz.
inline constexpr int32_t position_units_per_second = 352800;
inline constexpr int32_t oversampled_rate = 352800;

// Channels of every stream, whatever the file holds.
inline constexpr int32_t stream_channels = 2;

// wave_format::wBitsPerSample of a DSD file; any higher value means PCM.
inline constexpr int16_t dsd_bits_per_sample = 1;

// A DSD reader fills an incomplete last group of dsd_group_bytes with this byte, a short stretch of
// DSD silence.
inline constexpr uint8_t dsd_fill_byte = 0x96;
inline constexpr int32_t dsd_group_bytes = 8;

// The parser that took a file.
enum container_kind : int32_t {
    container_dsf = 0,
    container_dsdiff = 1,
    container_wsd = 2,
    container_wav = 3,
};

// The body of a WAV "fmt " chunk, extended form included. It describes every file, DSD too: for
// those nSamplesPerSec is the bit rate of one channel in Hz.
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

// One entry of the play list. Fresh: all zero but path. Main thread, where no other is named.
struct soundfile {
    std::FILE *fp;                      // the open stream; null while there is none
    int32_t sample_format;              // SND_PCM_FORMAT_* of the stored samples; 0 for DSD
    int32_t sample_bytes;               // bytes of one stored sample; 1 for DSD
    int32_t out_sample_bytes;           // bytes of a sample on the device; in stream_file only
    int32_t out_frame_bytes;            // bytes of a frame on the device; in stream_file only
    int32_t channels;                   // channels stored in the file
    int32_t block_bytes;                // DSF: bytes of one per-channel block
    std::array<uint8_t, 8> channel_map; // DSDIFF, WSD: places of left [0] and right [1] in a frame
    container_kind container;
    std::atomic<int64_t> position; // played, 1/352800 s; from begin_at on by the output thread
    // PCM: bytes of the two played channels still to feed; DSD: bytes of one channel, constant.
    int64_t bytes_left;
    int64_t data_bytes; // as bytes_left, constant once open; gives the banner its total time
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
    int64_t probed_bytes;      // of the whole file, when it was probed for a front-end
    int64_t sound_offset;      // where the sound began then
    int64_t start_unit;        // first one to play by --start: frame (PCM), bit of a channel (DSD)
    soundfile *next;           // the following element of file_list; null in the end sentinel
};

// The second of the file that the status line shows. Any thread.
inline int64_t shown_second(const soundfile *file)
{
    return load_acquire(file->position) / position_units_per_second;
}

// Whether an open file holds DSD. Main thread.
inline bool is_dsd(const soundfile *file)
{
    return file->wave.wBitsPerSample == dsd_bits_per_sample;
}

// Sets the length of a DSD file from its header's bits of one channel: the bytes to feed are whole
// ones, a begun one counts in the time that the banner tells. Main thread.
inline void set_dsd_length(soundfile *file, int64_t bits)
{
    file->bytes_left = bits / 8;
    file->data_bytes = bits / 8 + (bits % 8 > 0 ? 1 : 0);
}

// A time from 0, exact to its 18th decimal. Longer ones than any file's are cut to one of those.
struct exact_time {
    int64_t seconds;
    int64_t attoseconds; // below attoseconds_per_second
};
inline constexpr int64_t attoseconds_per_second = 1000000000000000000;

// The block that an external controller shares with the player.
struct controller_block {
    std::atomic<int32_t> controller_pid;   // process to signal; written by the controller
    std::atomic<int32_t> controller_state; // non-zero: the last stream was announced as I2S
};
static_assert(sizeof(controller_block) == 8);

// The active feeder. Result: 0 when nothing could be done now, else non-zero.
using feeder_slot = int32_t (*)();
// The active reader: stores at most count bytes; result: bytes stored, below 1 at the file's end.
using reader_slot = int32_t (*)(soundfile *file, uint8_t *bytes, int32_t count);

// The play list: file_count records and an end sentinel. Never moved.
extern soundfile *file_list;
// The files that one stream plays, without a gap: from stream_file, which decides its form, to the
// one before stream_end. All of the list, or, with --reopen, neighbours of one form. Set by main
// before the output thread exists.
extern soundfile *stream_file;
extern soundfile *stream_end;
extern int32_t file_count;
extern soundfile *feeding_file;
extern std::atomic<soundfile *> playing_file; // written by main at start, then by the output thread

extern feeder_slot fill_buffer;
extern reader_slot read_samples;
extern ringbuffer *ring;

// The stream, settled by sound_probe; constant once the output thread exists.
extern int32_t output_format; // SND_PCM_FORMAT_*
extern int32_t output_rate;   // frames per second; 0: not settled yet
extern int32_t dsd_stream;    // 1: the device gets DSD in any form
extern int32_t i2s_mode;      // DSD goes as raw bit pairs in a PCM word
extern snd_pcm_t *pcm;        // main while probing, then the output thread

// Free bytes of the ring at which the output thread wakes main to fill it. Set by main before that
// thread exists.
extern uint32_t refill_bytes;

// Options of the command line.
extern std::array<char, 1024> device_name; // always terminated
extern int32_t oversample;
extern int32_t short_filter;
extern int32_t left_cut;
extern int32_t right_cut;
extern int32_t silent;
extern int32_t reopen;         // a file of another form gets a stream of its own
extern exact_time start_time;  // where the first file begins
extern int32_t args_used;      // argv entries taken by options, argv[0] included
extern uint64_t buffer_bytes;  // wanted size of the ring; 0: not given
extern uint64_t prime_bytes;   // of the ring, with which the sound begins at the latest
extern int32_t keep_going;     // a device that ran empty or was suspended is started again
extern const char *mode_label; // end of the status line; may be null

extern controller_block *controller; // null when there is none

// Whether the ring holds what a beginning of the sound waits for. Any thread.
bool ring_is_primed();

// When the device is asked for a form.
enum class form_offer {
    always,
    with_i2s,
    without_i2s,
    never, // a stream that has it is packed all the same
};

// One form of DSD on the device: how the bits of both channels lie in its frames.
struct dsd_form {
    int32_t format; // SND_PCM_FORMAT_* of the device
    form_offer offered;
    const char *label;      // in the stream's banner
    int32_t bits_per_frame; // of a channel
    int32_t rate_step;      // the frame rate is a multiple of it: an even one in PCM words
    uint32_t frame_bytes;
    // Frames of a feeder call's budget that a group of 8 bytes costs. A call of I2S, which makes
    // one frame of it, reads as much as one of DoP, which makes two.
    uint32_t budget_frames;
    uint8_t cut; // what the bytes of a cut channel become
    // Packs whole groups as the readers deliver them into frames at out. Result: bytes stored.
    size_t (*pack)(std::span<const uint8_t> groups, uint8_t *out);
};

// All forms, in the order in which the device is asked for them.
extern const std::span<const dsd_form> dsd_forms;

// The form that a device format gives, in i2s_mode or not. Any PCM word that has no form of its own
// gets DoP in 4 bytes. Any thread.
const dsd_form &find_dsd_form(int32_t format, int32_t i2s);

// Opens path and offers the stream to each parser. 0: a parser took it, the record describes it,
// the slots are set and the stream stands on the first sound byte. -1: none did, and fp is open for
// the caller to close. A path that cannot be opened is fatal report 725. Main thread.
int32_t open_soundfile(soundfile *file);

// Has a file that was just opened begin at that time, by seeking: at the frame (PCM) or the group
// of dsd_group_bytes (DSD) below it. start_unit and position are set; all sizes stay the whole
// file's. False, and the file is not to be read, when by its header it ends at that time or before,
// or when it cannot be sought in. Main thread.
bool begin_at(soundfile *file, const exact_time &time);
// The word for the container in an event. Any thread.
const char *container_word(container_kind container);

// Feeds DSD: up to 3528 frames, to the end of the ring's data area. 0: nothing done, for want of
// room, of files, or after a SIGINT; else -1. Main thread, through fill_buffer.
int32_t dsd_feeder();

// Feeds PCM: what one read gave, as far as there is room. 0: nothing done, for want of room, of
// files, or after a SIGINT; else -1. Main thread, through fill_buffer.
int32_t pcm_feeder();

// Shows the banner of a file that newly plays, and one status line a shown second. Main thread.
void status_update(soundfile *file);

// What a SIGINT does where no sound is on: ends the process with report 1045 if nothing sounded
// yet, or else the run in order, with the interrupt as its cause. Nothing without a SIGINT, or when
// something else ends the run already. The thread that sets the output up.
void exit_if_interrupted();
