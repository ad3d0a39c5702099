# waymark: `make test` installs what is missing, builds and runs every test;
# `make bench` builds and runs the benchmarks.

BUILD      ?= build
BENCH_DIR  ?= build-bench
SAN_DIR    ?= build-sanitize
FUZZ_SECONDS ?= 60
JOBS       ?= $(shell nproc)
CTEST_ARGS ?=
# Where `make install` puts things, under DESTDIR when it is set.
PREFIX     ?= /usr
DESTDIR    ?=

# Debian packages the build and the tests need.
PACKAGES = g++ cmake ninja-build libgtest-dev libgmock-dev libbenchmark-dev \
           clang-format iproute2 iptables procps libyaml-dev nlohmann-json3-dev \
           prometheus-cpp-dev curl jq libsystemd-dev pkg-config scdoc

.PHONY: all deps build test test-asan fuzz reliability bench bench-build bench-scale demo clean format format-check install deb package-check

all: build

deps:
	@missing=""; \
	for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	fi

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) $(CTEST_ARGS)

# One clang build with AddressSanitizer and UndefinedBehaviorSanitizer
# serves both: the unit and end-to-end tests again (any report fails the
# test that caused it), and the libFuzzer targets.
$(SAN_DIR)/build.ninja:
	$(MAKE) deps PACKAGES="clang libclang-rt-14-dev"
	cmake -S . -B $(SAN_DIR) -G Ninja -DCMAKE_CXX_COMPILER=clang++ \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWAYMARK_SANITIZE=ON -DWAYMARK_BUILD_FUZZ=ON

# The growth gate is left out there: under the sanitizers its ratios would
# measure the sanitizers' own costs, and `make test` runs it.
test-asan: deps $(SAN_DIR)/build.ninja
	cmake --build $(SAN_DIR) -j $(JOBS)
	cd $(SAN_DIR) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS) -E '^e2e\.growth$$' $(CTEST_ARGS)

# Every libFuzzer target for FUZZ_SECONDS each.
fuzz: deps $(SAN_DIR)/build.ninja
	cmake --build $(SAN_DIR) -j $(JOBS) --target address_fuzz acl_rule_fuzz rule_key_fuzz config_fuzz status_fuzz
	bash tests/fuzz/run.sh $(SAN_DIR) $(FUZZ_SECONDS)

# The reliability scenarios at full size (root; minutes): figures for
# docs/reliability.md.
reliability: build
	bash tests/reliability/faults.sh $(BUILD)
	bash tests/reliability/crash.sh $(BUILD) 20 10000 1000
	bash tests/reliability/churn.sh $(BUILD) 1000
	bash tests/reliability/overrun.sh $(BUILD) 10000

# The benchmarks built in Release, without running them (CI keeps them
# compiling).
bench-build: deps
	cmake -S . -B $(BENCH_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Release \
	  -DWAYMARK_BUILD_TESTS=OFF -DWAYMARK_BUILD_BENCH=ON
	cmake --build $(BENCH_DIR) -j $(JOBS)

bench: bench-build
	@for b in $(BENCH_DIR)/bench/*_bench; do echo "== $$b"; $$b --benchmark_min_time=0.2; done

# waymarkd at scale against the naive way and the limit, then a start of one
# large policy against loading its final state at once (root; minutes).
bench-scale: build
	$(MAKE) deps PACKAGES="bc gnuplot-nox"
	bash bench/scale.sh $(BUILD)
	bash bench/start.sh $(BUILD)

# The unit names the programs by their installed path, so the prefix is set
# again before building.
install: deps $(BUILD)/build.ninja
	cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX) > /dev/null
	cmake --build $(BUILD) -j $(JOBS)
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD)

# A Debian package of what `make install PREFIX=/usr` installs, in $(BUILD)/.
deb: deps
	rm -rf $(BUILD)/deb-root
	$(MAKE) install PREFIX=/usr DESTDIR=$(CURDIR)/$(BUILD)/deb-root
	bash contrib/deb.sh $(BUILD)/deb-root $(BUILD)

# make install and make deb, checked file by file, the package installed
# and removed again (root; CI runs it).
package-check: deps
	$(MAKE) deps PACKAGES="lintian"
	bash tests/packaging/install_check.sh $(BUILD)

demo: build
	bash examples/demo.sh $(BUILD)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

format-check: deps
	git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror

clean:
	rm -rf $(BUILD) $(BENCH_DIR) $(SAN_DIR)
