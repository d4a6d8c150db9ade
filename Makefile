# The two commands of the README, and the benchmarks.
#   make run    bootstrap, build, and list one province's municipalities of the sample data
#   make test   bootstrap, build with AddressSanitizer and UBSan, run ctest
#   make bench  bootstrap, build optimised, generate the national data set, run bench/
JOBS ?= $(shell nproc)
BUILD ?= build
PROVINCIA ?= 08

.PHONY: run test bench bootstrap clean

bootstrap:
	@scripts/bootstrap

run: bootstrap
	cmake -S . -B $(BUILD)/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DCODPOSTALES_TESTS=OFF
	cmake --build $(BUILD)/release -j $(JOBS)
	$(BUILD)/release/bin/codpostales tabla data/muestra/MUNICIPI.DBF --orden NOMBRE \
	  --filtro "COD_PROV='$(PROVINCIA)' AND ENT_MENOR='F'" --campos COD_INE,CODPOSTAL,NOMBRE

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
