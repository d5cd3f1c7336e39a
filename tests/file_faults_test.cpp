// Nothing read from a file exhausts memory or hangs: files that end early at every byte, paths that are no
// files, and giants. Each answer is the stated one, and the same session works afterwards.
//
//     DNNVAD_EVERY_BYTE=1 file_faults_test    leaves out no byte of the bundled files either
#define _FILE_OFFSET_BITS 64
#include <sys/resource.h>
#include <sys/wait.h>

#include <climits>
#include <csignal>
#include <cstring>
#include <iterator>

#include "dnnvad/dnn_vad.h"
#include "model_writer.h"
#include "test_support.h"

namespace {

using namespace tz_dnnvad;
using std::string;
using test::TempFile;

const string kSource = DNNVAD_SOURCE_DIR "/", kGood = kSource + "fuzz/tiny8k.bin";
const bool kEveryByte = std::getenv("DNNVAD_EVERY_BYTE") != nullptr;

string content(const string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// What a call returns (-1000 - signal if it is the end of the process) and prints. It has two seconds of
// the processor and 32 MB beside what the test itself holds (or its emulator), but for sanitizers, which
// have heaps of their own.
template <typename Call>
std::pair<int, string> in_child(Call call, const char* path) {
    int ends[2], how = 0;
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        rusage held;
        getrusage(RUSAGE_SELF, &held);
        EXPECT_EQ(write(ends[1], &held.ru_maxrss, sizeof held.ru_maxrss), sizeof held.ru_maxrss);
        const rlimit seconds = {2, 2};
        setrlimit(RLIMIT_CPU, &seconds);
        const int status = call(path);
        std::fflush(stdout);
        _exit(-status);
    }
    close(ends[1]);
    long held = 0;
    EXPECT_EQ(read(ends[0], &held, sizeof held), sizeof held);
    string said;
    for (char letter; read(ends[0], &letter, 1) == 1;) {
        said += letter;
    }
    close(ends[0]);
    rusage used;
    wait4(child, &how, 0, &used);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(used.ru_maxrss - held, 32 << 10) << said;
#endif
    return {WIFEXITED(how) ? -WEXITSTATUS(how) : -1000 - WTERMSIG(how), said};
}

// The result that goes with a message. Asserted expressions are quoted.
int status_of(const string& message) {
    const auto begins = [&](const char* text) { return message.rfind(text, 0) == 0; };
    const int status = message.empty() || begins("read_param_num") ? 0 : -120;
    return begins("`") ? -1000 - SIGABRT : begins("can't") ? -1 : begins("NULL") ? -103 : status;
}

// ---- Early ends -----------------------------------------------------------------------------------

// What is said of a network model, and from which length on.
std::vector<std::pair<std::size_t, string>> stages_of(const string& model) {
    std::size_t at = 0;
    const auto skip_lines = [&](int lines) {
        for (; lines > 0; --lines) {
            at = model.find('\n', at) + 1;
        }
        return at;
    };
    std::vector<std::pair<std::size_t, string>> stages = {
        {0, "failed to read header of model file"},
        {skip_lines(2) + 1, "failed to skip tail of current line"},
        {skip_lines(1) + 21, "failed to read data offeset of model file"}};
    at += 20;
    skip_lines(1);
    for (const string name : {"meanVector", "revVarVector"}) {
        stages.emplace_back(at + 1, "failed to read header of " + name);
        stages.emplace_back(skip_lines(1) + 1, "failed to read " + name + " head");
        const std::size_t end = model.find(' ', at);
        const string dim(&model[end + 1], 2), of = " _feat_dim:" + dim + " not equal";
        stages.emplace_back(end, "error:" + name + " Dim:-1" + of);
        stages.emplace_back(end + 2, "error:" + name + " Dim:" + dim[0] + of);
        stages.emplace_back(end + 3, "failed to read " + name + "\n");
        skip_lines(std::stoi(dim));  // to the last number
    }
    stages.emplace_back(at + 1, "`_layer_number > 0'");
    stages.emplace_back(skip_lines(1) + 4, "corrupted net model file");
    return stages;
}

class EarlyEnd : public testing::TestWithParam<const char*> {};

TEST_P(EarlyEnd, OfAModelIsRefusedForItsReason) {
    const string path = kSource + GetParam(), model = content(path);
    const auto stages = stages_of(model);
    const TempFile file(model);
    CMFE session;
    const auto load = [&](const char* name) { return session.mfeInit_load_model(name, nullptr); };
    // The scores of one frame after an initialisation with the whole file.
    const auto scores = [&] {
        const short frame[400] = {9000, -7000, 5000};
        test::printed([&] {
            EXPECT_EQ(load(path.c_str()), 0);
            EXPECT_LT(session.mfeVADOneFrame(frame, 400, 0, true), 4);
        });
        return string(reinterpret_cast<char*>(session._m_p_dst_nn), 9 * sizeof(float));
    };
    const string expected = scores();
    std::size_t stage = stages.size() - 1;
    for (std::size_t length = model.size(); length-- > 0;) {
        if (!kEveryByte && length > stages.back().first + 2000 && length % 997 != 0) {
            continue;
        }
        ASSERT_EQ(truncate(file.path(), static_cast<off_t>(length)), 0);
        const bool next = length < stages[stage].first;
        const string& message = stages[stage -= next].second;
        std::pair<int, string> answer;
        if (message[0] == '`') {
            answer = in_child(load, file.path());
        } else {
            answer.second = test::printed([&] { answer.first = load(file.path()); });
        }
        ASSERT_EQ(answer.first, status_of(message)) << length;
        ASSERT_NE(answer.second.find(message), string::npos) << length << answer.second;
        if (next || length % 61 == 0) {
            ASSERT_EQ(scores(), expected) << length;
        }
    }
    EXPECT_EQ(stage, 0U);
}

INSTANTIATE_TEST_SUITE_P(Models, EarlyEnd,
                         testing::Values("fuzz/tiny8k.bin", "fuzz/tiny16k.bin", "models/vad8k.bin",
                                         "models/vad16k.bin"));

TEST(EarlyEnd, OfATemplateTurnsDetectionOff) {
    for (const string rate : {"8k.", "16k."}) {
        const string model = kSource + "fuzz/tiny" + rate + "bin",
                     whole = kSource + "models/bleep" + rate + "txt", text = content(whole);
        const TempFile file(text);
        const std::size_t last_number = text.find_last_of(" \n", text.size() - 2) + 1;
        CMFE session;
        const auto detects = [&](const char* path) {
            session.mfeSetParam(26, 1);
            return session.mfeInit_load_model(model.c_str(), path) + session._m_n_bleep_detect;
        };
        for (std::size_t length = text.size(); length-- > 0;) {
            if (kEveryByte || length > last_number || length % 31 == 0) {
                ASSERT_EQ(truncate(file.path(), static_cast<off_t>(length)), 0);
                ASSERT_EQ(detects(file.path()), length > last_number) << length;
                ASSERT_TRUE(length % 403 != 0 || detects(whole.c_str()) == 1) << length;
            }
        }
    }
}

TEST(EarlyEnd, OfAConfigurationLeavesWhatWasRead) {
    const string text = "PARAM_MAX_SP_PAUSE:1234\nPARAM_DNN_FILE:net.bin";
    for (std::size_t length = 0; length <= text.size(); ++length) {
        const TempFile file(text.substr(0, length));
        const string read = text.substr(0, length) + string(text.size(), '\0');
        cfg_vad_t cfg;
        std::memset(&cfg, 'x', sizeof cfg);
        ASSERT_EQ(readcfg(file.path(), &cfg), 0);
        EXPECT_EQ(cfg.max_sp_pause, std::atoi(&read[text.find(':') + 1])) << length;
        EXPECT_STREQ(cfg.dnn_file, &read[text.rfind(':') + 1]) << length;
    }
}

// ---- No files, and giants -------------------------------------------------------------------------

// A path in all its roles: a model, a template (which has to turn detection off), a configuration.
void expect(const string& what, const char* path, const string& model, const string& settings) {
    const auto load = [](const char* name) { return CMFE().mfeInit_load_model(name, nullptr); };
    const auto detect = [](const char* name) {
        CMFE session;
        return session.mfeInit_load_model(kGood.c_str(), name) - session._m_n_bleep_detect;
    };
    cfg_vad_t cfg;
    const auto read = [&](const char* name) { return readcfg(name, &cfg); };
    for (const auto& [message, answer] : {std::pair(model, in_child(load, path)),
                                          {"", in_child(detect, path)},
                                          {settings, in_child(read, path)}}) {
        // Whether there is memory for many parameters depends on the machine.
        if (answer.second.find("]allocate memory[") == string::npos) {
            EXPECT_EQ(answer.first, status_of(message)) << what;
            EXPECT_NE(answer.second.find(message), string::npos) << what << "\n" << answer.second;
        }
    }
}

const string kUnread = "failed to read header of model file[", kAssertion = "`flt_number > 0'";

TEST(NoFile, IsAnswered) {
    const test::TempDir folder;
    const string loop = folder.path() + "/loop";
    ASSERT_EQ(symlink("loop", loop.c_str()), 0);
    expect("null", nullptr, "NULL POINTER: dnnfile=", "can't open ");
    expect("no name", "", "NULL POINTER: dnnfile=", "can't open ");
    for (const string& path : {kGood + "/x", loop, string(5000, 'a')}) {
        expect(path, path.c_str(), "failed to open dnn model file[", "can't open ");
    }
    expect("a folder", "/", kUnread, "can't read ");
    expect("unreadable", "/proc/self/mem", kUnread, "can't read ");
    expect("nothing", "/dev/null", kUnread, "");
    expect("endless", "/dev/zero", kAssertion, "can't read ");
    expect("endless, too", "/dev/full", kAssertion, "can't read ");
}

// A pipe has no size to look at first.
TEST(NoFile, PipesHoldWhatArrives) {
    const string model = content(kGood);
    for (const std::size_t missing : {std::size_t{0}, std::size_t{1}}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const auto length = static_cast<ssize_t>(model.size() - missing);
        ASSERT_EQ(write(ends[1], model.data(), model.size() - missing), length);
        close(ends[1]);
        const string path = "/proc/self/fd/" + std::to_string(ends[0]);
        const auto answer =
            in_child([](const char* name) { return -tz_dnnvad::DNN(nullptr, name).getState(); },
                     path.c_str());
        EXPECT_EQ(answer.first, missing == 0 ? -2 : -1);
        EXPECT_EQ(answer.second.find("corrupted net model") == string::npos, missing == 0);
        close(ends[0]);
    }
}

// What follows each header is nothing, or 4 GB of zeros that take no space on the disk.
TEST(Giant, CostsLittle) {
    using Sizes = std::vector<std::int32_t>;
    const auto claim = [](int features, int count, int layers, const Sizes& sizes = {52, 3, 9}) {
        test::Model model = test::random_model({52, 3, 9});
        model.header[0] = features;
        model.count_line = std::to_string(count) + "\n";
        model.layer_number = layers;
        model.sizes = sizes;
        return model.bytes();
    };
    const string zeros = claim(1 << 16, 195, 3), corrupted = "corrupted net model file[",
                 vector = "failed to read meanVector\n", head = "failed to read meanVector head\n",
                 memory = "DNN init memory new failure ", first = memory + "curLayer:0 ";
    const struct {
        const char* what;
        string header, alone, with_zeros;
    } cases[] = {
        {"zeros", "", kUnread, kAssertion},
        {"a line", string(1 << 20, 'x'), kAssertion, kAssertion},
        {"a number", string(1 << 24, '1'), head, head},
        {"2^31 - 1 features", claim(INT_MAX, 195, 3), vector, vector},
        {"2^16 zeros", zeros.substr(0, zeros.find("0.0")), vector,
         "failed to read revVarVector head"},
        {"2^31 - 1 parameters", claim(26, INT_MAX, 3), corrupted, corrupted},
        {"2^28 parameters", claim(26, 1 << 28, 3), corrupted, "read_param_num[195] != param_num["},
        {"2^31 - 1 layers", claim(26, 195, INT_MAX), corrupted, corrupted},
        {"2^28 layers", claim(26, 195, 1 << 28), corrupted, memory + "_layer_number:268435456"},
        {"2^16 layers", claim(26, 195, 1 << 16), corrupted, memory + "curLayer:2 "},
        {"2^28 weights", claim(26, 195, 3, {1 << 14, 1 << 14, 9}), first, first},
        {"2^31 - 1 inputs", claim(26, 195, 2, {INT_MAX, 1}), first, first},
        {"no outputs", claim(26, 195, 2, {INT_MAX, 0}), first, first},
        {"one layer", claim(26, 195, 1, {INT_MAX}), memory + "maxlayer", memory + "maxlayer"},
    };
    for (const auto& giant : cases) {
        const TempFile file(giant.header);
        expect(giant.what, file.path(), giant.alone, "");
        ASSERT_EQ(truncate(file.path(), off_t{1} << 32), 0);
        expect(giant.what, file.path(), giant.with_zeros, "can't read ");
    }
}

}  // namespace
