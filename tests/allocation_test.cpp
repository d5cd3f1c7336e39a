// Every allocation of construction and initialisation fails once in turn: a stated error or assertion, no
// leak, no crash, and the same session can be initialised again. What could not be had is named.
//
// The library's calls of malloc and its relatives come here through the linker (--wrap), `new` through the
// replaceable operators. Each failure happens in a child process, which an assertion may end.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "dnnvad/dnn_vad.h"
#include "dnnvad/feat/signal_process.h"

namespace {

bool counting = false;
int allocations = 0;   // since counting began
int failing = -1;      // which of them fails
long long living = 0;  // blocks allocated and not freed, of all time

bool fails() { return counting && allocations++ == failing; }

void* lived(void* block) {
    living += block != nullptr;
    return block;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_memalign(std::size_t alignment, std::size_t size);
void __real_free(void* block);
// kissfft's plan is one block of its own malloc, which free releases.
void* __real_kiss_fftr_alloc(int, int, void*, std::size_t*) __attribute__((weak));
void* __wrap_kiss_fftr_alloc(int length, int inverse, void* memory, std::size_t* size) {
    return fails() ? nullptr : lived(__real_kiss_fftr_alloc(length, inverse, memory, size));
}
void* __wrap_malloc(std::size_t size) { return fails() ? nullptr : lived(__real_malloc(size)); }
void* __wrap_calloc(std::size_t count, std::size_t size) {
    return fails() ? nullptr : lived(__real_calloc(count, size));
}
void* __wrap_memalign(std::size_t alignment, std::size_t size) {
    return fails() ? nullptr : lived(__real_memalign(alignment, size));
}
void __wrap_free(void* block) {
    living -= block != nullptr;
    __real_free(block);
}
}

void* operator new(std::size_t size) {
    if (void* const block = __wrap_malloc(size != 0 ? size : 1)) {
        return block;
    }
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return __wrap_malloc(size); }
void operator delete(void* block) noexcept { __wrap_free(block); }
void operator delete(void* block, std::size_t) noexcept { __wrap_free(block); }

namespace {

constexpr int kNoMemory = -107, kComponentFailed = -120, kUnexpected = 100;

// What an initialisation whose allocation number `number` fails does. Ends the process.
[[noreturn]] void initialise_once(const std::string& model, const std::string& bleep, int number) {
    const long long before = living;
    int status = 0;  // 3: initialised all the same
    {
        counting = true;
        failing = number;
        std::unique_ptr<tz_dnnvad::CMFE> session;
        try {
            session.reset(new tz_dnnvad::CMFE);
        } catch (const std::bad_alloc&) {
            _exit(1);  // the host's own `new`
        }
        const int error = session->mfeInit_load_model(model.c_str(), bleep.c_str());
        const bool failed = allocations > number;
        counting = false;
        if (!failed) {
            _exit(error == 0 ? 2 : kUnexpected);  // there are no more
        }
        status = error == 0 ? 3 : 0;
        if (error != 0 && error != kNoMemory && error != kComponentFailed) {
            status = kUnexpected + 1;
        }
        if (error != 0 && session->mfeSendData(nullptr, 80) != -103) {
            status = kUnexpected + 2;
        }
        session->mfeSetParam(26, 1);
        if (session->mfeInit_load_model(model.c_str(), bleep.c_str()) != 0 ||
            session->_m_n_bleep_detect != 1) {
            status = kUnexpected + 3;
        }
        short chunk[160] = {};
        for (int k = 0; k < 10; ++k) {
            session->mfeSendData(chunk, session->_m_n_frame_shift);
            session->mfeDNNDetect();
        }
    }
    if (living != before) {
        status = kUnexpected + 4;
    }
    _exit(status);
}

class Allocation : public testing::TestWithParam<const char*> {};

TEST_P(Allocation, FailsCleanly) {
    const std::string rate = GetParam(), models = DNNVAD_SOURCE_DIR "/models/";
    int stated = 0, assertions = 0, harmless = 0;
    std::string named, blocks;
    for (int number = 0;; ++number) {
        ASSERT_LT(number, 1000);
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        std::fflush(stdout);
        const pid_t child = fork();
        if (child == 0) {
            dup2(ends[1], STDERR_FILENO);
            dup2(ends[1], STDOUT_FILENO);
            std::setvbuf(stdout, nullptr, _IONBF, 0);
            initialise_once(models + "vad" + rate + ".bin", models + "bleep" + rate + ".txt",
                            number);
        }
        close(ends[1]);
        std::string said;
        char text[512];
        for (ssize_t got; (got = read(ends[0], text, sizeof text)) > 0;) {
            said.append(text, static_cast<std::size_t>(got));
        }
        close(ends[0]);
        const std::size_t name = said.find("]_m_p_"), size = said.find(" malloc[");
        if (name < size && size != said.npos) {
            named += said.substr(name + 6, said.find('\n') - name - 5);
        }
        int how;
        waitpid(child, &how, 0);
        if (WIFEXITED(how) && WEXITSTATUS(how) == 2) {
            break;
        }
        if (WIFEXITED(how)) {
            const bool went_on = WEXITSTATUS(how) == 3;
            harmless += went_on;
            EXPECT_TRUE(went_on || WEXITSTATUS(how) <= 1) << "allocation " << number << "\n"
                                                          << said;
            ++stated;
            continue;
        }
        EXPECT_EQ(WTERMSIG(how), SIGABRT) << "allocation " << number << "\n" << said;
        const char* const known[] = {"`_layer_size'", "`fe_opt'",     "`fe_opt->fbinfo'",
                                     "`fb'",          "`fb->cf'",     "`fb->loChan'",
                                     "`fb->loWt'",    "`fb.fftPlan'", "`fb.fftBuffer'"};
        bool found = false;
        for (const char* const assertion : known) {
            found = found || said.find(assertion) != std::string::npos;
        }
        EXPECT_TRUE(found) << "allocation " << number << "\n" << said;
        ++assertions;
    }
    EXPECT_GT(stated, 40);
    EXPECT_GT(assertions, 4);
    if (sizeof(void*) < 8) {
        return;  // how many allocations an aligned block takes depends on where it comes to lie
    }
    EXPECT_EQ(harmless, 2);  // without its spectrum or its last stage a session goes on: kept
    // Printed sizes are bytes; twice those of the last two, and those of 16 kHz for the input ring: kept.
    const int wide = rate == "16k", bins = wide ? 256 : 128;
    const std::pair<const char*, int> sizes[] = {{"frame_state", 500},
                                                 {"data", 160000},
                                                 {"data8k", 80000},
                                                 {"data", wide * 160000},  // for the model's layout
                                                 {"dst_nn", 36},
                                                 {"frame_samples", wide ? 1600 : 800},
                                                 {"dst_feature", wide ? 2720 : 1768},
                                                 {"spec_log_buff", 12 * bins},
                                                 {"spec_log_smooth_cur_frame", 4 * bins},
                                                 {"spec_log_smooth", 480 * bins},
                                                 {"spec_binary", 120 * bins},
                                                 {"spec_pattern", 15 * bins},
                                                 {"embd", 4 * bins - 16},
                                                 {"embd_test", 4 * bins - 20},
                                                 {"short_frame_in", 320},
                                                 {"short_frame_in", 640}};
    for (const auto& [name, size] : sizes) {
        if (size != 0) {
            blocks += name + (" malloc[" + std::to_string(size)) + "] Failed\n";
        }
    }
    EXPECT_EQ(named, blocks);
}

TEST(FftTables, AreAllocatedOnceAndReleased) {
    float x[64] = {}, y[64] = {};
    long long before = living;
    tz_dnnvad::fft(64, x, y);
    tz_dnnvad::fft(-64, x, y);
    EXPECT_EQ(living - before, 2);
    for (failing = 0; failing < 2; ++failing) {
        EXPECT_DEATH((counting = true, tz_dnnvad::fft(32, x, y)), "`sintbl && bitrev'");
    }
    before = living;
    tz_dnnvad::fft(0, nullptr, nullptr);
    EXPECT_EQ(before - living, 2);
}

INSTANTIATE_TEST_SUITE_P(Models, Allocation, testing::Values("8k", "16k"));

}  // namespace
