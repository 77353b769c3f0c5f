# The commands people type. Every target that builds first makes sure the
# Debian packages the build needs are present (installing them as root).

BUILD      ?= build
SAN_BUILD  ?= build-sanitize
BENCH_BUILD ?= build-bench
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
PREFIX     ?= /usr/local
CMAKE_ARGS ?=

# Debian package -> what it provides.
PACKAGES := cmake g++ make libeigen3-dev googletest libgtest-dev libbenchmark-dev

.PHONY: all deps build demo test consumer sanitize bench install clean format

all: build

deps:
	@missing=""; \
	for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = "0" ]; then \
	    echo "Installing missing packages:$$missing"; \
	    export DEBIAN_FRONTEND=noninteractive; \
	    apt-get update -qq && apt-get install -y -qq --no-install-recommends $$missing; \
	  else \
	    echo "Missing Debian packages:$$missing"; \
	    echo "Install them with: sudo apt-get install$$missing"; \
	    exit 1; \
	  fi; \
	fi

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)
	$(MAKE) --no-print-directory consumer

# Installs into a temporary prefix and builds examples/consumer against it, so
# that a broken package export fails the test run.
consumer: build
	rm -rf $(BUILD)/_prefix $(BUILD)/_consumer
	cmake --install $(BUILD) --prefix $(BUILD)/_prefix > /dev/null
	cmake -S examples/consumer -B $(BUILD)/_consumer -DCMAKE_PREFIX_PATH=$(abspath $(BUILD)/_prefix) > /dev/null
	cmake --build $(BUILD)/_consumer -j $(JOBS) > /dev/null
	$(BUILD)/_consumer/consumer

# Fits every sample file in examples/ with the command-line tool, takes the
# convex hull of the planar sample, aligns the block sample and fits the
# points measured on the box mesh, matches the hole centres, and aligns the
# box held by its reference point system.
demo: build
	@for f in sphere circle2 circle3 plane line2 line3 cylinder cone axis torus ellipse2 ellipse3; do \
	  echo "== metrofit fit $$f examples/$$f.txt"; \
	  $(BUILD)/tools/metrofit/metrofit fit $$f examples/$$f.txt || exit 1; \
	  echo; \
	done
	@echo "== metrofit hull examples/hull.txt --inside 20,15"
	@$(BUILD)/tools/metrofit/metrofit hull examples/hull.txt --inside 20,15
	@echo
	@echo "== metrofit align examples/align.txt"
	@$(BUILD)/tools/metrofit/metrofit align examples/align.txt
	@echo
	@echo "== metrofit bestfit --surface examples/bestfit_part.stl examples/bestfit.txt"
	@$(BUILD)/tools/metrofit/metrofit bestfit --surface examples/bestfit_part.stl examples/bestfit.txt
	@echo
	@echo "== metrofit bestfit2d --contour examples/bestfit2d_contour.txt examples/bestfit2d.txt"
	@$(BUILD)/tools/metrofit/metrofit bestfit2d --contour examples/bestfit2d_contour.txt examples/bestfit2d.txt
	@echo
	@echo "== metrofit maximin --surface examples/bestfit_part.stl examples/maximin.txt"
	@$(BUILD)/tools/metrofit/metrofit maximin --surface examples/bestfit_part.stl examples/maximin.txt
	@echo
	@echo "== metrofit match examples/match.txt"
	@$(BUILD)/tools/metrofit/metrofit match examples/match.txt
	@echo
	@echo "== metrofit rps examples/rps.txt"
	@$(BUILD)/tools/metrofit/metrofit rps examples/rps.txt

sanitize: deps
	cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMETROFIT_SANITIZE=ON $(CMAKE_ARGS)
	cmake --build $(SAN_BUILD) -j $(JOBS)
	cd $(SAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

bench: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DMETROFIT_BUILD_TESTS=OFF -DMETROFIT_BUILD_BENCH=ON $(CMAKE_ARGS)
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	$(BENCH_BUILD)/bench/metrofit_bench --benchmark_min_time=0.2

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf $(BUILD) $(SAN_BUILD) $(BENCH_BUILD)
