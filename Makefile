# A thin front over CMake presets. `make demo` and `make test` are the two
# Quick start commands of the README.
PRESET ?= dev
BUILD := build/$(PRESET)
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
# CI turns warnings in Orvel's own code into errors.
CMAKE_FLAGS := $(if $(CI),-DORVEL_WERROR=ON,)

.PHONY: all deps configure build run demo test test-asan bench fuzz-build fuzz format tidy clean

all: build

deps:
	scripts/install-deps

configure:
	cmake --preset $(PRESET) $(CMAKE_FLAGS) >/dev/null

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# make run ARGS="ls --limit 20"
run: build
	$(BUILD)/orvel $(ARGS)

# Installs what is missing, builds, and shows Orvel on a sample library made
# in a scratch folder: real audio files (generated music) in several formats
# and nested folders, tagged, then imported and analysed, with a waveform
# picture per track; then a Serato library beside them read in and the
# crates exported as DJ collection XML. HOME points there too, so
# nothing of yours is touched.
demo: deps build
	@scratch=$$(mktemp -d "$${TMPDIR:-/tmp}/orvel-demo.XXXXXX"); \
	export HOME="$$scratch" XDG_DATA_HOME="$$scratch/share" XDG_STATE_HOME="$$scratch/state" \
	       XDG_CONFIG_HOME="$$scratch/config" XDG_CACHE_HOME="$$scratch/cache"; \
	set -e; orvel="$(BUILD)/orvel --db $$scratch/orvel.db"; \
	echo "== sample audio files in $$scratch/Music"; \
	$(BUILD)/orvel-sample --audio "$$scratch/Music" --tracks 16 --music 20 --serato "$$scratch/Music/_Serato_"; \
	find "$$scratch/Music" -type f | sed "s|$$scratch/||" | sort | head -8; echo "   ..."; \
	echo; echo "== orvel import $$scratch/Music"; $$orvel import "$$scratch/Music"; \
	echo; echo "== orvel import $$scratch/Music (again)"; $$orvel import "$$scratch/Music"; \
	echo; echo "== orvel analyze   (tempo, key, cues, waveform, defects, fingerprint)"; $$orvel analyze; \
	echo; echo "== orvel ls"; $$orvel ls; \
	mkdir -p "$$scratch/Waveforms"; \
	for id in $$($$orvel ls --json | python3 -c 'import json,sys; print(*[t["id"] for t in json.load(sys.stdin)])'); do \
	  $$orvel waveform $$id --png "$$scratch/Waveforms/$$id.png" >/dev/null; done; \
	echo; echo "== waveform pictures in $$scratch/Waveforms"; ls "$$scratch/Waveforms" | head -4; echo "   ..."; \
	echo; echo "== orvel waveform 1"; $$orvel waveform 1; \
	echo; echo "== orvel show 1"; $$orvel show 1; \
	echo; echo "== orvel key label 8A --notation both"; $$orvel key label 8A --notation both; \
	$(BUILD)/orvel-sample --audio "$$scratch/Downloads" --tracks 2 --seed 9 2>/dev/null; \
	echo; echo "== orvel import --copy --media-root $$scratch/Media $$scratch/Downloads"; \
	$$orvel import --copy --media-root "$$scratch/Media" "$$scratch/Downloads"; \
	find "$$scratch/Media" -type f | sed "s|$$scratch/||" | sort; \
	echo; echo "== orvel smart save --name Peak --rule bpm:gt:125 --limit 5 --limit-by artist"; \
	$$orvel smart save --name Peak --rule bpm:gt:125 --limit 5 --limit-by artist; \
	echo; echo "== orvel playlist show Peak"; $$orvel playlist show Peak; \
	echo; echo "== orvel serato import   (Serato's library in $$scratch/Music/_Serato_)"; \
	$$orvel serato import; \
	echo; echo "== orvel serato import (again)"; $$orvel serato import; \
	echo; echo "== orvel playlist tree"; $$orvel playlist tree; \
	mp3=$$(find "$$scratch/Music" -name '*.mp3' | sort | head -1); \
	echo; echo "== orvel serato tags $${mp3#$$scratch/}"; $$orvel serato tags "$$mp3"; \
	echo; echo "== orvel export xml $$scratch/orvel.xml"; $$orvel export xml "$$scratch/orvel.xml"; \
	echo; echo "== orvel info"; $$orvel info

test: build
	ctest --preset $(PRESET) -j $(JOBS)

test-asan:
	$(MAKE) test PRESET=asan

bench:
	$(MAKE) build PRESET=release
	build/release/bench/orvel_store_bench
	build/release/bench/orvel_library_bench
	build/release/bench/orvel_import_bench
	build/release/bench/orvel_serato_bench
	build/release/bench/orvel_analysis_bench
	build/release/bench/orvel_key_bench
	build/release/bench/orvel_defect_bench
	build/release/bench/orvel_duplicates_bench

# The fuzz targets are a clang-only CMake project of their own. `make fuzz`
# runs each for FUZZ_SECONDS from the seeds fuzz/make_seeds.py writes; the
# corpora grow in build/fuzz/corpus, whatever a fuzzer finds lands in
# build/fuzz/findings/<target>/, and then the run fails.
FUZZ_BUILD := build/fuzz
FUZZ_SECONDS ?= 30
# target:longest input. A tag carries whole Markers2 objects and a TLV file a
# few tracks; a container file both payloads under its headers; the other
# two take one object or one text. A WAV file needs
# only a header and a few frames to reach every branch, a library XML a
# couple of tracks and playlists.
FUZZ_TARGETS := id3_fuzz:4096 serato_markers_fuzz:2048 serato_containers_fuzz:8192 \
                serato_tlv_fuzz:4096 encoding_fuzz:512 wav_reader_fuzz:1024 music_xml_fuzz:4096

fuzz-build:
	cmake -S fuzz -B $(FUZZ_BUILD) -G Ninja -DCMAKE_CXX_COMPILER=clang++-14 >/dev/null
	cmake --build $(FUZZ_BUILD) -j $(JOBS)

fuzz: fuzz-build
	python3 fuzz/make_seeds.py $(FUZZ_BUILD)/corpus
	@status=0; for entry in $(FUZZ_TARGETS); do \
	  target=$${entry%%:*}; maxlen=$${entry##*:}; \
	  findings=$(FUZZ_BUILD)/findings/$$target; mkdir -p "$$findings"; \
	  echo "== $$target, $(FUZZ_SECONDS) s"; \
	  UBSAN_OPTIONS=print_stacktrace=1 $(FUZZ_BUILD)/$$target \
	    -max_total_time=$(FUZZ_SECONDS) -timeout=10 -rss_limit_mb=2048 -max_len=$$maxlen \
	    -dict=fuzz/$$target.dict -artifact_prefix="$$findings/" -print_final_stats=1 \
	    $(FUZZ_BUILD)/corpus/$$target \
	    || { status=1; echo "$$target failed; what it found is in $$findings"; }; \
	done; exit $$status

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

tidy: configure
	git ls-files '*.cpp' | grep -v '_test.cpp' | xargs clang-tidy -p $(BUILD) --quiet

clean:
	rm -rf build
