# A thin front for the CMake presets. Every target installs the Debian packages that it needs and
# that are missing (scripts/setup.sh), which takes root once.
#
#   make demo               find the speech in the bundled recordings
#   make test               everything: native, sanitizers, 32-bit and 64-bit ARM under the emulator
#   make bench              time the library, natively and on ARM
#   make models             train the bundled models anew (downloads 6 GB of recordings)
#   make quality            measure the models beside other detectors; report in build/quality (downloads
#                           the same recordings)
#   make soak               three days of audio through one session for each rate
#   make answers            the answers of all builds to two hours of audio (downloads it as quality does)
#   make fuzz               look for inputs that break the readers and sessions (FUZZ_SECONDS each, 600)
#   make mutate             one-line faults in the library, and how many of them the tests notice
#   make deb                Debian packages for this machine and for 32-bit ARM, in build/packages
#   make abi                make today's interface of the library the one that tests compare with
#   make install PREFIX=..  library, headers and program (DESTDIR is honoured)
#   make lint               clang's warnings, clang-tidy and the format
#   make format             format the sources in place
#   make clean

PREFIX ?= /usr/local
TEST_PRESETS ?= release asan tsan armhf arm64

export CMAKE_BUILD_PARALLEL_LEVEL ?= $(shell nproc)

PYTHON := /usr/bin/python3

.PHONY: demo test bench models quality soak answers fuzz mutate deb abi install lint format clean dist

demo: dist
	@for recording in samples/roadsigns-8k.wav samples/stream-16k.wav; do \
	    echo "$$recording"; build/dist/app/dnnvad detect "$$recording" || exit 1; \
	done

test:
	@scripts/setup.sh test
	@scripts/test.sh $(TEST_PRESETS)

bench:
	@scripts/setup.sh bench
	@bench/run.sh

models:
	@scripts/setup.sh models
	@$(PYTHON) training/pipeline.py

# The evaluation set is made once, from the same downloads as the models.
quality:
	@scripts/setup.sh quality
	@[ quality/node_modules/.package-lock.json -nt quality/package-lock.json ] || \
	    (cd quality && npm ci --ignore-scripts --no-audit --no-fund)
	@[ -f build/training/heldout.json ] || \
	    $(PYTHON) training/pipeline.py fetch decode mix-heldout
	@$(PYTHON) quality/quality.py

soak:
	@scripts/setup.sh test
	@cmake --preset release --log-level=WARNING >/dev/null
	@cmake --build --preset release --target soak
	@build/release/tests/soak 72

ANSWER_PRESETS := release debug asan clang armhf arm64
answers:
	@scripts/setup.sh test lint
	@[ -f build/training/heldout.json ] || \
	    $(PYTHON) training/pipeline.py fetch decode mix-heldout
	@for preset in $(ANSWER_PRESETS); do \
	    cmake --preset $$preset --log-level=WARNING >/dev/null && \
	    cmake --build --preset $$preset --target answers || exit 1; \
	done
	@$(PYTHON) tests/answers.py 1 build/training/heldout8.s16 build/training/heldout.s16 \
	    $(addprefix build/,$(ANSWER_PRESETS))

fuzz:
	@scripts/setup.sh fuzz
	@fuzz/run.sh $(or $(FUZZ_SECONDS),600)

mutate:
	@scripts/setup.sh test
	@nice -n 15 $(PYTHON) tests/mutation.py

deb:
	@scripts/setup.sh deb
	@mkdir -p build/packages
	@for preset in deb deb-armhf; do \
	    cmake --preset $$preset --log-level=WARNING >/dev/null && \
	    cmake --build --preset $$preset && packaging/pack.sh build/$$preset build/packages || exit 1; \
	done
	@ls -l build/packages

abi:
	@scripts/setup.sh test
	@for preset in release:x86_64 armhf:armv7l; do \
	    cmake --preset $${preset%:*} --log-level=WARNING >/dev/null && \
	    cmake --build --preset $${preset%:*} --target dnnvad && \
	    tests/abi/abi_test.sh --accept build/$${preset%:*}/libdnnvad.so dnnvad \
	        tests/abi/libdnnvad-$${preset#*:}.abi.gz || exit 1; \
	done

install: dist
	cmake --install build/dist --prefix "$(PREFIX)"
	@if [ -z "$(DESTDIR)" ] && [ "$$(id -u)" = 0 ]; then ldconfig; fi

lint:
	@scripts/setup.sh lint
	@scripts/lint.sh

format:
	@scripts/setup.sh lint
	git ls-files -z "*.cpp" "*.h" | xargs -0 clang-format-14 -i

clean:
	rm -rf build

dist:
	@scripts/setup.sh demo
	@cmake --preset dist --log-level=WARNING >/dev/null
	@cmake --build --preset dist
