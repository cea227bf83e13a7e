#include "core/testing/audio_files.h"

#include <aifffile.h>
#include <commentsframe.h>
#include <flacfile.h>
#include <id3v2tag.h>
#include <mp4file.h>
#include <mpegfile.h>
#include <textidentificationframe.h>
#include <vorbisfile.h>
#include <wavfile.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "core/testing/temp_dir.h"

namespace fs = std::filesystem;

namespace orvel::testing {
namespace {

struct Encoding {
  std::string_view ext;
  std::string_view args;  // ffmpeg output options
};

Encoding encodingFor(AudioFormat f) {
  switch (f) {
    case AudioFormat::mp3:
      return {"mp3", "-c:a libmp3lame -b:a 128k -id3v2_version 0 -write_id3v1 0"};
    case AudioFormat::m4a:
      return {"m4a", "-c:a aac -b:a 128k -f ipod"};
    case AudioFormat::alac:
      return {"m4a", "-c:a alac -f ipod"};
    case AudioFormat::aac:
      return {"aac", "-c:a aac -b:a 128k -f adts"};
    case AudioFormat::flac:
      return {"flac", "-c:a flac"};
    case AudioFormat::wav:
      return {"wav", "-c:a pcm_s16le"};
    case AudioFormat::aiff:
      return {"aiff", "-c:a pcm_s16be -write_id3v2 0"};
    case AudioFormat::ogg:
      return {"ogg", "-c:a libvorbis -q:a 2"};
  }
  return {"bin", ""};
}

// The encoded tones, made once per process and per format.
class ToneCache {
 public:
  fs::path get(AudioFormat f) {
    std::lock_guard lock(mutex_);
    auto it = made_.find(f);
    if (it != made_.end()) return it->second;
    const Encoding e = encodingFor(f);
    const fs::path out =
        dir_ / ("tone" + std::to_string(static_cast<int>(f)) + "." + std::string(e.ext));
    const std::string cmd =
        "ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi "
        "-i 'sine=frequency=440:sample_rate=44100:duration=2' -ac 2 -map_metadata -1 "
        "-fflags +bitexact " +
        std::string(e.args) + " '" + out.string() + "'";
    if (std::system(cmd.c_str()) != 0 || !fs::exists(out))
      throw std::runtime_error("cannot encode a test tone with the ffmpeg program: " + cmd);
    made_.emplace(f, out);
    return out;
  }

 private:
  std::mutex mutex_;
  TempDir dir_;
  std::map<AudioFormat, fs::path> made_;
};

ToneCache& tones() {
  static ToneCache cache;
  return cache;
}

TagLib::String str(const std::string& s) {
  return TagLib::String(s, TagLib::String::UTF8);
}

void setFrame(TagLib::ID3v2::Tag& tag, const char* id, const std::optional<std::string>& value) {
  if (!value) return;
  tag.removeFrames(id);
  auto frame = std::make_unique<TagLib::ID3v2::TextIdentificationFrame>(TagLib::ByteVector(id),
                                                                        TagLib::String::UTF8);
  frame->setText(str(*value));
  tag.addFrame(frame.release());  // the tag owns its frames
}

void setID3(TagLib::ID3v2::Tag& tag, const AudioTags& t) {
  setFrame(tag, "TIT2", t.title);
  setFrame(tag, "TPE1", t.artist);
  setFrame(tag, "TALB", t.album);
  setFrame(tag, "TCON", t.genre);
  setFrame(tag, t.id3v23 ? "TYER" : "TDRC", t.year);
  setFrame(tag, "TIT1", t.grouping);
  setFrame(tag, "TPUB", t.publisher);
  setFrame(tag, "TBPM", t.bpm);
  setFrame(tag, "TKEY", t.key);
  if (t.comment) {
    auto c = std::make_unique<TagLib::ID3v2::CommentsFrame>(TagLib::String::UTF8);
    c->setLanguage("eng");
    c->setText(str(*t.comment));
    tag.addFrame(c.release());
  }
}

void setMP4(TagLib::MP4::Tag& tag, const AudioTags& t) {
  auto set = [&](const char* name, const std::optional<std::string>& v) {
    if (v) tag.setItem(name, TagLib::StringList(str(*v)));
  };
  set("\251nam", t.title);
  set("\251ART", t.artist);
  set("\251alb", t.album);
  set("\251gen", t.genre);
  set("\251day", t.year);
  set("\251cmt", t.comment);
  set("\251grp", t.grouping);
  set("----:com.apple.iTunes:LABEL", t.publisher);
  set("----:com.apple.iTunes:initialkey", t.key);
  if (t.bpm) tag.setItem("tmpo", TagLib::MP4::Item(std::atoi(t.bpm->c_str())));
}

void setXiph(TagLib::Ogg::XiphComment& tag, const AudioTags& t) {
  auto set = [&](const char* name, const std::optional<std::string>& v) {
    if (v) tag.addField(name, str(*v));
  };
  set("TITLE", t.title);
  set("ARTIST", t.artist);
  set("ALBUM", t.album);
  set("GENRE", t.genre);
  set("DATE", t.year);
  set("COMMENT", t.comment);
  set("GROUPING", t.grouping);
  set("LABEL", t.publisher);
  set("BPM", t.bpm);
  set("INITIALKEY", t.key);
}

bool writeTags(const fs::path& path, AudioFormat f, const AudioTags& t) {
  const auto id3Version = t.id3v23 ? TagLib::ID3v2::v3 : TagLib::ID3v2::v4;
  switch (f) {
    case AudioFormat::mp3:
    case AudioFormat::aac: {
      TagLib::MPEG::File file(path.c_str());
      setID3(*file.ID3v2Tag(true), t);
      return file.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripOthers, id3Version);
    }
    case AudioFormat::m4a:
    case AudioFormat::alac: {
      TagLib::MP4::File file(path.c_str());
      setMP4(*file.tag(), t);
      return file.save();
    }
    case AudioFormat::flac: {
      TagLib::FLAC::File file(path.c_str());
      setXiph(*file.xiphComment(true), t);
      return file.save();
    }
    case AudioFormat::ogg: {
      TagLib::Ogg::Vorbis::File file(path.c_str());
      setXiph(*file.tag(), t);
      return file.save();
    }
    case AudioFormat::wav: {
      TagLib::RIFF::WAV::File file(path.c_str());
      setID3(*file.ID3v2Tag(), t);
      return file.save(TagLib::RIFF::WAV::File::ID3v2, TagLib::File::StripOthers, id3Version);
    }
    case AudioFormat::aiff: {
      TagLib::RIFF::AIFF::File file(path.c_str());
      setID3(*file.tag(), t);
      return file.save(id3Version);
    }
  }
  return false;
}

bool hasTags(const AudioTags& t) {
  return t.title || t.artist || t.album || t.genre || t.year || t.comment || t.grouping ||
         t.publisher || t.bpm || t.key;
}

}  // namespace

std::string_view extensionFor(AudioFormat format) {
  return encodingFor(format).ext;
}

void writeAudioFile(const fs::path& path, AudioFormat format, const AudioTags& tags) {
  const fs::path tone = tones().get(format);
  if (path.has_parent_path()) fs::create_directories(path.parent_path());
  fs::copy_file(tone, path, fs::copy_options::overwrite_existing);
  if (hasTags(tags) && !writeTags(path, format, tags))
    throw std::runtime_error("cannot write test tags into " + path.string());
}

void encodeAudioFile(const fs::path& wav, const fs::path& path, std::string_view ffmpegOptions) {
  if (path.has_parent_path()) fs::create_directories(path.parent_path());
  const std::string cmd = "ffmpeg -nostdin -hide_banner -loglevel error -y -i '" + wav.string() +
                          "' -map_metadata -1 -fflags +bitexact " + std::string(ffmpegOptions) +
                          " '" + path.string() + "'";
  if (std::system(cmd.c_str()) != 0 || !fs::exists(path))
    throw std::runtime_error("cannot encode test audio with the ffmpeg program: " + cmd);
}

void writeAudioFileFrom(const fs::path& wav, const fs::path& path, AudioFormat format,
                        const AudioTags& tags) {
  encodeAudioFile(wav, path, encodingFor(format).args);
  if (hasTags(tags) && !writeTags(path, format, tags))
    throw std::runtime_error("cannot write test tags into " + path.string());
}

std::string audioBody(AudioFormat format) {
  std::ifstream in(tones().get(format), std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

}  // namespace orvel::testing
