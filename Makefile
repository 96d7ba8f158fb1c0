# User-facing targets. `make run` and `make test` do all the set-up on a fresh Debian 12 machine.
BUILD_DIR ?= build
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo
ARGS ?=
PREFIX ?= /usr/local

# The sanitizer configuration: every test under AddressSanitizer (leaks included) and
# UndefinedBehaviorSanitizer, in a build folder of its own.
ASAN_BUILD_DIR ?= build-asan
SANITIZE_COMMON = -fno-omit-frame-pointer -fno-sanitize-recover=undefined
SANITIZE = -fsanitize=address,undefined $(SANITIZE_COMMON)
SANITIZER_ENV = ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	LSAN_OPTIONS=suppressions=$(CURDIR)/scripts/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

.PHONY: deps fuzz-deps configure build run install test test-asan bench screenshots fuzz format clean

deps:
	@scripts/install-deps.sh

$(BUILD_DIR)/build.ninja:
	cmake -S . -B $(BUILD_DIR) -G Ninja $(CMAKE_FLAGS)

configure: deps $(BUILD_DIR)/build.ninja

build: configure
	cmake --build $(BUILD_DIR)

# The program alone: the tests and benchmarks are built by `make test` and `make bench`.
run: configure
	cmake --build $(BUILD_DIR) --target ondril
	$(BUILD_DIR)/ondril $(ARGS)

# The program, its desktop file and its icon under PREFIX (`make install PREFIX=~/.local`).
install: configure
	cmake --build $(BUILD_DIR) --target ondril
	cmake --install $(BUILD_DIR) --prefix $(PREFIX)

test: build
	scripts/test-env.sh ctest --test-dir $(BUILD_DIR) --output-on-failure $(ARGS)

$(ASAN_BUILD_DIR)/build.ninja:
	cmake -S . -B $(ASAN_BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DCMAKE_CXX_FLAGS="$(SANITIZE)" -DCMAKE_EXE_LINKER_FLAGS="$(SANITIZE)"

test-asan: deps $(ASAN_BUILD_DIR)/build.ninja
	cmake --build $(ASAN_BUILD_DIR)
	$(SANITIZER_ENV) scripts/test-env.sh ctest --test-dir $(ASAN_BUILD_DIR) --output-on-failure $(ARGS)

bench: build
	scripts/run-benchmarks.sh $(BUILD_DIR)

# The panel in light and dark, to docs/screenshots/.
screenshots: configure
	scripts/screenshots.sh $(BUILD_DIR)

# The libFuzzer targets (clang, everything under ASan and UBSan), each run in turn for
# FUZZ_SECONDS from the seeds in fuzz/corpus; not part of `make test`.
FUZZ_BUILD_DIR ?= build-fuzz
FUZZ_SECONDS ?= 600
FUZZ_TARGETS = fuzz_quick_configs fuzz_app_prefs fuzz_groups fuzz_url_handler

fuzz-deps:
	@scripts/install-deps.sh --fuzz

$(FUZZ_BUILD_DIR)/build.ninja:
	cmake -S . -B $(FUZZ_BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DCMAKE_CXX_COMPILER=clang++ -DBUILD_TESTING=OFF -DONDRIL_FUZZ=ON \
		-DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined $(SANITIZE_COMMON)"

fuzz: deps fuzz-deps $(FUZZ_BUILD_DIR)/build.ninja
	cmake --build $(FUZZ_BUILD_DIR) --target $(FUZZ_TARGETS)
	$(SANITIZER_ENV) scripts/run-fuzzers.sh $(FUZZ_BUILD_DIR)/fuzz $(FUZZ_SECONDS) $(FUZZ_TARGETS)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD_DIR) $(ASAN_BUILD_DIR) $(FUZZ_BUILD_DIR)
