// A real-to-complex FFT of one fixed size through FFTW (single precision),
// owning its plan and its aligned buffers. FFTW's planner is one global state
// that is not safe to use from two threads at once, and analysis runs on
// several; every plan in the program is made and destroyed through this
// class, which holds one process-wide lock for that. Running a plan is safe
// on any thread, so one RealFft per call (or per thread) needs no locking.
#pragma once

#include <complex>
#include <cstddef>
#include <span>

struct fftwf_plan_s;

namespace orvel::audio {

class RealFft {
 public:
  explicit RealFft(size_t size);
  RealFft(const RealFft&) = delete;
  RealFft& operator=(const RealFft&) = delete;
  ~RealFft();

  // False when FFTW could not allocate or plan; nothing else may be called then.
  bool valid() const { return plan_ != nullptr; }
  size_t size() const { return size_; }

  // Fill input() with size() samples, call forward(), read spectrum():
  // bins 0 … size()/2, the input left as it was.
  std::span<float> input() { return {in_, size_}; }
  void forward();
  std::span<const std::complex<float>> spectrum() const;

 private:
  size_t size_ = 0;
  float* in_ = nullptr;
  void* out_ = nullptr;
  fftwf_plan_s* plan_ = nullptr;
};

}  // namespace orvel::audio
