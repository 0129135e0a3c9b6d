# Set-up, build and test of Resize on Debian 12.
#   make run   installs what is missing, builds, runs Resize on images/source.mp4
#   make test  installs what is missing, builds, runs every test through CTest
#   make test-sanitize  the same with AddressSanitizer and UndefinedBehaviorSanitizer
#                       (build dir build-sanitize)
#   make install  installs the commands and their man pages under PREFIX
#                 (default /usr/local), staged under DESTDIR when given
#   make deb   builds a Debian package of them (CPack), in the build folder
#   make fuzz  builds the libFuzzer harnesses with clang (build-fuzz) and runs
#              each for FUZZ_SECONDS seconds (default 60)

PACKAGES := cmake g++ make pkg-config python3 \
	libgtest-dev libbenchmark-dev \
	libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev \
	libturbojpeg0-dev ffmpeg libimage-exiftool-perl \
	parallel rsync openssh-client \
	help2man dpkg-dev nlohmann-json3-dev xfsprogs
# Only the fuzzing harnesses need these.
FUZZ_PACKAGES := clang libclang-rt-14-dev
BUILD    ?= build
JOBS     ?= 2
SANITIZE_BUILD ?= build-sanitize
# Extra ctest arguments for the sanitizer run, e.g. -R 'MP4|camera'.
SANITIZE_CTEST ?=
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 60
# Harnesses to run (all when empty): boxtree makernote avcc sensor xml options
FUZZ_HARNESSES ?=

# Where make install puts the commands and their man pages; DESTDIR, when
# given, is put in front (a staging root).
PREFIX   ?= /usr/local

.PHONY: setup build run test sample clean test-sanitize fuzz install deb

# Installs the Debian packages of the list $(1) that are missing.
define install_missing
	@missing=""; \
	for p in $(1); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q 'ok installed' || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $$missing; \
	fi
endef

setup:
	$(call install_missing,$(PACKAGES))

build: setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) -j$(JOBS)

images/source.mp4:
	python3 tests/fixtures/make_movie.py --model newer --out images/source.mp4

sample: setup images/source.mp4

run: build sample
	./$(BUILD)/bin/Resize

test: build sample
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

install: build
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD) --prefix "$(PREFIX)"

# The Debian package, in $(BUILD): resize_VERSION_amd64.deb.
deb: build
	cd $(BUILD) && cpack -G DEB

# Optimised lightly, with line tables for the reports: quick to build.
# Leaks inside the third-party libraries are suppressed; ours are not.
SANITIZE_ENV := ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1 \
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/sanitize/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

test-sanitize: setup sample
	cmake -S . -B $(SANITIZE_BUILD) -DRESIZE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Sanitize \
	  -DCMAKE_C_FLAGS_SANITIZE="-O1 -g1" -DCMAKE_CXX_FLAGS_SANITIZE="-O1 -g1"
	cmake --build $(SANITIZE_BUILD) -j$(JOBS)
	cd $(SANITIZE_BUILD) && $(SANITIZE_ENV) ctest --output-on-failure -j$(JOBS) $(SANITIZE_CTEST)

fuzz: setup
	$(call install_missing,$(FUZZ_PACKAGES))
	cmake -S tests/fuzz -B $(FUZZ_BUILD) -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
	cmake --build $(FUZZ_BUILD) -j$(JOBS)
	RESIZE_FIXTURE_CACHE=$(CURDIR)/$(FUZZ_BUILD)/fixture-cache python3 tests/fuzz/make_seeds.py $(FUZZ_BUILD)/seeds
	tests/fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS) $(FUZZ_HARNESSES)

clean:
	rm -rf $(BUILD) $(SANITIZE_BUILD) $(FUZZ_BUILD)
