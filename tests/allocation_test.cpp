// Every allocation of construction and initialisation fails once in turn: a stated error or assertion, no
// leak, no crash, and the same session can be initialised again.
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

#include "dnnvad/dnn_vad.h"

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
    int status = 0;
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
        // A failed allocation that costs nothing but a line is no error: what is not needed yet.
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
    int stated = 0, assertions = 0;
    for (int number = 0;; ++number) {
        ASSERT_LT(number, 1000);
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            dup2(ends[1], STDERR_FILENO);
            std::freopen("/dev/null", "w", stdout) == nullptr ? _exit(99) : void();
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
        int how;
        waitpid(child, &how, 0);
        if (WIFEXITED(how) && WEXITSTATUS(how) == 2) {
            break;
        }
        if (WIFEXITED(how)) {
            EXPECT_LE(WEXITSTATUS(how), 1) << "allocation " << number << "\n" << said;
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
}

INSTANTIATE_TEST_SUITE_P(Models, Allocation, testing::Values("8k", "16k"));

}  // namespace
