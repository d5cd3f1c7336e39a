// The energy detector: voice activity from the mean absolute amplitude of each frame.
//
// Usage, one object per stream:
//
//      tz_evad::Vad vad;
//      vad.init(1024);                                  // largest frame in samples; takes the rings
//      vad.free();                                      // start of a stream
//      int state = vad.evad_process_one_frame(pcm, 80); // once per frame
//      int got = vad.vad_get_data(speech, 8000);        // whenever speech audio is wanted
//      vad.free();                                      // next stream
//      vad.exit();                                      // gives the rings back; so does destruction
//
// The first noise_frames frames of a stream only teach the noise level. From then on the detector is
// in silence or in speech:
//
//      silence --- start_frames frames in a row with mean >= 1.2 * noise level ---> speech
//      speech  --- end_frames frames in a row with mean < 1.15 * noise level -----> silence
//
// While in silence it keeps the last start_frames + pre_frames frames; when speech starts they go
// ahead of it into the output ring, where samples wait for vad_get_data.
//
// Samples are 16-bit PCM at any rate; lengths, sizes and counts of audio are in samples. Not
// thread-safe: one object belongs to one thread at a time; objects share nothing.
#ifndef DNNVAD_EVAD_H
#define DNNVAD_EVAD_H

#include "dnnvad/vad_api.h"

namespace tz_evad {

// All members are public and keep their order: hosts read them. Those marked [stream] are cleared by
// free, those marked [setting] are kept by it. A count or head never leads outside a ring, whatever
// a host stored in it.
class DNNVAD_API Vad {
public:
    int frame_count = 0;      // [stream] frames accepted, training included; stays at INT_MAX
    int start_frames = 1;     // [setting] loud frames in a row that start speech; <= 0: never
    int end_frames = 20;      // [setting] quiet frames in a row that end speech; <= 0: never
    int max_frame_len = 256;  // [setting] largest frame accepted, in samples; sizes the rings
    int noise_frames = 10;    // [setting] frames that teach the noise level; <= 0: the level is 0
    int noise_level = 0;      // [stream] training: sum of the frame means; then the level
    int start_count = 0;      // [stream] current run of loud frames in silence
    int end_count = 0;        // [stream] current run of quiet frames in speech
    int pre_frames = 20;      // [setting] frames from before the start that are delivered with it
    bool in_speech = false;   // [stream] true from a speech start to the speech end
    bool data_ready = false;  // whether the last vad_detect succeeded; free leaves it

    // Output ring: speech that waits to be read. Owned.
    short* out_buf = nullptr;
    int out_head = 0;   // [stream] index of the oldest sample
    int out_count = 0;  // [stream] samples waiting
    int out_size = 0;   // capacity in samples; a grown ring stays grown over free

    // History ring: the samples of the most recent frames in silence. Owned.
    short* hist_buf = nullptr;
    int hist_head = 0;   // [stream] index of the oldest sample
    int hist_count = 0;  // [stream] samples held
    int hist_size = 0;   // capacity in samples; a grown ring stays grown over free

    // Length ring: the lengths of the frames in the history, oldest first. Owned. It works with
    // start_frames + pre_frames entries, read from the two members each time.
    int* len_buf = nullptr;
    int len_head = 0;   // [stream] index of the oldest length
    int len_count = 0;  // [stream] lengths held

    // [stream] What the last frame was, as an index into g_AudioState: 0 "SPEECH2SPEECH",
    // 1 "SPEECH2SIL", 2 "SIL2SIL", 3 "SIL2SPEECH".
    int state = 2;

    // Entries allocated in len_buf: the bound when a host changes start_frames or pre_frames after
    // init, and all that the ring then uses.
    int len_size = 0;

    // Allocates nothing.
    Vad();
    // Releases the rings, as exit does.
    ~Vad();
    Vad(const Vad&) = delete;
    Vad& operator=(const Vad&) = delete;

    // Each takes over its settings, releases the rings and takes new ones, filled with zeros:
    // max_frame_len * (start_frames + pre_frames) samples of history, twice that for output. Nothing
    // else is touched (counts and heads neither): call free next. Returns 0. Throws
    // std::bad_array_new_length when a size is negative or beyond 32 bits and std::bad_alloc when
    // memory is short; the object then has no complete set of rings, and vad_detect answers -3
    // (or an error that it looks for first).
    int init(int frame_len);
    int init(int frame_len, int pre);
    int init(int start, int end, int pre, int frame_len);
    int init(int start, int end, int pre, int noise, int frame_len);

    // Processes one frame of n samples and stores the number of samples now waiting in the output
    // ring in `out` (0 during training). n = 0 is a frame with mean 0. A negative n is too; it also
    // takes -n samples (at most max_frame_len) off the count of the ring that it would have entered.
    // Returns
    //    0  done; `state` tells what the frame was (training leaves it alone)
    //   -1  samples is null
    //   -2  n is greater than max_frame_len
    //   -3  the rings are missing (no init, or after exit)
    // A failure sets `out` to 0 and data_ready to false and changes nothing else.
    // May throw as init does when a ring has to grow; steady streams that are read do not grow any,
    // but once when frames are of full length.
    int vad_detect(const short* samples, int n, int& out);

    // vad_detect, answering with `state`, or with 5 ("INVALID") when it failed.
    int evad_process_one_frame(const short* samples, int n);

    // Moves up to n waiting samples, oldest first, to `destination` (the caller's, room for n).
    // Returns the number moved: 0 when the last vad_detect failed, when there was none yet and when
    // the ring or the destination is missing; -1 when n is negative.
    int vad_get_data(short* destination, int n);

    // Starts a new stream: clears what is marked [stream] and takes any ring that is missing, sized
    // by the current settings (throws as init does). Rings that exist are kept as they are. Returns 0.
    int free();

    // Releases the rings; counts stay as they are. May be called again; init or free revives.
    void exit();
};

}  // namespace tz_evad

#endif
