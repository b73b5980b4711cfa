// The device: the choice of the stream's form, the negotiation of parameters, and the thread that
// moves frames from the ring to the device.
#pragma once

#include <alsa/asoundlib.h>

#include <atomic>
#include <cstdint>

// Opens the device once to learn output_format, output_rate, i2s_mode and the byte widths of
// stream_file, and closes it. Result: -1; every failure is fatal. If the sound is stopped, all of
// them keep their values. Main thread, before the output thread exists.
int32_t sound_probe();

// Prints the line with the stream's form and rate on standard error. Main thread, after
// sound_probe.
void stream_banner();

// Sends the event that describes the stream. Main thread, after the ring is made.
void emit_stream();

// Sets device_name to device 0 of the last card and prints it on standard output. Result: -1, or 0
// if there is no card. Main thread.
int32_t find_last_card();

// Gives the variables that sound_probe sets the values that they had before the first stream. Main
// thread, after the output thread has ended.
void forget_stream();

// Called after main has put frames into the ring, or when it will put no more. Wakes the output
// thread if it waits for frames. Main thread.
void sound_was_fed();

// What the output thread is doing. Main is woken when it changes. Any thread.
enum class sound_phase { opening, silence, sound, waiting };
sound_phase phase_of_sound();

// The longest time in microseconds that the rest of the silence, the ring and the device can last.
// Before the device is open, and while the sound waits after an underrun or a suspend, all of the
// silence counts, and the buffer of the device is assumed to have the requested size. Main thread.
int64_t sound_left();

// Counts the beginnings and the ends of all breaks, in which the sound waits for the ring and the
// device. Written by the output thread, which then wakes main; read by main.
extern std::atomic<int32_t> sound_breaks;
inline bool sound_waits(int32_t breaks)
{
    return breaks % 2 != 0;
}

// The output thread: opens the device to play, sends a second of silence and then the ring. It ends
// when the ring is empty and nothing more will come, or when stop_output is set.
void *output_thread(void *unused);
