#include "app/audio/analysis_pass.h"

#include "app/audio/fingerprint.h"
#include "app/audio/waveform.h"
#include "core/store/orvel_db.h"
#include "core/store/statement.h"

namespace orvel::audio {

PassResult analyseFile(const std::filesystem::path& path, const PassSettings& settings) {
  PassResult r;
  auto audio = Decoder::decodeMono(path);
  if (!audio) return r;
  r.readable = true;
  r.seconds = audio->seconds();
  r.analysis = Analyzer::analyze(*audio, settings.analyzer);
  r.waveform = WaveformLoader::computeFromFloat(audio->samples);
  r.defects = DefectScan::dropRhythmic(DefectScan::analyse(audio->samples, audio->rate));
  r.fingerprint = rawFingerprint(audio->samples, audio->rate);
  return r;
}

PassStored storePass(OrvelDB& db, int64_t trackId, const PassResult& result,
                     const std::string& cuesOpId) {
  PassStored stored;
  if (!result.readable) return stored;
  Transaction tx(db.connection());
  if (!tx) {
    stored.status = tx.status();
    return stored;
  }
  // All or nothing: a part that fails (a full disk, a lock) fails the file,
  // and the transaction takes back what was written before it. Keeping the
  // rest would mark the track analysed with parts missing, and it would
  // never be tried again.
  const auto failed = [](Status why) {
    PassStored none;
    none.status = std::move(why);
    return none;
  };
  auto keyAndTempo = [&] {
    Statement st = db.connection().prepare("SELECT key, bpm FROM tracks WHERE id=?");
    st.bind(1, trackId);
    return st.step() ? std::pair{st.optText(0), st.optReal(1)}
                     : std::pair<std::optional<std::string>, std::optional<double>>{};
  };
  const auto before = keyAndTempo();
  if (Status s = db.analysis().setAnalysis(trackId, result.analysis.key, result.analysis.bpm); !s)
    return failed(s);
  const auto after = keyAndTempo();
  stored.key = before.first != after.first;
  stored.bpm = before.second != after.second;
  const auto& a = result.analysis;
  if (a.inMs && a.outMs && *a.outMs > *a.inMs) {
    if (auto cues = db.cues().replaceAutoCues(trackId, *a.inMs, *a.outMs, cuesOpId); !cues)
      return failed(cues.status());
    stored.cues = true;
  }
  if (result.waveform) {
    if (Status s = db.analysis().setWaveform(trackId, *result.waveform); !s) return failed(s);
    stored.waveform = true;
  }
  if (Status s = DefectScan::record(db, trackId, result.defects); !s) return failed(s);
  stored.scanned = true;
  if (result.fingerprint) {
    if (Status s = db.analysis().setRawFingerprint(trackId, *result.fingerprint); !s)
      return failed(s);
    stored.fingerprint = true;
  }
  if (Status s = tx.commit(); !s) return failed(s);
  return stored;
}

}  // namespace orvel::audio
