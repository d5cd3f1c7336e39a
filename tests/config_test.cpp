// The configuration file and the numbered parameters.
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <utility>

#include "dnnvad/dnn_vad.h"
#include "test_support.h"

namespace {

using namespace tz_dnnvad;
using test::printed;
using test::TempFile;

static_assert(sizeof(cfg_vad_t) == 16 * 4 + 512 + 512 + 256, "hosts rely on the layout");
static_assert(offsetof(cfg_vad_t, dnn_file) == 16 * 4 + 512, "hosts rely on the layout");

// The record that a file gives; it starts out full of 'x', so that what stays shows.
cfg_vad_t parse(const std::string& text) {
    const TempFile file(text);
    cfg_vad_t cfg;
    std::memset(&cfg, 'x', sizeof cfg);
    EXPECT_EQ(readcfg(file.path(), &cfg), 0);
    return cfg;
}

TEST(Readcfg, EveryKeyFillsItsField) {
    const cfg_vad_t cfg = parse(
        "PARAM_DNN_FILE:net.bin\nPARAM_CMVN_FILE: cmvn.txt rest\nPARAM_BLEEP_DETECT:16\n"
        "PARAM_EVAD_DNNVAD_SWITCH:15\nPARAM_WAIT_AFTER_MINSPEECH:14\nPARAM_DETECT_START:13\n"
        "PARAM_SPEECH_OFFSET:12\nPARAM_SAMPLE_RATE:11\nPARAM_DEBUG_LOG:10\n"
        "PARAM_END_BACK_FRAME:9\nPARAM_START_BACK_FRAME:8\nPARAM_HEAD_SIL_DURATION:7\n"
        "PARAM_MAX_SP_PAUSE:6\nPARAM_MIN_SP_DURATION:5\nPARAM_MAX_SP_DURATION:4\n"
        "PARAM_MAX_WAIT_DURATION:3\nPARAM_DNN_SIL_threshold:-1e-2\nPARAM_DNN_SPEECH_threshold:1.5");
    EXPECT_EQ(cfg.speech_threshold, 1.5F);
    EXPECT_EQ(cfg.sil_threshold, -1e-2F);
    int words[16];
    std::memcpy(words, &cfg, sizeof words);
    for (int field = 3; field <= 16; ++field) {
        EXPECT_EQ(words[field - 1], field);
    }
    EXPECT_STREQ(cfg.cmvn_file, "cmvn.txt");
    EXPECT_STREQ(cfg.dnn_file, "net.bin");
    EXPECT_EQ(cfg.spare[0], '\0');
    EXPECT_EQ(sizeof cfg, 16U * 4 + 512 + 512 + 256);  // without gaps
}

TEST(Readcfg, WhatCountsAsASetting) {
    const cfg_vad_t clear{},
        none = parse(
            "#PARAM_MAX_SP_PAUSE:1\n\n PARAM_MAX_SP_PAUSE:1\nPARAM_MAX_SP_PAUSE :1\n"
            "PARAM_MAX_SP_PAUSE "
            "1\nparam_max_sp_pause:1\nPARAM_MAX_SP_PAUSE:\nPARAM_MAX_SP_PAUSE:x1\n"
            "PARAM_DNN_SIL_threshold:y\nPARAM_DNN_FILE:  \nNO_KEY:5\n");
    EXPECT_EQ(std::memcmp(&none, &clear, sizeof clear), 0);
    const std::string key = "PARAM_MAX_SP_PAUSE:";
    const std::pair<std::string, int> cases[] = {
        {key + " \t30 ms\r\n", 30},
        {key + "0x1f\n", 0},
        {key + "1\n" + key + "-2\n" + key + "no\n", -2},
        {key + "99999999999999999999\n", INT_MAX},
        // A long line is taken in pieces of 1023 characters, each a line of its own.
        {std::string(1023, '#') + key + "7\n", 7},
        {std::string(1022, '#') + key + "7\n", 0}};
    for (const auto& one : cases) {
        EXPECT_EQ(parse(one.first).max_sp_pause, one.second) << one.first;
    }
    for (const std::size_t length : {511U, 512U, 1500U}) {  // names fill their field and no more
        const cfg_vad_t cfg = parse("PARAM_CMVN_FILE:" + std::string(length, 'c') + "\n");
        EXPECT_EQ(std::string(cfg.cmvn_file, 511), std::string(511, 'c'));
        EXPECT_EQ(cfg.cmvn_file[511], length > 511 ? 'c' : '\0');
        EXPECT_EQ(cfg.dnn_file[0], '\0');
    }
    EXPECT_EQ(parse("PARAM_DNN_FILE:longer\nPARAM_DNN_FILE:name\n").dnn_file[5], '\0');

    cfg_vad_t kept{};
    kept.max_wait = 5;
    EXPECT_EQ(printed([&] { EXPECT_EQ(readcfg("/nowhere/vad.cfg", &kept), -1); }),
              "ERROR:[dnnvad/dnn_vad_param.cpp:]can't open /nowhere/vad.cfg\n\n");
    EXPECT_EQ(kept.max_wait, 5);
}

class Parameters : public testing::Test {
protected:
    float set(int id, float value) {
        EXPECT_EQ(session.mfeSetParam(id, value), 0) << id;
        return session.mfeGetParam(id);
    }

    CMFE session;
};

TEST_F(Parameters, DefaultsAndRoundTrips) {
    const std::pair<int, float> defaults[] = {
        {1, 110},   {2, 5000},  {3, 90},    {4, 25},    {5, 400},   {6, 40},
        {7, 40},    {8, 0},     {9, 80000}, {10, 0},    {11, -109}, {12, 1},
        {13, 8000}, {14, -109}, {23, 0.2F}, {24, 0.2F}, {25, 0},    {26, 1}};
    for (const auto& parameter : defaults) {
        EXPECT_EQ(session.mfeGetParam(parameter.first), parameter.second) << parameter.first;
    }
    for (const int id : {2, 4, 5, 6, 7, 10, 25, 26}) {
        EXPECT_EQ(set(id, -17.9F), -17.0F) << id;
        EXPECT_EQ(set(id, 1e20F), 2147483648.0F) << id;
        EXPECT_EQ(set(id, NAN), 0.0F) << id;
    }
    EXPECT_EQ(set(8, -3), 0.0F);
    EXPECT_EQ(set(11, 0.9F), -109.0F);
    EXPECT_FALSE(session._m_b_vad_enable);
    EXPECT_EQ(set(12, 0.9F), 0.0F);
    EXPECT_EQ(set(23, 0.75F), 0.75F);
    EXPECT_EQ(set(24, -0.5F), -0.5F);
    for (const int id : {-1, 0, 15, 22, 27}) {
        EXPECT_EQ(session.mfeSetParam(id, 1.0F), -109) << id;
        EXPECT_EQ(session.mfeGetParam(id), -109.0F) << id;
    }
    session.mfeSetLogLevel(-1);
    EXPECT_EQ(session.mfeGetParam(8), 7.0F);
    EXPECT_EQ(session.mfeSetHistVolume(9) + session.mfeGetHistVolume(), 0);
}

TEST_F(Parameters, WaitAndPauseRulesAreLopsided) {
    session._m_n_max_speech_pause = 30;
    EXPECT_EQ(set(1, 50), 50.0F);
    EXPECT_EQ(session._m_n_max_wait, 50);
    EXPECT_EQ(session.mfeGetParam(3), 49.0F);
    EXPECT_EQ(session._m_n_max_speech_pause, 30);  // only the configured pause counts
    session._m_n_max_wait = 60;
    EXPECT_EQ(set(3, 55), 55.0F);
    EXPECT_EQ(session._m_n_max_speech_pause, 55);
    EXPECT_EQ(session._m_n_max_wait, 60);  // only the current wait counts
    set(3, 60);
    EXPECT_EQ(session._m_n_max_wait, 61);
    EXPECT_EQ(session.mfeGetParam(1), 50.0F);
    set(14, 10);
    EXPECT_EQ(session._m_n_wait_after_minspeech, 50);
    set(14, 70);
    EXPECT_EQ(session._m_n_wait_after_minspeech, 70);
    set(1, -3e9F);  // no wrap-around at the limits
    set(3, 3e9F);
    EXPECT_EQ(session._m_n_max_wait, INT_MAX);
}

TEST_F(Parameters, BufferLengthAndSampleRate) {
    EXPECT_EQ(set(9, 7999), 100 * 80 * 2.0F);
    EXPECT_EQ(set(9, 8000), 101 * 80 * 2.0F);
    EXPECT_EQ(set(9, 80000), 160160.0F);
    EXPECT_EQ(session._m_n_max_data_len, 40000);  // follows the rate only
    EXPECT_EQ(set(13, 16000.7F), 16000.0F);
    EXPECT_EQ(session._m_n_max_data_len, 1001 * 160);
    EXPECT_EQ(session._m_n_frame_shift, 160);
    EXPECT_EQ(printed([&] { EXPECT_EQ(session.mfeSetParam(13, 44100), -109); }),
              "ERROR:[dnnvad/dnn_vad_param.cpp:]SampleRate = 44100, should be 8000 or 16000\n");
    EXPECT_EQ(session.mfeGetParam(13), 16000.0F);
    // Rings of more than 2^31 - 1 samples can be asked for, not made.
    set(13, 8000);
    EXPECT_EQ(session.mfeSetParam(9, 3e9F), 0);
    EXPECT_EQ(session._m_n_buf_frames, 26843546);
    set(13, 16000);
    EXPECT_EQ(session._m_n_max_data_len, INT_MAX);
    const std::string model = DNNVAD_SOURCE_DIR "/models/vad8k.bin";
    printed([&] { EXPECT_EQ(session.mfeInit_load_model(model.c_str(), nullptr), -107); });
}

}  // namespace
