# Two entry points for a fresh machine: `make demo` and `make test`.
BUILD ?= build
SAN_BUILD ?= build-sanitize
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: all build demo test test-sanitize bench clean deps

all: build

deps:
	@./tools/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	./examples/run-demo.sh $(BUILD)/mhboost

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-sanitize: deps
	cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DMHBOOST_SANITIZE=ON
	cmake --build $(SAN_BUILD) -j $(JOBS)
	cd $(SAN_BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	./bench/run.sh $(BUILD)/mhboost

clean:
	rm -rf $(BUILD) $(SAN_BUILD)
