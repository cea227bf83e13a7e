// orvel-sample: writes a believable sample catalogue, for the demo and for
// trying the command line on something bigger than an empty library.
#include <CLI/CLI.hpp>
#include <iostream>

#include "bench/sample_catalogue.h"
#include "core/store/log.h"

int main(int argc, char** argv) {
  CLI::App app("Create a sample Orvel catalogue", "orvel-sample");
  std::string db;
  int tracks = 12;
  uint32_t seed = 2026;
  app.add_option("DB", db, "Catalogue file to create or add to")->required();
  app.add_option("--tracks", tracks, "How many tracks (default 12)")
      ->check(CLI::Range(1, 10'000'000));
  app.add_option("--seed", seed, "Seed of the generator");
  CLI11_PARSE(app, argc, argv);
  orvel::setNoteEcho(false);  // the new catalogue's upgrade notes go to the log only
  try {
    orvel::OrvelDB catalogue(db);
    const auto ids = orvel::sample::fill(catalogue, orvel::sample::makeTracks(tracks, seed));
    std::cerr << "orvel-sample: added " << ids.size() << " tracks to " << db << "\n";
  } catch (const orvel::StoreError& e) {
    std::cerr << "orvel-sample: cannot open " << db << ": " << e.what() << "\n";
    return 1;
  }
  return 0;
}
