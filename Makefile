# Thin front end over the CMake presets. See README.md.
.PHONY: run test target flash bench powercut soak fuzz fuzz-build host host-release deps clean install-tools example

run:
	cmake --preset host >/dev/null
	cmake --build --preset host --target hxc3-sim
	./build/host/hxc3-sim $(ARGS)

test: deps host target fuzz-build
	ctest --preset host
	ctest --preset fuzz

target:
	cmake --preset target >/dev/null
	cmake --build --preset target
	@cmake -DSIZE_TOOL=arm-none-eabi-size -DELF=build/target/hxc3.elf -P platform/tm4c123/image_size.cmake
	@cat build/target/hxc3.stack

# Writes the image through the In-Circuit Debug Interface (ICDI) on USB and reads it back.
flash: target
	@command -v lm4flash >/dev/null || { echo "make flash: lm4flash not found (Debian package lm4flash)" >&2; exit 1; }
	@lm4flash -v build/target/hxc3.bin || { echo "make flash: lm4flash failed: is the board connected?" >&2; exit 1; }

bench: host-release target
	cmake --build --preset host-release --target hxc3_bench
	./build/host-release/bench/hxc3_bench

# The power-cut test from every starting size of its files (make test runs a slice of them).
powercut: host
	HXC3_POWERCUT_SWEEP=1 ./build/host/tests/hxc3_unit_tests --gtest_filter='PowerCut.*'

# A year at sea (35,040 samples at 900 s) with key wakes, card removals and power cuts at a fixed
# seed, in the release simulator; make test runs a day of it.
soak:
	cmake --preset host-release >/dev/null
	cmake --build --preset host-release --target hxc3-sim
	python3 tests/soak/soak.py --sim build/host-release/hxc3-sim --days 365

# Every harness for FUZZ_SECONDS each (make test replays their corpora and runs a few new inputs).
FUZZ_SECONDS ?= 60
fuzz: fuzz-build
	@status=0; for h in build/fuzz/tests/fuzz/*_fuzz; do \
	  name=$$(basename $$h _fuzz); \
	  tests/fuzz/run_fuzz.sh long $$h tests/fuzz $$name $(FUZZ_SECONDS) || status=1; \
	done; exit $$status

fuzz-build:
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz

host:
	cmake --preset host >/dev/null
	cmake --build --preset host

host-release:
	cmake --preset host-release >/dev/null
	cmake --build --preset host-release

deps:
	@./scripts/install-deps.sh

# hxc3-data on the PATH (PREFIX/bin, default /usr/local as root, ~/.local otherwise).
install-tools:
	@./scripts/install-tools.sh $(PREFIX)

# The README's example picture: a simulated week on a mooring, plotted by hxc3-data.
example: host
	./tools/example/make_example.py --sim build/host/hxc3-sim

clean:
	rm -rf build
