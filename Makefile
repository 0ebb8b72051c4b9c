# The two everyday commands: `make run` and `make test`.
BUILD_DIR  ?= build
BUILD_TYPE ?= RelWithDebInfo
ASAN_DIR   ?= build-sanitize
BUNDLE     := $(BUILD_DIR)/Veldspar.app
JOBS       ?= $(shell nproc)

.PHONY: all deps configure build display run test screenshot install sanitize bench clean
.PHONY: fuzz-build fuzz fuzz-smoke

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

run: display build
	@$(BUNDLE)/Veldspar

display:
	@if [ -z "$$DISPLAY" ] && [ -z "$$WAYLAND_DISPLAY" ]; then \
	  echo "Veldspar needs a desktop session (DISPLAY or WAYLAND_DISPLAY is not set); try 'make screenshot' to see the window under Xvfb."; \
	  exit 1; \
	fi

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure

# Opens the app under Xvfb and saves its window to build/screenshot.png. SHOT takes the
# screenshot tool's options, e.g. SHOT="--size 880x580 --select 0" for the smallest window.
SHOT ?=
screenshot: build
	@xvfb-run -a -s "-screen 0 1280x900x24 -dpi 96" $(BUILD_DIR)/tools/screenshot $(BUNDLE) $(BUILD_DIR)/screenshot.png $(SHOT)

install: build
	@scripts/install --bundle $(BUNDLE)

# Every test again under AddressSanitizer and UndefinedBehaviorSanitizer.
sanitize: deps
	@cmake -S . -B $(ASAN_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVELDSPAR_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_DIR) -j $(JOBS)
	@cd $(ASAN_DIR) && ctest --output-on-failure

bench: deps
	@cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build-bench -j $(JOBS)
	@bench/run build-bench

# libFuzzer harnesses (fuzz/) in their own clang build: `make fuzz` runs each for FUZZ_SECONDS
# (FUZZ_TARGETS picks some), growing a scratch corpus in $(FUZZ_DIR)/fuzz-work; `make fuzz-smoke`
# runs each briefly from the seeds alone.
FUZZ_DIR           ?= build-fuzz
FUZZ_SECONDS       ?= 300
FUZZ_SMOKE_SECONDS ?= 10
FUZZ_TARGETS       ?=

fuzz-build: deps
	@cmake -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVELDSPAR_FUZZ=ON >/dev/null
	@cmake --build $(FUZZ_DIR) -j $(JOBS)

fuzz: fuzz-build
	@fuzz/run $(FUZZ_DIR) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

fuzz-smoke: fuzz-build
	@fuzz/run --fresh $(FUZZ_DIR) $(FUZZ_SMOKE_SECONDS) $(FUZZ_TARGETS)

# Packs the bundle into build/dist/Veldspar-<version>.tar.xz, the update archive, and prints its
# feed item, signed with the release key that `veldspar-release generate-keys` keeps outside the
# repository; then makes the download build/dist/Veldspar-<version>-linux-x86_64.tar.xz, a folder
# Veldspar-<version>/ holding the bundle, the installer and README.txt.
.PHONY: dist
dist: build
	@version=$$($(BUILD_DIR)/veldspar-release bundle-version $(BUNDLE)) && \
	  archive=$(BUILD_DIR)/dist/Veldspar-$$version.tar.xz && \
	  mkdir -p $(BUILD_DIR)/dist && rm -f $$archive && \
	  $(BUILD_DIR)/veldspar-release archive $(BUNDLE) $$archive >/dev/null && \
	  echo "Built $$archive" && \
	  scripts/make-download $(BUNDLE) $$version $(BUILD_DIR)/dist && \
	  $(BUILD_DIR)/veldspar-release appcast-item $$archive --bundle $(BUNDLE)

clean:
	@rm -rf $(BUILD_DIR) $(ASAN_DIR) build-bench $(FUZZ_DIR)
