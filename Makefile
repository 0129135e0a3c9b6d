# Set-up, build and test of Resize on Debian 12.
#   make run   installs what is missing, builds, runs Resize on images/source.mp4
#   make test  installs what is missing, builds, runs every test through CTest

PACKAGES := cmake g++ make pkg-config python3 \
	libgtest-dev libbenchmark-dev \
	libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev \
	libturbojpeg0-dev ffmpeg libimage-exiftool-perl
BUILD    ?= build
JOBS     ?= 2

.PHONY: setup build run test sample clean

setup:
	@missing=""; \
	for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q 'ok installed' || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $$missing; \
	fi

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

clean:
	rm -rf $(BUILD)
