# exvol front door. `make run` mounts a volume (a built-in demo image when
# IMG is not given); `make test` installs what is missing, builds with
# sanitizers and runs every test.

SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD_TEST ?= build/test
BUILD_TSAN ?= build/tsan
BUILD_REL ?= build/release
BUILD_COV ?= build/coverage
CMAKE_COMMON := -G Ninja -DEXVOL_WERROR=ON

DEB_PACKAGES := build-essential cmake ninja-build pkg-config libfuse3-dev fuse3 \
	libutf8proc-dev libmd-dev libgtest-dev libgmock-dev libbenchmark-dev exfatprogs gcovr \
	scdoc dpkg-dev rsync nlohmann-json3-dev debootstrap clang-format

.PHONY: all deps build build-tsan release test test-unit test-tsan soak run bench coverage clean \
	install deb install-test format format-check

all: build

# Installs only the Debian packages that are missing (one apt-get update).
deps:
	@missing=""; for p in $(DEB_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

build:
	cmake -S . -B $(BUILD_TEST) $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Debug -DEXVOL_SANITIZE=asan
	cmake --build $(BUILD_TEST) -j $(JOBS)

build-tsan:
	cmake -S . -B $(BUILD_TSAN) $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DEXVOL_SANITIZE=tsan
	cmake --build $(BUILD_TSAN) -j $(JOBS)

release:
	cmake -S . -B $(BUILD_REL) $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Release -DEXVOL_TESTS=OFF -DEXVOL_BENCH=ON
	cmake --build $(BUILD_REL) -j $(JOBS)

test-unit: build
	ctest --test-dir $(BUILD_TEST) -j $(JOBS) --output-on-failure --timeout 600

# The threading tests again, under ThreadSanitizer.
test-tsan: build-tsan
	TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
	  ctest --test-dir $(BUILD_TSAN) -j $(JOBS) --output-on-failure --timeout 600 -R 'Concurrency'

test: deps
	$(MAKE) test-unit
	$(MAKE) test-tsan

# The model checker with fresh seeds for SECONDS seconds, shared among its
# modes. A failure prints its seed, the command that replays it and, where
# the mode allows, the sequence shrunk to a test case.
SECONDS ?= 600
MODEL_MODES := ModelCheckGeometry ModelCheckLargeDirectory ModelCheckPowerCut ModelCheckIoErrors \
	ModelCheckDamaged ModelCheckFuse
soak: build
	@per=$$(( $(SECONDS) / $(words $(MODEL_MODES)) )); [ $$per -gt 0 ] || per=1; status=0; \
	for mode in $(MODEL_MODES); do \
	  echo "== $$mode: $$per s"; \
	  EXVOL_MODEL_SECONDS=$$per $(BUILD_TEST)/tests/exvol_model_tests \
	    --gtest_filter="*$$mode*:-*/1:*/2" --gtest_brief=1 || status=1; \
	done; exit $$status

# Mounts IMG (a disk image or device) at MNT with mount.exvol and shows it;
# without IMG, a demo image made once. The volume stays mounted.
MNT ?= build/mnt
run: deps release
	@tools/run.sh $(BUILD_REL) "$(IMG)" "$(MNT)"

bench: deps release
	@for b in $(BUILD_REL)/bench/exvol_bench_*; do [ -x "$$b" ] && "$$b"; done; true

# Installs the programs (exvol in bin, mount.exvol and its mount.fuse.exvol
# link in sbin), the man pages and the bash completion under PREFIX, below
# DESTDIR when given. mount(8) finds the helper for `mount -t exvol` in
# /sbin or /usr/sbin: use PREFIX=/usr, or link it there.
PREFIX ?= /usr/local
install: release
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD_REL) --prefix "$(PREFIX)"

# A Debian package of the release build (under /usr), in build/release.
deb: deps release
	cd $(BUILD_REL) && cpack -G DEB
	@ls $(BUILD_REL)/*.deb

# The package on a fresh Debian: debootstrap (minbase) into a scratch
# folder, apt-get install of the package in a chroot (its dependencies must
# resolve from the archive), then the installed programs make, fill and
# check a volume. Needs root and the network; takes minutes, so it is not
# part of `make test`.
install-test: deb
	bash tests/install/fresh_machine_test.sh $$(ls $(BUILD_REL)/exvol_*.deb | head -1)

# Line coverage of the driver (and, separately, of the host and library) from
# the whole test suite (the fault tests need the sanitizer runtime).
coverage: deps
	cmake -S . -B $(BUILD_COV) $(CMAKE_COMMON) -DCMAKE_BUILD_TYPE=Debug -DEXVOL_SANITIZE=asan -DEXVOL_COVERAGE=ON
	cmake --build $(BUILD_COV) -j $(JOBS)
	find $(BUILD_COV) -name '*.gcda' -delete
	-ctest --test-dir $(BUILD_COV) -j $(JOBS) --timeout 600 > $(BUILD_COV)/ctest.log 2>&1
	gcovr --gcov-ignore-parse-errors -r . $(BUILD_COV) --filter 'vfsops/' --filter 'vnops/' --filter 'alloc/' --filter 'node/' --filter 'include/' --print-summary -o $(BUILD_COV)/driver.txt
	gcovr --gcov-ignore-parse-errors -r . $(BUILD_COV) --filter 'host/' --filter 'api/' --print-summary -o $(BUILD_COV)/host-api.txt

# The house style (.clang-format) over every C++ file under version control.
FORMAT_FILES = $(shell git ls-files '*.cpp' '*.h')
format:
	clang-format -i $(FORMAT_FILES)
format-check:
	clang-format --dry-run --Werror $(FORMAT_FILES)

clean:
	rm -rf build
