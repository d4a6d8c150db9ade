# The two commands of the README, and the benchmarks.
#   make run    bootstrap, build, and open the demo host form on the sample data
#               (offscreen without a display: it types an address and prints the form)
#   make test   bootstrap, build with AddressSanitizer and UBSan, run ctest
#   make bench  bootstrap, build optimised, generate the national data set, run bench/
JOBS ?= $(shell nproc)
BUILD ?= build

.PHONY: run test bench bootstrap clean

bootstrap:
	@scripts/bootstrap

run: bootstrap
	cmake -S . -B $(BUILD)/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DCODPOSTALES_TESTS=OFF
	cmake --build $(BUILD)/release -j $(JOBS)
	$(BUILD)/release/bin/zelmor-demo

test: bootstrap
	cmake -S . -B $(BUILD)/test -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCODPOSTALES_SANITIZE=ON
	cmake --build $(BUILD)/test -j $(JOBS)
	cd $(BUILD)/test && QT_QPA_PLATFORM=offscreen ctest --output-on-failure -j $(JOBS)

bench:
	@scripts/bootstrap --bench
	cmake -S . -B $(BUILD)/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DCODPOSTALES_TESTS=OFF -DCODPOSTALES_BENCH=ON
	cmake --build $(BUILD)/bench -j $(JOBS)
	bench/run $(BUILD)/bench

clean:
	rm -rf $(BUILD)
