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

# Records are never freed by design, so leak reports are switched off; every
# other AddressSanitizer and UndefinedBehaviorSanitizer report fails a test.
test-sanitize: deps
	cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DMHBOOST_SANITIZE=ON
	cmake --build $(SAN_BUILD) -j $(JOBS)
	cd $(SAN_BUILD) && ASAN_OPTIONS=detect_leaks=0 \
	    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	    ctest --output-on-failure -j $(JOBS)

bench: build
	./bench/run.sh $(BUILD)/mhboost

clean:
	rm -rf $(BUILD) $(SAN_BUILD)
