// orvel-sample: writes a believable sample library, for the demo and for
// trying the command line on something bigger than an empty library: either
// a catalogue filled directly, or a folder of real audio files to import.
#include <CLI/CLI.hpp>
#include <iostream>

#include "bench/sample_audio.h"
#include "bench/sample_catalogue.h"
#include "bench/sample_serato.h"
#include "core/store/log.h"

int main(int argc, char** argv) {
  CLI::App app("Create a sample Orvel catalogue or a folder of sample audio files", "orvel-sample");
  std::string db, audio, serato;
  int tracks = 12;
  uint32_t seed = 2026;
  double music = 0;
  app.add_option("DB", db, "Catalogue file to create or add to");
  app.add_option("--audio", audio,
                 "Instead, write tagged audio files (MP3, FLAC, M4A, WAV, AIFF) under DIR")
      ->type_name("DIR");
  app.add_option("--serato", serato,
                 "With --audio: also a Serato library folder (crates, cues in the MP3s) at DIR")
      ->type_name("DIR");
  app.add_option("--tracks", tracks, "How many tracks (default 12)")
      ->check(CLI::Range(1, 10'000'000));
  app.add_option("--seed", seed, "Seed of the generator");
  app.add_option("--music", music,
                 "With --audio: SECONDS of generated music per song at its tempo and in its key "
                 "(default: a two-second tone)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 600.0));
  CLI11_PARSE(app, argc, argv);
  if (db.empty() == audio.empty()) {
    std::cerr << "orvel-sample: give either a catalogue DB or --audio DIR\n";
    return 2;
  }
  orvel::setNoteEcho(false);  // the new catalogue's upgrade notes go to the log only
  try {
    if (!audio.empty()) {
      const auto songs = orvel::sample::makeTracks(tracks, seed, audio);
      orvel::sample::writeAudioFiles(songs, music);
      orvel::sample::writeDemoExtras(audio);
      if (!serato.empty()) orvel::sample::writeSeratoLibrary(songs, serato);
      std::cerr << "orvel-sample: wrote " << tracks << " tagged songs and a sample pack under "
                << audio << "\n";
      return 0;
    }
    orvel::OrvelDB catalogue(db);
    const auto ids = orvel::sample::fill(catalogue, orvel::sample::makeTracks(tracks, seed));
    if (!ids) {
      std::cerr << "orvel-sample: cannot add tracks to " << db << ": " << ids.error() << "\n";
      return 1;
    }
    std::cerr << "orvel-sample: added " << ids->size() << " tracks to " << db << "\n";
  } catch (const orvel::StoreError& e) {
    std::cerr << "orvel-sample: cannot open " << db << ": " << e.what() << "\n";
    return 1;
  } catch (const std::exception& e) {
    std::cerr << "orvel-sample: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
