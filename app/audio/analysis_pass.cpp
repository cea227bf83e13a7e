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

PassStored storePass(OrvelDB& db, int64_t trackId, const PassResult& result) {
  PassStored stored;
  if (!result.readable) return stored;
  Transaction tx(db.connection());
  if (!tx) {
    stored.status = tx.status();
    return stored;
  }
  // The first failure is the one worth telling; later ones usually repeat it.
  auto kept = [&stored](Status s) {
    const bool ok = s.isOk();
    if (!ok && stored.status) stored.status = std::move(s);
    return ok;
  };
  auto keyAndTempo = [&] {
    Statement st = db.connection().prepare("SELECT key, bpm FROM tracks WHERE id=?");
    st.bind(1, trackId);
    return st.step() ? std::pair{st.optText(0), st.optReal(1)}
                     : std::pair<std::optional<std::string>, std::optional<double>>{};
  };
  const auto before = keyAndTempo();
  if (kept(db.analysis().setAnalysis(trackId, result.analysis.key, result.analysis.bpm))) {
    const auto after = keyAndTempo();
    stored.key = before.first != after.first;
    stored.bpm = before.second != after.second;
  }
  const auto& a = result.analysis;
  if (a.inMs && a.outMs && *a.outMs > *a.inMs)
    stored.cues = kept(db.cues().replaceAutoCues(trackId, *a.inMs, *a.outMs).status());
  if (result.waveform) stored.waveform = kept(db.analysis().setWaveform(trackId, *result.waveform));
  stored.scanned = kept(DefectScan::record(db, trackId, result.defects));
  if (result.fingerprint)
    stored.fingerprint = kept(db.analysis().setRawFingerprint(trackId, *result.fingerprint));
  if (Status s = tx.commit(); !s) {
    PassStored none;
    none.status = std::move(s);
    return none;
  }
  return stored;
}

}  // namespace orvel::audio
