// Recordings as the detector wants them: mono 16-bit PCM at one rate.
#ifndef DNNVAD_APP_AUDIO_FILE_H
#define DNNVAD_APP_AUDIO_FILE_H

#include <string>
#include <vector>

// Reads any file that libsndfile reads, averages its channels, converts it to `rate` Hz and rounds
// to 16 bits; samples beyond full scale are clipped. Throws std::runtime_error with the reason.
std::vector<short> read_recording(const std::string& path, int rate);

// The rate of a recording in Hz. Throws std::runtime_error with the reason.
int recording_rate(const std::string& path);

#endif
