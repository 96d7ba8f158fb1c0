# User-facing targets. `make run` and `make test` do all the set-up on a fresh Debian 12 machine.
BUILD_DIR ?= build
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo
ARGS ?=
PREFIX ?= /usr/local

.PHONY: deps configure build run install test bench format clean

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

bench: build
	scripts/run-benchmarks.sh $(BUILD_DIR)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD_DIR)
