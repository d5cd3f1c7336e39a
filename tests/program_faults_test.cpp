// The program where disks are full, pipes closed, folders shut, recordings cut off or wrong about their
// length: what it says, how it ends, and what it leaves behind.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "tests/run_program.h"
#include "tests/temp_file.h"

namespace {

using test::read_file;
using test::source;

struct Row {
    std::string a = "", b = "", c = "";
};

constexpr unsigned kBytes = 5 * 16000, kUnknown = 0xffffffff;
const std::string kSamples = read_file(source("samples/roadsigns-8k.wav")).substr(44, kBytes);
const std::string kFull = "No space left on device\n", kFailed = "status 1\n";

#if defined(__x86_64__) && !defined(DNNVAD_SANITIZED)
constexpr bool kNative = true;
#else
constexpr bool kNative = false;
#endif

std::string word(unsigned value) { return {reinterpret_cast<const char*>(&value), 4}; }

// A WAV file's header, with a length of the data that need not be true.
std::string header(unsigned claimed) {
    return "RIFF" + word(claimed + 36) + "WAVEfmt " + word(16) + word(0x10001) + word(8000) +
           word(16000) + word(0x100002) + "data" + word(claimed);
}

// A folder with a short recording of one utterance, its label, and a microphone that plays it.
class Faults : public testing::Test {
protected:
    Faults() {
        put("r.wav", header(kBytes) + kSamples);
        put("r.txt", "1.28 3.84\n");
        put("alsa", "pcm.mic { type file slave.pcm.type null file /dev/null infile r.wav }\n");
    }
    void put(const std::string& name, const std::string& content) const {
        std::ofstream(folder_.path() + "/" + name, std::ios::binary) << content;
    }
    // What a command prints (`errors` prints errors alone), its status unless that is 0, and what else is
    // in the folder, which goes.
    std::string run(const std::string& command) const {
        const std::string begin =
            "; errors() { dnnvad \"$@\" 2>&1 >/dev/null; }; export ALSA_CONFIG_PATH=$PWD/alsa "
            "l='live --rate 8000 -D mic --seconds 6' "
            "t='tune --labels . --thresholds 0.2 --pauses 600ms --margins 100ms r.wav' s=";
        return test::run("cd " + folder_.path() + begin + source("samples") + "; (" + command +
                         "); "
                         "s=$?; [ $s = 0 ] || echo status $s; ls -A | grep -vxE "
                         "'r.wav|r.txt|alsa|kept' | while read f; do echo left: $f; rm -r $f; done")
            .output;
    }
    const test::TempDir folder_;
};

TEST_F(Faults, FilesThatCannotBeWrittenAreNotLeftHalf) {
    for (const std::string command :
         {"detect r.wav -o x", "detect -f json r.wav -o x", "detect -f csv r.wav r.wav -o x",
          "detect -f rttm r.wav -o x", "detect -f audacity r.wav -o x",
          "detect -f textgrid r.wav -o x", "plot r.wav -o x.html", "plot r.wav -o x.svg", "$t -o x",
          "record-bleep --renderings 30 $s/prompt-8k.wav --speech $s/*m*.wav $s/r*.wav -o x"}) {
        if (command[0] == 'r' && !kNative) {
            continue;  // (slow)
        }
        const std::string name = command.substr(command.rfind(' ') + 1),
                          it = "errors " + command.substr(0, command.size() - name.size());
        const std::string told = "dnnvad: " + name + ": ", left = kFailed + "left: " + name + "\n";
        EXPECT_EQ(run("ln -s /dev/full " + name + "; " + it + name), told + kFull + left);
        EXPECT_EQ(
            run("echo old >" + name + "; ulimit -f 0; " + it + name + "; cat " + name + "; exit 1"),
            told + "File too large\nold\n" + left);
        EXPECT_EQ(run(it + "/proc/" + name),
                  "dnnvad: /proc/" + name + ": No such file or directory\n" + kFailed);
    }
}

// What was finished by then stays: a configuration, an utterance.
TEST_F(Faults, StandardOutputThatCannotBeWrittenIsToldOnce) {
    const std::string told = "dnnvad: standard output: ", only = "grep -E '^(dnnvad|status)' kept";
    for (const std::string command : {"detect -f json r.wav r.wav", "detect -f textgrid r.wav",
                                      "info", "$l", "$t -o x", "$l --once --cut c"}) {
        const std::string it = "dnnvad " + command + " 2>kept",
                          status = "; echo status $? >>kept; ";
        const std::string last = command.substr(command.size() - 2),
                          left = last[0] == ' ' ? "left:" + last + "\n" : "";
        EXPECT_EQ(run(it + " >/dev/full" + status + only), told + kFull + kFailed + left);
        EXPECT_EQ(run("{ sleep 0.1; " + it + status + "} | :; " + only), "status 141\n" + left);
    }
    EXPECT_EQ(run("dnnvad detect r.wav 2>&1 >&-"), told + "is closed\n" + kFailed);
    const std::string odd = "dnnvad detect --set max_sp_pause=2s r.wav ";
    EXPECT_EQ(run(odd + "-o kept 2>&- <&-; " + odd + "2>/dev/null | cmp - kept"), "");
}

TEST_F(Faults, CutsThatWereFinishedStayWhenTheDiskIsFull) {
    const std::string cut = "detect --cut c r.wav $s/stream-16k.wav | sed 's/System.*: //'; ls c";
    EXPECT_EQ(run("ulimit -f 140; errors " + cut),
              "dnnvad: c/stream-16k-001.wav: File too large.\n"
              "2 recordings, 1 utterances, 1 failed\nr-001.wav\nleft: c\n");
    EXPECT_EQ(run("ulimit -f 40; dnnvad $l --cut c >kept 2>&1; echo $?; rmdir c"), "1\n");
}

// Half a recording, and nothing after it: what was decided in a stream is kept, but not in a file (which
// may be removed while it is read).
TEST_F(Faults, SignalsKeepWhatAStreamGave) {
    for (const auto& [signal, input, status] : {Row{"INT", "-", "130"},
                                                {"TERM", "pipe", "143"},
                                                {"HUP", "-", "129"},
                                                {"0", "pipe", "0"}}) {
        put("start", header(kUnknown) + kSamples);
        const std::string begin =
            "mkfifo pipe; (exec " DNNVAD_PROGRAM " detect -f json -o kept " + input;
        const std::string feed =
            ") <pipe & exec 3<>pipe 2>e; cat start >&3; until grep -q utterance kept.partial; do "
            "sleep 0.05; done; "
            "rm pipe start e; kill -s ";
        const bool whole = status == "130" || status == "0";
        EXPECT_EQ(run(begin + feed + signal +
                      " $!; exec 3>&-; wait $!; echo $?; tail -n 1 kept | cut -c -19; rm kept"),
                  status + (whole ? "\n{\"type\":\"recording\"\n" : "\n" + kFailed));
    }
}

// Files are, and pipes of which the header says nothing that can be wrong ("other": it can).
TEST_F(Faults, RecordingsAreHeardToTheEndThatTheyHave) {
    const std::string list = "LIST" + word(4) + "INFO", whole = run("dnnvad detect r.wav");
    const std::string none =
        "warning: kept: its header tells no length, or a wrong one: heard to its end";
    const std::string rf64 =
        "RF64" + word(kUnknown) + "WAVEds64" + word(28) + std::string(28, '\0');
    for (const auto& [content, told, piped] :
         {Row{header(kBytes) + kSamples + list},
          {header(0) + kSamples, none},
          {header(kUnknown) + kSamples, none},
          {header(kBytes / 2) + kSamples, none, "other"},
          {rf64 + header(kUnknown).substr(12) + kSamples, none, "other"},
          {header(90000) + kSamples, "warning: kept: ends after 5.00 s, 0.62 s before it should",
           "same"},
          {header(kBytes) + kSamples.substr(0, 40001),
           "warning: kept: ends after 2.50 s, 2.50 s before it should", "same"},
          {header(0), "warning: kept: holds no samples", "same"},
          {"", "kept: is empty", "other"}}) {
        put("kept", content);
        const std::string end = " 2>&1 >out | sed 's/standard input/kept/'; cat out; rm out";
        const std::string file = run("dnnvad detect kept" + end),
                          message = told.empty() ? "" : "dnnvad: " + told + "\n";
        EXPECT_EQ(file, message + (content.size() > kBytes ? whole : file.substr(message.size())));
        EXPECT_TRUE(piped == "other" ||
                    run("cat kept | dnnvad detect -" + end) == (piped.empty() ? whole : file))
            << told;
        EXPECT_EQ(run("dnnvad plot kept -o x.svg 2>out; s=$?; rm out; exit $s"),
                  content.size() > 100 ? "left: x.svg\n" : kFailed);
    }
}

TEST_F(Faults, MemoryDoesNotGrowWithTheRecording) {
    rusage usage[2]{};
    if (!kNative) {
        GTEST_SKIP() << "emulators and sanitizers take memory of their own";
    }
    for (const int k : {0, 1}) {  // 20 and 40 minutes
        const std::string made =
            test::format("for i in $(seq %d); do tail -c +45 $s/stream-16k.wav; done", 62 << k);
        EXPECT_EQ(run(made + " | dnnvad detect --raw 16000 - | wc -l"),
                  test::format("%d\n", (124 << k) + 1));
        getrusage(RUSAGE_CHILDREN, &usage[k]);
    }
    EXPECT_LT(usage[1].ru_maxrss - usage[0].ru_maxrss, 256);  // KB, of the largest child so far
}

}  // namespace
