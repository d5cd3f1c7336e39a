// What is in a network model or a bleep template, or where a malformed one goes wrong.
//
// The readers follow the library's own step by step (dnnvad/vad_nn.cpp, dnnvad/bleep_detect.cpp), so
// that both accept the same files. Nothing is allocated on the word of a header: memory grows with
// what the file really holds.
#ifndef DNNVAD_APP_MODEL_FILE_H
#define DNNVAD_APP_MODEL_FILE_H

#include <nlohmann/json.hpp>
#include <string>

enum class ModelKind { kAny, kNetwork, kTemplate };

// Keys with their units, in the order for people. "doubts" lists what is odd in a file that loads.
// Throws Failure unless it is of the kind and one that the library loads (some malformed models end the
// process there): "PATH: as a KIND: at byte N: this was expected, that is there".
nlohmann::ordered_json describe_file(const std::string& path, ModelKind kind = ModelKind::kAny);

#endif
