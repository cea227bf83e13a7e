#include "app/audio/decoder.h"

#include <algorithm>
#include <cmath>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace orvel::audio {
namespace {

struct FormatCloser {
  void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
};
struct CodecFreer {
  void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct PacketFreer {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameFreer {
  void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct SwrFreer {
  void operator()(SwrContext* p) const { swr_free(&p); }
};
using FormatPtr = std::unique_ptr<AVFormatContext, FormatCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFreer>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;
using SwrPtr = std::unique_ptr<SwrContext, SwrFreer>;

// A declared length this much longer than what decoded means the file was cut.
constexpr double kTruncatedShare = 0.9;

struct OpenStream {
  FormatPtr format;
  CodecPtr codec;
  int index = -1;
};

std::optional<OpenStream> open(const std::filesystem::path& path) {
  av_log_set_level(AV_LOG_QUIET);
  AVFormatContext* raw = nullptr;
  if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) return std::nullopt;
  OpenStream s;
  s.format.reset(raw);
  if (avformat_find_stream_info(raw, nullptr) < 0) return std::nullopt;
  const AVCodec* codec = nullptr;
  s.index = av_find_best_stream(raw, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
  if (s.index < 0 || !codec) return std::nullopt;
  s.codec.reset(avcodec_alloc_context3(codec));
  if (!s.codec) return std::nullopt;
  if (avcodec_parameters_to_context(s.codec.get(), raw->streams[s.index]->codecpar) < 0)
    return std::nullopt;
  // Decoding runs in parallel across files, never inside one.
  s.codec->thread_count = 1;
  if (avcodec_open2(s.codec.get(), codec, nullptr) < 0) return std::nullopt;
  if (s.codec->sample_rate <= 0 || s.codec->ch_layout.nb_channels <= 0) return std::nullopt;
  return s;
}

double declaredSeconds(const AVFormatContext* format, const AVStream* stream) {
  if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
    return double(stream->duration) * av_q2d(stream->time_base);
  if (format->duration != AV_NOPTS_VALUE && format->duration > 0)
    return double(format->duration) / AV_TIME_BASE;
  return 0;
}

bool isLossless(AVCodecID id) {
  const AVCodecDescriptor* d = avcodec_descriptor_get(id);
  return d && (d->props & AV_CODEC_PROP_LOSSLESS) && !(d->props & AV_CODEC_PROP_LOSSY);
}

// Turns decoded frames of any layout, format and rate into planar float at
// the requested rate, mixes to mono when asked, trims to the requested range
// and hands blocks to the sink.
class Converter {
 public:
  Converter(const DecodeRequest& request, const AudioSink& sink, int inRate)
      : request_(request), sink_(sink), outRate_(request.rate > 0 ? request.rate : inRate) {
    skip_ = static_cast<int64_t>(std::llround(request.startSec * outRate_));
    limit_ = request.maxSeconds > 0
                 ? static_cast<int64_t>(std::llround(request.maxSeconds * outRate_))
                 : -1;
  }

  int outRate() const { return outRate_; }
  int outChannels() const { return request_.mono ? 1 : channels_; }
  size_t delivered() const { return delivered_; }
  bool stopped() const { return stopped_; }
  bool done() const { return stopped_ || (limit_ >= 0 && int64_t(delivered_) >= limit_); }

  // The position (in output frames) of the first sample of the next frame,
  // taken from the stream after a seek so the skip counts from there.
  void startAt(int64_t outFrame) { position_ = outFrame; }

  bool push(const AVFrame* frame) {
    if (!swr_ && !configure(frame)) return false;
    // A stream whose channel count changes midway keeps its first layout;
    // the odd frames are left out rather than misread.
    if (frame->ch_layout.nb_channels != channels_) return true;
    // Most lossy decoders already give planar float at the file's rate; then
    // the frame's own planes are read and the converter is left out.
    if (frame->format == AV_SAMPLE_FMT_FLTP && frame->sample_rate == outRate_) {
      for (int c = 0; c < channels_; ++c)
        sources_[size_t(c)] = reinterpret_cast<const float*>(frame->extended_data[c]);
      return deliver(sources_.data(), frame->nb_samples);
    }
    const int room = swr_get_out_samples(swr_.get(), frame->nb_samples);
    if (!reserve(room)) return false;
    const int got =
        swr_convert(swr_.get(), planes_.data(), room,
                    const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
    if (got < 0) return false;
    return deliver(converted(), got);
  }

  bool flush() {
    if (!swr_) return true;
    const int room = swr_get_out_samples(swr_.get(), 0);
    if (room <= 0) return true;
    if (!reserve(room)) return false;
    const int got = swr_convert(swr_.get(), planes_.data(), room, nullptr, 0);
    return got < 0 ? false : deliver(converted(), got);
  }

 private:
  bool configure(const AVFrame* frame) {
    channels_ = frame->ch_layout.nb_channels;
    if (channels_ <= 0) return false;
    SwrContext* raw = nullptr;
    AVChannelLayout layout{};
    if (av_channel_layout_copy(&layout, &frame->ch_layout) < 0) return false;
    // Same layout in and out: the mono mix is a plain mean done below, since
    // FFmpeg's own downmix weights differ between float and integer output.
    const int made =
        swr_alloc_set_opts2(&raw, &layout, AV_SAMPLE_FMT_FLTP, outRate_, &layout,
                            AVSampleFormat(frame->format), frame->sample_rate, 0, nullptr);
    av_channel_layout_uninit(&layout);
    if (made < 0) return false;
    swr_.reset(raw);
    outPlanes_.resize(size_t(channels_));
    sources_.resize(size_t(channels_));
    return swr_init(raw) >= 0;
  }

  bool reserve(int frames) {
    if (frames < 0) return false;
    if (size_t(frames) > capacity_) {
      capacity_ = size_t(frames);
      buffers_.assign(size_t(channels_), std::vector<float>(capacity_));
    }
    planes_.resize(size_t(channels_));
    for (int c = 0; c < channels_; ++c)
      planes_[size_t(c)] = reinterpret_cast<uint8_t*>(buffers_[size_t(c)].data());
    return true;
  }

  const float* const* converted() {
    for (int c = 0; c < channels_; ++c) sources_[size_t(c)] = buffers_[size_t(c)].data();
    return sources_.data();
  }

  bool deliver(const float* const* planes, int got) {
    size_t first = 0;
    size_t count = size_t(got);
    // Drop what lies before the requested start.
    if (position_ < skip_) {
      const int64_t drop = std::min<int64_t>(skip_ - position_, got);
      first = size_t(drop);
      count -= size_t(drop);
    }
    position_ += got;
    if (limit_ >= 0) count = std::min<size_t>(count, size_t(limit_) - delivered_);
    if (count == 0) return true;
    std::vector<const float*>& out = outPlanes_;
    if (request_.mono) {
      mono_.resize(count);
      const float scale = 1.0f / float(channels_);
      std::copy_n(planes[0] + first, count, mono_.data());
      for (int c = 1; c < channels_; ++c) {
        const float* src = planes[c] + first;
        for (size_t i = 0; i < count; ++i) mono_[i] += src[i];
      }
      if (channels_ > 1)
        for (float& x : mono_) x *= scale;
      out[0] = mono_.data();
    } else {
      for (int c = 0; c < channels_; ++c) out[size_t(c)] = planes[c] + first;
    }
    delivered_ += count;
    if (!sink_(out.data(), outChannels(), count)) stopped_ = true;
    return true;
  }

  const DecodeRequest& request_;
  const AudioSink& sink_;
  int outRate_;
  int channels_ = 0;
  int64_t skip_ = 0;
  int64_t limit_ = -1;
  int64_t position_ = 0;
  size_t delivered_ = 0;
  bool stopped_ = false;
  SwrPtr swr_;
  size_t capacity_ = 0;
  std::vector<std::vector<float>> buffers_;
  std::vector<uint8_t*> planes_;
  std::vector<float> mono_;
  std::vector<const float*> outPlanes_;
  std::vector<const float*> sources_;
};

}  // namespace

std::optional<AudioInfo> Decoder::probe(const std::filesystem::path& path) {
  auto s = open(path);
  if (!s) return std::nullopt;
  AudioInfo info;
  info.rate = s->codec->sample_rate;
  info.channels = s->codec->ch_layout.nb_channels;
  info.durationSec = declaredSeconds(s->format.get(), s->format->streams[s->index]);
  info.codec = s->codec->codec ? s->codec->codec->name : "";
  info.lossless = isLossless(s->codec->codec_id);
  return info;
}

std::optional<Decoder::StreamFormat> Decoder::stream(const std::filesystem::path& path,
                                                     const DecodeRequest& request,
                                                     const AudioSink& sink,
                                                     const std::function<void(size_t)>& onLength) {
  auto s = open(path);
  if (!s) return std::nullopt;
  AVFormatContext* format = s->format.get();
  AVStream* st = format->streams[s->index];
  AVCodecContext* codec = s->codec.get();
  Converter conv(request, sink, codec->sample_rate);
  if (onLength) {
    double seconds = declaredSeconds(format, st) - request.startSec;
    if (request.maxSeconds > 0) seconds = std::min(seconds, request.maxSeconds);
    onLength(seconds > 0 ? size_t(seconds * conv.outRate()) : 0);
  }

  bool seeked = false;
  if (request.startSec > 0) {
    // Seek a little early; the converter drops samples up to the exact start.
    const int64_t target = static_cast<int64_t>(request.startSec * AV_TIME_BASE);
    seeked = av_seek_frame(format, -1, target, AVSEEK_FLAG_BACKWARD) >= 0;
    avcodec_flush_buffers(codec);
  }
  bool positioned = !seeked;

  PacketPtr packet(av_packet_alloc());
  FramePtr frame(av_frame_alloc());
  if (!packet || !frame) return std::nullopt;

  bool failed = false;
  auto drain = [&]() {
    while (!conv.done()) {
      const int r = avcodec_receive_frame(codec, frame.get());
      if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return;
      if (r < 0) {
        failed = true;
        return;
      }
      if (!positioned) {
        // After a seek, count from where the first frame really starts.
        const int64_t pts = frame->best_effort_timestamp;
        const double at = pts == AV_NOPTS_VALUE ? 0.0 : double(pts) * av_q2d(st->time_base);
        conv.startAt(static_cast<int64_t>(std::llround(at * conv.outRate())));
        positioned = true;
      }
      const bool ok = conv.push(frame.get());
      av_frame_unref(frame.get());
      if (!ok) {
        failed = true;
        return;
      }
    }
  };

  int readError = 0;
  while (!conv.done() && !failed) {
    const int r = av_read_frame(format, packet.get());
    if (r < 0) {
      if (r != AVERROR_EOF) readError = r;
      break;
    }
    if (packet->stream_index == s->index) {
      // A damaged packet is skipped, as players do; the length check below
      // catches a file that is mostly damage.
      avcodec_send_packet(codec, packet.get());
      drain();
    }
    av_packet_unref(packet.get());
  }
  if (!conv.done() && !failed) {
    avcodec_send_packet(codec, nullptr);
    drain();
    if (!conv.done()) conv.flush();
  }
  if (failed || conv.delivered() == 0) return std::nullopt;

  // A whole-file decode far shorter than the container's exact length is a
  // cut-off file; the container's length is trusted only when it is exact.
  const bool wholeFile = request.startSec <= 0 && request.maxSeconds <= 0 && !conv.stopped();
  if (wholeFile && st->duration != AV_NOPTS_VALUE && st->duration > 0) {
    const double declared = double(st->duration) * av_q2d(st->time_base);
    if (double(conv.delivered()) < declared * conv.outRate() * kTruncatedShare) return std::nullopt;
  }
  if (readError != 0 && conv.delivered() == 0) return std::nullopt;
  return StreamFormat{conv.outRate(), conv.outChannels(), conv.delivered(), conv.stopped()};
}

std::optional<MonoAudio> Decoder::decodeMono(const std::filesystem::path& path,
                                             const DecodeRequest& request) {
  DecodeRequest r = request;
  r.mono = true;
  MonoAudio out;
  // A second of slack: declared lengths are estimates for some formats.
  const auto reserve = [&](size_t frames) {
    if (frames > 0) out.samples.reserve(frames + size_t(std::max(r.rate, 48000)));
  };
  auto format = stream(
      path, r,
      [&](const float* const* planes, int, size_t n) {
        out.samples.insert(out.samples.end(), planes[0], planes[0] + n);
        return true;
      },
      reserve);
  if (!format) return std::nullopt;
  out.rate = format->rate;
  return out;
}

std::optional<std::vector<int16_t>> Decoder::decodeMono16(const std::filesystem::path& path,
                                                          int* rate) {
  std::vector<int16_t> out;
  // The initial room for about a minute and a half at 44.1 kHz.
  out.reserve(4194304);
  auto format = stream(path, {}, [&](const float* const* planes, int, size_t n) {
    const size_t at = out.size();
    out.resize(at + n);
    for (size_t i = 0; i < n; ++i) out[at + i] = toInt16(planes[0][i]);
    return true;
  });
  if (!format) return std::nullopt;
  if (rate) *rate = format->rate;
  return out;
}

std::optional<MultiChannelAudio> Decoder::decodeChannels(const std::filesystem::path& path) {
  MultiChannelAudio out;
  DecodeRequest r;
  r.mono = false;
  auto format = stream(path, r, [&](const float* const* planes, int channels, size_t n) {
    if (out.channels.empty()) out.channels.resize(size_t(channels));
    for (int c = 0; c < channels; ++c)
      out.channels[size_t(c)].insert(out.channels[size_t(c)].end(), planes[c], planes[c] + n);
    return true;
  });
  if (!format) return std::nullopt;
  out.rate = format->rate;
  return out;
}

std::vector<float> resample(std::span<const float> mono, int fromRate, int toRate) {
  if (fromRate <= 0 || toRate <= 0) return {};
  if (fromRate == toRate) return {mono.begin(), mono.end()};
  SwrContext* raw = nullptr;
  AVChannelLayout layout = AV_CHANNEL_LAYOUT_MONO;
  if (swr_alloc_set_opts2(&raw, &layout, AV_SAMPLE_FMT_FLT, toRate, &layout, AV_SAMPLE_FMT_FLT,
                          fromRate, 0, nullptr) < 0)
    return {};
  SwrPtr swr(raw);
  if (swr_init(raw) < 0) return {};
  std::vector<float> out(size_t(double(mono.size()) * toRate / fromRate) + 256);
  const auto* in = reinterpret_cast<const uint8_t*>(mono.data());
  auto* dst = reinterpret_cast<uint8_t*>(out.data());
  const int got = swr_convert(raw, &dst, int(out.size()), &in, int(mono.size()));
  if (got < 0) return {};
  size_t total = size_t(got);
  // What the filter still holds.
  uint8_t* tail = reinterpret_cast<uint8_t*>(out.data() + total);
  const int more = swr_convert(raw, &tail, int(out.size() - total), nullptr, 0);
  if (more > 0) total += size_t(more);
  out.resize(total);
  return out;
}

void toInt16(std::span<const float> in, std::vector<int16_t>& out) {
  out.resize(in.size());
  for (size_t i = 0; i < in.size(); ++i) out[i] = toInt16(in[i]);
}

}  // namespace orvel::audio
