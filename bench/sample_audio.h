// A folder of real, tagged audio files for the demo and the import
// benchmark: the sample tracks written out as short tones in the formats
// their paths name (MP3, FLAC, M4A, WAV, AIFF), nested artist / album.
#pragma once

#include <filesystem>
#include <vector>

#include "bench/sample_catalogue.h"

namespace orvel::sample {

// Writes each track's file at its path, tagged with its title, artist,
// album, genre, year, BPM, key and comment. Needs the `ffmpeg` program.
// With `musicSeconds` above 0 each file is that much generated music at the
// track's tempo and in its key instead of a short tone, and every other
// file leaves BPM and key out of its tags, for analysis to find.
void writeAudioFiles(const std::vector<SampleTrack>& tracks, double musicSeconds = 0);

// What the demo adds around the songs: a sample pack (production material)
// and files an import must pass over (a video, a picture).
void writeDemoExtras(const std::filesystem::path& root);

}  // namespace orvel::sample
