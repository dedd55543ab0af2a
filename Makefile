# One-command set-up for a fresh Debian 12 machine.
#   make / make build   install what is missing, build into build/
#   make test           build, run every test, then again under ASan+UBSan,
#                       then every fuzz target for 10 s over its corpus
#   make fuzz           every fuzz target for FUZZ_SECONDS (default 60)
#   make demo           build and run the relay on the embedded recording
#   make demo-mqtt      the same recording through a private MQTT broker to an edge relay
#   make package        build, then korbrdv_<version>_<arch>.deb in this folder
SHELL := /bin/bash
JOBS  ?= $(shell nproc 2>/dev/null || echo 2)
SUDO  := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

# Debian packages the build and the tests need.
# dpkg-dev and file: the package's dependencies are read from its binaries.
# openssl: the TLS tests make a throwaway certificate with it.
# libmosquitto-dev: the relay's MQTT client library.
DEB_PACKAGES := cmake g++ make qtbase5-dev libqt5websockets5-dev util-linux dpkg-dev file openssl \
                libmosquitto-dev
# The browser viewer's tests also want node, npm and chromium (installed
# below when their commands are missing); where they cannot be had, those
# tests skip. lintian, which the package test runs, is installed the same way,
# and so are mosquitto, the broker of the MQTT tests and of make demo-mqtt, and
# prometheus, which the HTTP test checks the relay's metrics with (promtool) and
# scrapes the relay with.

.PHONY: all build deps fuzz-deps build-fuzz fuzz test test-plain test-asan test-fuzz demo demo-mqtt package clean format

# The fuzz targets are built by clang with libFuzzer (tests/fuzz).
FUZZ_PACKAGES := clang-14 libclang-rt-14-dev
FUZZ_CXX      := clang++-14
FUZZ_SECONDS  ?= 60
FUZZ_JOBS     ?= 2

DEMO_PORT ?= 3005
DEMO_EDGE_PORT ?= 3006
DEMO_BROKER_PORT ?= 18830
DEMO_FILE := build/demo/recording.rdv

all: build

# Installs those of the Debian packages $(1) that are missing.
define install_missing
	@missing=""; \
	for p in $(1); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q 'install ok installed' || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	fi
endef

deps:
	$(call install_missing,$(DEB_PACKAGES))
	@missing=""; \
	command -v node >/dev/null || missing="$$missing nodejs"; \
	command -v npm >/dev/null || missing="$$missing npm"; \
	command -v chromium >/dev/null || missing="$$missing chromium"; \
	if [ -n "$$missing" ]; then \
	  echo "installing for the viewer tests:$$missing"; \
	  ( $(SUDO) apt-get update -qq && \
	    DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing ) \
	  || echo "could not install$$missing: the browser viewer tests will be skipped"; \
	fi
	@# Debian's package enables its own broker service; the tests and the demo
	@# start a private one on a loopback port of their own.
	@dpkg-query -W -f='$${Status}' mosquitto 2>/dev/null | grep -q 'install ok installed' || \
	  ( $(SUDO) apt-get update -qq && \
	    DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends mosquitto ) \
	  || echo "could not install mosquitto: the MQTT tests will be skipped"
	@# The HTTP test checks /metrics with promtool and scrapes the relay with a
	@# private Prometheus; Debian's package enables a service, which the test never uses.
	@dpkg-query -W -f='$${Status}' prometheus 2>/dev/null | grep -q 'install ok installed' || \
	  ( $(SUDO) apt-get update -qq && \
	    DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends prometheus ) \
	  || echo "could not install prometheus: the Prometheus test will be skipped"
	@command -v lintian >/dev/null || \
	  ( $(SUDO) apt-get update -qq && \
	    DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends lintian ) \
	  || echo "could not install lintian: the package test will not run it"
	@# The service tests boot a throwaway systemd container where they can;
	@# its package must match the installed systemd exactly.
	@if ! command -v systemd-nspawn >/dev/null && v=$$(dpkg-query -W -f='$${Version}' systemd 2>/dev/null); then \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends systemd-container="$$v" \
	  || echo "could not install systemd-container: the systemd service test will be skipped"; \
	fi
	@# playwright-core only drives the system Chromium; it never downloads a browser.
	@if command -v npm >/dev/null && [ ! -d tools/viewer/node_modules/playwright-core ]; then \
	  (cd tools/viewer && npm ci --no-audit --no-fund --loglevel=error) \
	  || echo "npm ci failed: the browser viewer tests will be skipped"; \
	fi

build: deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build build -j$(JOBS)

test: test-plain test-asan test-fuzz

test-plain: build
	cd build && ctest --output-on-failure -j$(JOBS)

# The same suite under AddressSanitizer and UndefinedBehaviorSanitizer, leak
# detection on, so memory errors fail CI.
test-asan: deps
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKORB_SANITIZE=ON
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j$(JOBS)

fuzz-deps:
	$(call install_missing,$(FUZZ_PACKAGES))

# Its own build directory: every object carries coverage and sanitizers.
build-fuzz: deps fuzz-deps
	cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=$(FUZZ_CXX) -DKORB_FUZZ=ON
	cmake --build build-fuzz -j$(JOBS) --target fuzz_targets

fuzz: build-fuzz
	tests/fuzz/run_fuzz.sh build-fuzz $(FUZZ_SECONDS) $(FUZZ_JOBS)

# The short pass of CI: any finding fails it.
test-fuzz: build-fuzz
	tests/fuzz/run_fuzz.sh build-fuzz 10 $(FUZZ_JOBS)

# The relay on an embedded default: a recording made by the simulator,
# replayed in a loop to every client that connects.
demo: build
	@mkdir -p build/demo
	@[ -s $(DEMO_FILE) ] || build/bin/korb_rdv_sim --write $(DEMO_FILE) --seconds 20
	@echo
	@echo "  KorbRdv_streamer demo: replaying $(DEMO_FILE)"
	@echo "  WebSocket address : ws://localhost:$(DEMO_PORT)"
	@echo "  viewer            : open http://localhost:$(DEMO_PORT)/ in a browser"
	@echo "  monitoring        : http://localhost:$(DEMO_PORT)/metrics and /healthz"
	@echo "  command-line      : build/bin/korb_rdv_client ws://127.0.0.1:$(DEMO_PORT) --cmd ims:100 --count 200"
	@echo "  logs              : build/logs/   (Ctrl-C stops the relay)"
	@echo
	build/bin/KorbRdv_streamer -e -n KorbRdv.demo -p $(DEMO_PORT) -file=$(CURDIR)/$(DEMO_FILE) -nofile

# A private broker on a loopback port, a relay replaying the same recording
# and publishing it, and an edge relay serving what it publishes.
demo-mqtt: build
	@mkdir -p build/demo
	@[ -s $(DEMO_FILE) ] || build/bin/korb_rdv_sim --write $(DEMO_FILE) --seconds 20
	tools/mqtt/demo.sh $(CURDIR)/build/bin $(CURDIR)/$(DEMO_FILE) $(DEMO_PORT) $(DEMO_EDGE_PORT) $(DEMO_BROKER_PORT)

# The Debian package, built by CPack from build/ (package/package.cmake).
package: build
	cmake --build build --target package

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build build-asan build-fuzz korbrdv_*.deb
