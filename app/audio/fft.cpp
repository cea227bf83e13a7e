#include "app/audio/fft.h"

#include <fftw3.h>

#include <mutex>

namespace orvel::audio {
namespace {

std::mutex& plannerLock() {
  static std::mutex lock;
  return lock;
}

}  // namespace

RealFft::RealFft(size_t size) : size_(size) {
  if (size < 2) return;
  std::lock_guard guard(plannerLock());
  in_ = static_cast<float*>(fftwf_malloc(sizeof(float) * size));
  out_ = fftwf_malloc(sizeof(fftwf_complex) * (size / 2 + 1));
  if (!in_ || !out_) return;
  // ESTIMATE: measuring would cost more than the few thousand frames a
  // track needs, and it leaves the input alone.
  plan_ = fftwf_plan_dft_r2c_1d(int(size), in_, static_cast<fftwf_complex*>(out_), FFTW_ESTIMATE);
}

RealFft::~RealFft() {
  std::lock_guard guard(plannerLock());
  if (plan_) fftwf_destroy_plan(plan_);
  fftwf_free(out_);
  fftwf_free(in_);
}

void RealFft::forward() {
  fftwf_execute_dft_r2c(plan_, in_, static_cast<fftwf_complex*>(out_));
}

std::span<const std::complex<float>> RealFft::spectrum() const {
  // fftwf_complex is two floats, laid out as std::complex<float> is.
  return {static_cast<const std::complex<float>*>(out_), size_ / 2 + 1};
}

}  // namespace orvel::audio
