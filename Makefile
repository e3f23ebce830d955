# Entry points: `make demo` (build, then a short umctl session on the sample device) and
# `make test` (build, install into build/stage, run every suite).  The other targets are
# their steps; `make help` lists them all.  The first comment line above each target is its
# summary, which `make help` prints (and refuses a target without one).  SANITIZE=0 leaves out the AddressSanitizer run of `make test`; TSAN=0 its
# ThreadSanitizer run; ARMHF=0 leaves out the device's architecture (the cross build for
# 32-bit ARM and its suites under qemu).  SOAK_S sets the duration of the threads' soak test in
# seconds (20 by default); `make soak` runs it alone for SOAK_S (default 600) seconds.
# `make demo ARCH=armhf` runs the demo with the armhf umctl.  DEB=0 leaves out the Debian
# packages' build and their install test.  FUZZ=0 leaves out the fuzz targets' regression run;
# `make fuzz` runs their campaign for FUZZ_S seconds (60) per target.
SHELL := /bin/bash
# Quiet the nested makes that cmake --build starts.
MAKEFLAGS += --no-print-directory
JOBS ?= 2
SANITIZE ?= 1
TSAN ?= 1
ARMHF ?= 1
DEB ?= 1
FUZZ ?= 1
ARCH ?= $(shell dpkg --print-architecture)

BUILD := $(CURDIR)/build
SANDBOX := $(CURDIR)/tools/sandbox/tvc-sandbox
PACKAGES := cmake g++ make pkg-config libpam0g-dev libcrypt-dev libssl-dev libgtest-dev \
            libbenchmark-dev fiu-utils libfiu-dev passwd util-linux libpam-modules openssl \
            libpam-pwquality cracklib-runtime locales \
            libcpp-httplib-dev nlohmann-json3-dev chromium chromium-driver python3-selenium curl wrk \
            libcli11-dev dpkg-dev debhelper lintian clang-14 libclang-rt-14-dev
# umctl: CLI11 (its command line, header-only) and nlohmann-json (its --json answers).
# The web host: cpp-httplib (HTTP server, OpenSSL inside) and nlohmann-json; its browser test
# drives Debian's Chromium through its ChromeDriver with Debian's Selenium; curl: the armhf web
# host's smoke test; wrk: the web host's load (`make bench-web`).
# dpkg-dev, debhelper, lintian: the Debian packages (`make deb`).
# clang-14 and libclang-rt-14-dev (its libFuzzer and sanitizer runtimes): the fuzz targets.
# locales: the definitions from which the build makes the German locale of the PAM test (a
# host thread in another language; the translations come with libpam-pwquality's packages).
# The build writes it into its own tree; the host's locales are left as they are.
# The sample device's PAM modules and pam_tally2 (tools/sampledevice/pam), which the sandbox
# installs when TVC_PAM_DIR names them.  The library's test binaries pass their own build's.
PAM_DIR := $(BUILD)/default/tools/sampledevice/pam
# The device's architecture: Debian's cross compilers, qemu's user-mode emulator (whose binfmt
# entries let an emulated program start another armhf program), and a sysroot of Debian's armhf
# packages made by tools/armhf/make-sysroot.sh under build/.
ARMHF_PACKAGES := gcc-arm-linux-gnueabihf g++-arm-linux-gnueabihf qemu-user-static binfmt-support
ifneq ($(ARMHF)-$(ARCH),0-$(shell dpkg --print-architecture))
PACKAGES += $(ARMHF_PACKAGES)
endif
ARMHF_SYSROOT := $(BUILD)/armhf-sysroot
ARMHF_CMAKE := --toolchain $(CURDIR)/cmake/armhf-linux-gnueabihf.cmake -DTVC_SYSROOT=$(ARMHF_SYSROOT)
ARMHF_PAM_DIR := $(BUILD)/armhf/tools/sampledevice/pam
# The armhf benchmarks' build has a PAM stack of its own (no tests there).
ARMHF_BENCH_PAM_DIR := $(BUILD)/armhf-bench/tools/sampledevice/pam
# The host files the sandbox must never change; `make test` checks them before and after.
HOST_ACCOUNT_FILES := /etc/passwd /etc/group /etc/shadow /etc/gshadow

.PHONY: test demo web deps library stage umctl webhost suites asan tsan soak bench pam-stack test-armhf armhf-sysroot \
        armhf-binfmt armhf-library armhf-stage armhf-umctl armhf-suites armhf-abi

.PHONY: armhf-webhost bench-web bench-armhf bench-readme bench-figures-check help deb deb-amd64 deb-armhf deb-test fuzz fuzz-build fuzz-regress

# One line per target: its name and the first line of the comment above it.
help:
	@awk '/^# / && !/^# ---/ { if (!incomment) block = substr($$0, 3); incomment = 1; next } { incomment = 0 } \
	    /^[a-z][a-z0-9-]*:([^=]|$$)/ { name = $$1; sub(/:.*/, "", name); if (name == "help" || seen[name]++) next; \
	        if (!block) { print "make help: " name " has no comment" >"/dev/stderr"; bad = 1 } \
	        printf "  %-15s %s\n", name, block; block = "" } \
	    END { exit bad }' $(firstword $(MAKEFILE_LIST))

# Runs the suites target $(1) between two checksums of the host's account files.
define guarded
	@mkdir -p $(BUILD)
	@sha256sum $(HOST_ACCOUNT_FILES) >$(BUILD)/host-account-files.sha256
	@status=0; $(MAKE) $(1) || status=$$?; \
	if ! sha256sum --check --quiet $(BUILD)/host-account-files.sha256; then \
	    echo "make test: *** THE HOST'S ACCOUNT FILES CHANGED DURING THE TESTS ***" >&2; exit 1; \
	fi; \
	echo "make test: host account files unchanged"; \
	exit $$status
endef

# Every suite (see README, Quick start), between two checksums of the host's account files.
test: deps
	$(call guarded,suites)

# Only the armhf build's suites.
test-armhf: deps
	$(call guarded,armhf-suites)

# The demo builds only what it runs: the library and the sample device's PAM stack, no test
# binaries and no benchmarks.
DEMO_TARGETS := tvc_usermanagement tvc_pam_stack
ifeq ($(ARCH),armhf)
# umctl's short session on the sample device, in the sandbox (armhf: under qemu).
demo: deps armhf-binfmt
	$(MAKE) armhf-umctl LIBRARY_TARGETS="$(DEMO_TARGETS)"
	QEMU_LD_PREFIX=$(ARMHF_SYSROOT) TVC_PAM_DIR=$(ARMHF_PAM_DIR) $(SANDBOX) -- $(CURDIR)/tools/demo.sh $(BUILD)/armhf-umctl/umctl
else
# umctl's short session on the sample device, in the sandbox (armhf: under qemu).
demo: deps
	$(MAKE) umctl LIBRARY_TARGETS="$(DEMO_TARGETS)"
	TVC_PAM_DIR=$(PAM_DIR) $(SANDBOX) -- $(CURDIR)/tools/demo.sh $(BUILD)/umctl/umctl
endif

# The Debian packages the builds and tests need; apt-get runs only when one is missing.
# Installing libpam-pwquality would switch it on in the host's /etc/pam.d/common-password
# (pam-auth-update enables a new default profile); only the sandbox's services use it, so its
# profile is marked as seen first and the host's PAM configuration stays as it is.
deps:
	@missing=; \
	for package in $(PACKAGES); do dpkg -s $$package >/dev/null 2>&1 || missing="$$missing $$package"; done; \
	if [ -n "$$missing" ]; then \
	    echo "installing:$$missing"; \
	    if [[ " $$missing " == *" libpam-pwquality "* && -f /var/lib/pam/seen ]] && \
	       ! grep -qx pwquality /var/lib/pam/seen; then echo pwquality >>/var/lib/pam/seen; fi; \
	    export DEBIAN_FRONTEND=noninteractive; \
	    apt-get update && apt-get install -y $$missing; \
	fi

# The library with its tests and benchmarks in build/default (LIBRARY_TARGETS narrows it).
LIBRARY_TARGETS ?= all
library:
	cmake -S . -B $(BUILD)/default -DTVC_BUILD_TESTS=ON
	cmake --build $(BUILD)/default -j$(JOBS) --target $(LIBRARY_TARGETS)

# The library installed into build/stage, as a host finds it.
# Staged from scratch, so that nothing left over from an earlier install hides a gap.
stage: library
	rm -rf $(BUILD)/stage
	cmake --install $(BUILD)/default --prefix $(BUILD)/stage

# umctl, the command-line host, in build/umctl.
# umctl is built against the staged package, as any host would be.
umctl: stage
	cmake -S tools/umctl -B $(BUILD)/umctl -DCMAKE_PREFIX_PATH=$(BUILD)/stage -DTVC_PAM_DIR=$(PAM_DIR)
	cmake --build $(BUILD)/umctl -j$(JOBS)

# tvc-webd, the reference web host, in build/webhost.
# It is likewise built against the staged package.
webhost: stage
	cmake -S tools/webhost -B $(BUILD)/webhost -DCMAKE_PREFIX_PATH=$(BUILD)/stage -DTVC_PAM_DIR=$(PAM_DIR) \
	    -DTVC_WEBHOST_SCREENSHOTS=$(BUILD)/webhost-screenshots
	cmake --build $(BUILD)/webhost -j$(JOBS)

# tvc-webd on the sample device, in the sandbox, over HTTP on 127.0.0.1 (WEB_PORT, 8080).
# Plain HTTP on the loopback address only
# (WEB_PORT, 8080 by default), with the sample accounts to log in with.  Ctrl-C stops it, and
# the sandbox forgets every change made through it.
WEB_PORT ?= 8080
web: deps webhost
	@echo "tvc-webd: open http://127.0.0.1:$(WEB_PORT)/ and log in as one of the sample accounts:"
	@echo "  admin / Admin#2026        user manager"
	@echo "  operator / Operator#2026  operator (own password only)"
	@echo "  viewer / Viewer#2026      viewer (own password only)"
	@echo "  plainuser / Plain#2026    user manager outside the managed accounts"
	TVC_PAM_DIR=$(PAM_DIR) $(SANDBOX) -- $(BUILD)/webhost/tvc-webd --http --listen 127.0.0.1 --port $(WEB_PORT)

# Every suite, without the host-file checksums of `test`.
# Every suite runs even when an earlier one failed.
suites: umctl webhost
	@status=0; \
	$(MAKE) help >/dev/null || status=1; \
	$(MAKE) bench-figures-check || status=1; \
	ctest --test-dir $(BUILD)/default --output-on-failure || status=1; \
	ctest --test-dir $(BUILD)/umctl --output-on-failure || status=1; \
	ctest --test-dir $(BUILD)/webhost --output-on-failure || status=1; \
	if [ "$(SANITIZE)" != 0 ]; then $(MAKE) asan || status=1; fi; \
	if [ "$(TSAN)" != 0 ]; then $(MAKE) tsan || status=1; fi; \
	if [ "$(ARMHF)" != 0 ]; then $(MAKE) armhf-suites || status=1; fi; \
	if [ "$(FUZZ)" != 0 ]; then $(MAKE) fuzz-regress || status=1; fi; \
	if [ "$(DEB)" != 0 ]; then $(MAKE) deb-test || status=1; fi; \
	exit $$status

# The web host under the sanitizer of the library's build $(1) (asan, tsan): that build
# installed into a stage of its own, tools/webhost built against it with the same
# instrumentation (TVC_WEBHOST_SANITIZE=$(2)) and the sample device's PAM modules of that build.
# Only the HTTP-level suite, whose server serves from several workers in the test's process;
# the browser test is left to the plain build.
define sanitized_webhost
	rm -rf $(BUILD)/$(1)-stage
	cmake --install $(BUILD)/$(1) --prefix $(BUILD)/$(1)-stage
	cmake -S tools/webhost -B $(BUILD)/$(1)-webhost -DCMAKE_PREFIX_PATH=$(BUILD)/$(1)-stage \
	    -DTVC_WEBHOST_SANITIZE=$(2) -DTVC_PAM_DIR=$(BUILD)/$(1)/tools/sampledevice/pam
	cmake --build $(BUILD)/$(1)-webhost -j$(JOBS) --target webhost_tests
endef

# The library's and the web host's suites under AddressSanitizer and UBSan (build/asan).
# Every suite of the library and the web host's under AddressSanitizer and
# UndefinedBehaviorSanitizer; both run even when the first fails.
asan:
	cmake -S . -B $(BUILD)/asan -DTVC_SANITIZE=ON -DTVC_BUILD_BENCH=OFF -DTVC_BUILD_TESTS=ON
	cmake --build $(BUILD)/asan -j$(JOBS)
	$(call sanitized_webhost,asan,address)
	@status=0; \
	ctest --test-dir $(BUILD)/asan --output-on-failure || status=1; \
	ctest --test-dir $(BUILD)/asan-webhost --output-on-failure || status=1; \
	exit $$status

# The suites under ThreadSanitizer (build/tsan).
# Every suite under ThreadSanitizer, the soak of sixteen acting threads and the web host's
# clients at once included; the failure injections into a single driver process are left to
# the other builds (tests/CMakeLists.txt says why), and tests/tsan.supp holds the reports of
# code outside the project.
tsan:
	cmake -S . -B $(BUILD)/tsan -DTVC_TSAN=ON -DTVC_BUILD_BENCH=OFF -DTVC_BUILD_TESTS=ON
	cmake --build $(BUILD)/tsan -j$(JOBS)
	$(call sanitized_webhost,tsan,thread)
	@status=0; \
	ctest --test-dir $(BUILD)/tsan --output-on-failure || status=1; \
	ctest --test-dir $(BUILD)/tsan-webhost --output-on-failure || status=1; \
	exit $$status

# The threads' soak test alone, for SOAK_S seconds (600).
# The soak alone, as long as SOAK_S says, on the default build.
soak: library
	SOAK_S=$(or $(SOAK_S),600) $(BUILD)/default/tests/accounts/accounts_tests --gtest_filter='Soak.*'

# The library's benchmarks, optimised, in the sandbox (build/bench).
# Rewrite cost against a copy-and-fsync baseline, the account operations against shadow-utils,
# and the cost of reading an account and of a rights check (see README, Performance); an
# optimised build of its own, run inside the sandbox because transactions take /etc/.pwd.lock
# and the account benchmarks grow the account files.  The sandbox gets the sample device's PAM
# stack, built as for the tests: the password rules check and the tally reset are part of what
# is measured.  BENCH_ARGS go to the benchmark (e.g. BENCH_ARGS=--benchmark_filter=Reset).
# The run's JSON goes to build/bench/tvc_bench.json, and bench/report.py prints its tables with
# the targets; `make bench-readme` puts them into README.  Each benchmark runs BENCH_REPS times
# (3), the repetitions of all of them interleaved at random, and the median counts: on a shared
# machine the disk's flushes vary by more than the differences measured.
BENCH_REPS ?= 3
BENCH_RUN = --benchmark_repetitions=$(BENCH_REPS) --benchmark_enable_random_interleaving=true \
            --benchmark_out_format=json
bench: deps pam-stack
	cmake -S . -B $(BUILD)/bench -DCMAKE_BUILD_TYPE=Release -DTVC_BUILD_TESTS=OFF -DTVC_BUILD_BENCH=ON
	cmake --build $(BUILD)/bench -j$(JOBS) --target tvc_bench
	TVC_PAM_DIR=$(PAM_DIR) $(SANDBOX) -- $(BUILD)/bench/bench/tvc_bench \
	    $(BENCH_RUN) --benchmark_out=$(BUILD)/bench/tvc_bench.json $(BENCH_ARGS)
	python3 $(CURDIR)/bench/report.py $(BUILD)/bench/tvc_bench.json

# README's figures from the last full runs: bench/results/*.json, then the tables.
# Copies the JSON of the last `make bench` (and of `make bench-armhf`, when there is one) into
# bench/results, and rewrites README's tables from them with bench/report.py.
bench-readme:
	cp $(BUILD)/bench/tvc_bench.json $(CURDIR)/bench/results/x86-64.json
	if [ -f $(BUILD)/armhf-bench/tvc_bench.json ]; then \
	    cp $(BUILD)/armhf-bench/tvc_bench.json $(CURDIR)/bench/results/armhf.json; fi
	$(call readme_figures,)

# README's tables against bench/results (part of `make test`): no figure there is typed by hand.
bench-figures-check:
	$(call readme_figures,--check)

define readme_figures
	python3 $(CURDIR)/bench/report.py $(1) --readme $(CURDIR)/README.md --marker bench $(CURDIR)/bench/results/x86-64.json
	python3 $(CURDIR)/bench/report.py $(1) --readme $(CURDIR)/README.md --marker bench-armhf --armhf \
	    $(CURDIR)/bench/results/armhf.json
endef

# The sample device's PAM modules and pam_tally2 only.
# Only the sample device's PAM modules and pam_tally2 (PAM_DIR) out of the library's build.
pam-stack:
	cmake -S . -B $(BUILD)/default -DTVC_BUILD_TESTS=ON
	cmake --build $(BUILD)/default -j$(JOBS) --target tvc_pam_stack

# --- the device's architecture: 32-bit ARM hard-float ---------------------------------------------
# The armhf sysroot of Debian's packages in build/armhf-sysroot (downloads once).
armhf-sysroot:
	$(CURDIR)/tools/armhf/make-sysroot.sh $(ARMHF_SYSROOT)

# Lets the host run armhf programs through qemu (binfmt_misc).
# An armhf program that starts another one (a test binary re-executed in the sandbox, fiu's
# drivers, pam_tally2, umctl from a script) goes through binfmt_misc to qemu.  The entry's F
# flag opens the interpreter now, so it also works inside the sandbox's mount namespace.
armhf-binfmt:
	@if [ ! -e /proc/sys/fs/binfmt_misc/status ]; then mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc; fi
	@if [ ! -e /proc/sys/fs/binfmt_misc/qemu-arm ]; then update-binfmts --enable qemu-arm; fi
	@grep -qx enabled /proc/sys/fs/binfmt_misc/qemu-arm
	@grep -q '^flags: .*F' /proc/sys/fs/binfmt_misc/qemu-arm

# The library and its tests cross-built for armhf (build/armhf; LIBRARY_TARGETS narrows it).
armhf-library: armhf-sysroot
	cmake -S . -B $(BUILD)/armhf $(ARMHF_CMAKE) -DTVC_BUILD_TESTS=ON -DTVC_BUILD_BENCH=OFF
	cmake --build $(BUILD)/armhf -j$(JOBS) --target $(LIBRARY_TARGETS)

# The armhf library installed into build/armhf-stage.
armhf-stage: armhf-library
	rm -rf $(BUILD)/armhf-stage
	cmake --install $(BUILD)/armhf --prefix $(BUILD)/armhf-stage

# umctl for armhf, in build/armhf-umctl.
# With the sysroot as the only find root, a package outside it is named by its directory.
armhf-umctl: armhf-stage
	cmake -S tools/umctl -B $(BUILD)/armhf-umctl $(ARMHF_CMAKE) \
	    -Dtvc_usermanagement_DIR=$(BUILD)/armhf-stage/lib/cmake/tvc_usermanagement -DTVC_PAM_DIR=$(ARMHF_PAM_DIR)
	cmake --build $(BUILD)/armhf-umctl -j$(JOBS)

# tvc-webd for armhf, in build/armhf-webhost.
# The reference web host for the device, against the armhf install like umctl; cpp-httplib and
# the JSON library come from the sysroot.
armhf-webhost: armhf-stage
	cmake -S tools/webhost -B $(BUILD)/armhf-webhost $(ARMHF_CMAKE) -DTVC_WEBHOST_TESTS=OFF \
	    -Dtvc_usermanagement_DIR=$(BUILD)/armhf-stage/lib/cmake/tvc_usermanagement
	cmake --build $(BUILD)/armhf-webhost -j$(JOBS) --target tvc-webd

# The armhf suites under qemu, the armhf web host's smoke test and the interface check.
# The same suites as on the host, each under qemu (ctest runs them through the toolchain file's
# emulator), the armhf web host's smoke test in the sandbox, then the installed library's
# interface against the host build's.
armhf-suites: armhf-umctl armhf-webhost armhf-binfmt
	@status=0; \
	ctest --test-dir $(BUILD)/armhf --output-on-failure || status=1; \
	ctest --test-dir $(BUILD)/armhf-umctl --output-on-failure || status=1; \
	QEMU_LD_PREFIX=$(ARMHF_SYSROOT) TVC_PAM_DIR=$(ARMHF_PAM_DIR) $(SANDBOX) -- \
	    $(CURDIR)/tests/webhost/armhf_smoke.sh $(BUILD)/armhf-webhost/tvc-webd || status=1; \
	$(MAKE) armhf-abi || status=1; \
	exit $$status

# The library's benchmarks for armhf, optimised, under qemu in the sandbox (build/armhf-bench).
# The same benchmarks as `make bench`, cross-built with Google Benchmark from the sysroot, with
# the sample device's PAM stack built for armhf next to them; BENCH_ARGS go to the benchmark.
# Only the library's code is emulated: system calls, fsync and shadow-utils' tools are the
# host's, so the figures show where the time goes, not the device's speed.
bench-armhf: deps armhf-sysroot armhf-binfmt
	cmake -S . -B $(BUILD)/armhf-bench $(ARMHF_CMAKE) -DCMAKE_BUILD_TYPE=Release -DTVC_BUILD_TESTS=OFF \
	    -DTVC_BUILD_BENCH=ON
	cmake --build $(BUILD)/armhf-bench -j$(JOBS) --target tvc_bench tvc_pam_stack
	QEMU_LD_PREFIX=$(ARMHF_SYSROOT) TVC_PAM_DIR=$(ARMHF_BENCH_PAM_DIR) $(SANDBOX) -- \
	    $(BUILD)/armhf-bench/bench/tvc_bench \
	    $(BENCH_RUN) --benchmark_out=$(BUILD)/armhf-bench/tvc_bench.json $(BENCH_ARGS)
	python3 $(CURDIR)/bench/report.py --armhf $(BUILD)/armhf-bench/tvc_bench.json

# The installed armhf library's interface against the host build's.
armhf-abi: stage armhf-library armhf-binfmt
	$(CURDIR)/tools/armhf/check-abi.sh $(BUILD)/stage $(BUILD)/armhf $(ARMHF_SYSROOT) $(BUILD)/armhf-abi

# --- the web host under load ----------------------------------------------------------------------
# tvc-webd under load: requests per second, latency, and a login next to bare PAM.
# Requests per second and latency of 64 logged-in clients (wrk, tools/webhost/bench/web.lua) for
# BENCH_S seconds (20), then a login's latency next to the bare PAM transaction's
# (tools/webhost/bench/login_bench.cpp); tvc-webd optimised, in a build of its own, in the sandbox
# with the sample device's PAM stack.  BENCH_THREADS sets the server's thread pool (16).
bench-web: deps stage
	cmake -S tools/webhost -B $(BUILD)/webhost-bench -DCMAKE_PREFIX_PATH=$(BUILD)/stage \
	    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTVC_WEBHOST_TESTS=OFF
	cmake --build $(BUILD)/webhost-bench -j$(JOBS) --target tvc-webd
	cmake -S tools/webhost/bench -B $(BUILD)/webbench
	cmake --build $(BUILD)/webbench -j$(JOBS)
	TVC_PAM_DIR=$(PAM_DIR) $(SANDBOX) -- $(CURDIR)/tools/webhost/bench/bench-web.sh \
	    $(BUILD)/webhost-bench/tvc-webd $(BUILD)/webbench/login_bench

# --- fuzzing --------------------------------------------------------------------------------------
# The fuzz targets (tests/fuzz), built with clang, libFuzzer and ASan+UBSan in build/fuzz.
FUZZ_S ?= 60
FUZZ_JOBS ?= $(JOBS)
fuzz-build: deps
	cmake -S . -B $(BUILD)/fuzz -DCMAKE_CXX_COMPILER=clang++-14 -DTVC_FUZZ=ON -DTVC_BUILD_TESTS=OFF \
	    -DTVC_BUILD_BENCH=OFF
	cmake --build $(BUILD)/fuzz -j$(JOBS) --target tvc_fuzzers

# Every fuzz target for FUZZ_S seconds (60): executions, coverage and crashes per target.
# FUZZ_RUNS caps each target's executions, FUZZ_JOBS (JOBS) runs that many at once.  The
# inputs that found new coverage are merged into tests/fuzz/corpus/<target>; a crash's input
# is minimised next to it under build/fuzz/fuzz-work/<target>/artifacts (see tests/fuzz/fuzz.sh).
# The web host's target logs in through the sample device's PAM stack, built for this build.
fuzz: fuzz-build
	FUZZ_RUNS=$(FUZZ_RUNS) FUZZ_JOBS=$(FUZZ_JOBS) TVC_PAM_DIR=$(BUILD)/fuzz/tools/sampledevice/pam \
	    $(CURDIR)/tests/fuzz/fuzz.sh campaign $(FUZZ_S) \
	    $(BUILD)/fuzz/fuzz-work $(BUILD)/fuzz/tests/fuzz/*_fuzzer

# Each fuzz target over its corpus, then a few seconds of fresh inputs; a crash fails it.
fuzz-regress: fuzz-build
	ctest --test-dir $(BUILD)/fuzz --output-on-failure

# --- Debian packages ------------------------------------------------------------------------------
# Debian packages (library, -dev, umctl, tvc-webd) for amd64 and armhf in build/deb/, linted.
ifeq ($(ARMHF),0)
deb: deb-amd64
else
deb: deb-amd64 deb-armhf
endif

# The Debian packages for amd64 alone, under build/deb/amd64.
deb-amd64: deps
	JOBS=$(JOBS) $(CURDIR)/tools/deb/build-packages.sh amd64 $(BUILD)/deb/amd64

# The Debian packages cross-built for armhf alone, under build/deb/armhf.
# The sysroot's dpkg database (make-sysroot.sh writes it next to the sysroot) gives their
# dependencies.
deb-armhf: deps armhf-sysroot
	JOBS=$(JOBS) $(CURDIR)/tools/deb/build-packages.sh armhf $(BUILD)/deb/armhf $(ARMHF_SYSROOT) \
	    $(BUILD)/armhf-apt/dpkg

# The amd64 packages installed into a throw-away root and used there by a host.
# dpkg installs them for real in a private mount namespace; the host's /usr and dpkg
# database are checked unchanged afterwards.
# The README's host example runs there on the sample device, with its PAM stack.
deb-test: deb-amd64 pam-stack
	$(CURDIR)/tests/packaging/install-test.sh $(BUILD)/deb/amd64 $(PAM_DIR)
