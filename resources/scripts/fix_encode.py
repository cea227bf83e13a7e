#!/usr/bin/env python3
"""Encodes a repaired track into the format of the file it was repaired from.

    fix_encode.py MENDED SOURCE OUTPUT

MENDED is the repaired audio (any file the `ffmpeg` program reads; Orvel
hands over a 24-bit AIFF), SOURCE the user's original, OUTPUT the copy to
write. OUTPUT's extension names the format (mp3, m4a, flac, wav, aiff/aif,
ogg); the copy keeps SOURCE's sample rate, channels, bitrate or bit depth and
tags, and stays lossless when SOURCE is lossless. OUTPUT is never
overwritten: the copy is written under a temporary name beside it and moved
into place only when OUTPUT does not exist.

Prints "lossless" or "lossy" on success.
Exit status: 0 written, 1 failed (one line on stderr saying why), 2 bad usage.
"""

import json
import os
import shutil
import subprocess
import sys
import tempfile

USAGE = "usage: fix_encode.py MENDED SOURCE OUTPUT"

# The bitrates an MP3 frame header can name; LAME takes only these.
MP3_KBPS = (32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320)


class EncodeError(Exception):
    """A failure the user is told about in one line."""


def tool(name):
    found = shutil.which(name)
    if found is None:
        raise EncodeError(f"the {name} program is not installed")
    return found


def probe(source):
    command = [
        tool("ffprobe"), "-v", "error", "-select_streams", "a:0",
        "-show_entries",
        "stream=codec_name,sample_rate,channels,bit_rate,bits_per_raw_sample,"
        "bits_per_sample,sample_fmt:format=bit_rate",
        "-of", "json", source,
    ]
    try:
        done = subprocess.run(command, capture_output=True, text=True, check=False)
    except OSError as error:
        raise EncodeError(f"cannot run ffprobe: {error.strerror or error}") from None
    if done.returncode != 0:
        raise EncodeError(f"cannot read {source}: {last_line(done.stderr)}")
    try:
        info = json.loads(done.stdout)
        stream = info["streams"][0]
    except (ValueError, KeyError, IndexError):
        raise EncodeError(f"no audio stream in {source}") from None
    stream["format_bit_rate"] = info.get("format", {}).get("bit_rate")
    return stream


def last_line(text):
    lines = [line.strip() for line in text.splitlines() if line.strip()]
    return lines[-1] if lines else "no reason given"


def number(value):
    try:
        return int(value)
    except (TypeError, ValueError):
        return 0


def bit_depth(stream):
    # Decoders report the stored depth in one field or the other; a 24-bit
    # file decodes to 32-bit samples, so the sample format alone misleads.
    depth = number(stream.get("bits_per_raw_sample")) or number(stream.get("bits_per_sample"))
    if depth:
        return depth
    fmt = stream.get("sample_fmt", "")
    return {"u8": 8, "s16": 16, "s16p": 16, "s32": 32, "s32p": 32}.get(fmt, 16)


def is_float_pcm(stream):
    return stream.get("codec_name", "").startswith("pcm_f") or stream.get("sample_fmt", "") in (
        "flt", "fltp", "dbl", "dblp")


def kbps(stream, fallback):
    bits = number(stream.get("bit_rate")) or number(stream.get("format_bit_rate"))
    return round(bits / 1000) if bits else fallback


def pcm_codec(stream, endian):
    depth = bit_depth(stream)
    if is_float_pcm(stream):
        return f"pcm_f{64 if depth == 64 else 32}{endian}"
    if depth <= 8:
        # WAV's 8-bit samples are unsigned, AIFF's signed.
        return "pcm_u8" if endian == "le" else "pcm_s8"
    return f"pcm_s{16 if depth <= 16 else 24 if depth <= 24 else 32}{endian}"


def codec_args(extension, stream):
    """The encoder options for OUTPUT's format, and whether the copy is lossless."""
    codec = stream.get("codec_name", "")
    if extension == ".mp3":
        rate = min(MP3_KBPS, key=lambda k: abs(k - kbps(stream, 320)))
        return ["-c:a", "libmp3lame", "-b:a", f"{rate}k"], False
    if extension in (".m4a", ".mp4", ".aac"):
        if codec == "alac":
            fmt = "s16p" if bit_depth(stream) <= 16 else "s32p"
            return ["-c:a", "alac", "-sample_fmt", fmt], True
        return ["-c:a", "aac", "-b:a", f"{kbps(stream, 256)}k"], False
    if extension == ".flac":
        fmt = "s16" if bit_depth(stream) <= 16 else "s32"
        return ["-c:a", "flac", "-sample_fmt", fmt], True
    if extension == ".wav":
        return ["-c:a", pcm_codec(stream, "le")], True
    if extension in (".aiff", ".aif"):
        # Tags of an AIFF live in an ID3 chunk, which FFmpeg writes on request.
        return ["-c:a", pcm_codec(stream, "be"), "-write_id3v2", "1"], True
    if extension == ".ogg":
        bits = kbps(stream, 0)
        quality = ["-b:a", f"{bits}k"] if bits else ["-q:a", "6"]
        return ["-c:a", "libvorbis", *quality], False
    raise EncodeError(f"cannot write {extension or 'extension-less'} files")


def encode(mended, source, output):
    for path in (mended, source):
        if not os.path.isfile(path):
            raise EncodeError(f"no file at {path}")
    if os.path.lexists(output):
        raise EncodeError(f"will not overwrite {output}")
    extension = os.path.splitext(output)[1].lower()
    stream = probe(source)
    args, lossless = codec_args(extension, stream)

    folder = os.path.dirname(os.path.abspath(output))
    fd, temp = tempfile.mkstemp(prefix=".orvel-fix-", suffix=extension, dir=folder)
    os.close(fd)
    command = [
        tool("ffmpeg"), "-nostdin", "-hide_banner", "-v", "error", "-y",
        "-i", mended, "-i", source,
        "-map", "0:a:0", "-map_metadata", "1",
        # Ogg keeps its comments on the stream, not the file.
        *(["-map_metadata:s:a:0", "1:s:a:0"] if extension == ".ogg" else []),
        *args,
    ]
    if number(stream.get("sample_rate")):
        command += ["-ar", str(number(stream["sample_rate"]))]
    if number(stream.get("channels")):
        command += ["-ac", str(number(stream["channels"]))]
    command.append(temp)
    try:
        try:
            done = subprocess.run(command, capture_output=True, text=True, check=False)
        except OSError as error:
            raise EncodeError(f"cannot run ffmpeg: {error.strerror or error}") from None
        if done.returncode != 0:
            raise EncodeError(f"ffmpeg could not encode {output}: {last_line(done.stderr)}")
        # mkstemp makes the file private; the copy is as readable as its source.
        shutil.copymode(source, temp)
        place(temp, output)
    finally:
        if os.path.lexists(temp):
            os.unlink(temp)
    return lossless


def place(temp, output):
    # A hard link fails when the name is taken, so a copy made meanwhile by
    # someone else is never replaced. Drives formatted for DJ players (FAT,
    # exFAT) have no hard links; there the name is checked just before.
    try:
        os.link(temp, output)
        return
    except FileExistsError:
        raise EncodeError(f"will not overwrite {output}") from None
    except OSError:
        pass
    if os.path.lexists(output):
        raise EncodeError(f"will not overwrite {output}")
    try:
        os.rename(temp, output)
    except OSError as error:
        raise EncodeError(f"cannot write {output}: {error.strerror or error}") from None


def main(argv=None):
    args = sys.argv[1:] if argv is None else argv
    if len(args) != 3 or any(not a for a in args):
        print(USAGE, file=sys.stderr)
        return 2
    try:
        lossless = encode(*args)
    except EncodeError as error:
        print(str(error), file=sys.stderr)
        return 1
    except OSError as error:
        print(f"cannot write the copy: {error.strerror or error}", file=sys.stderr)
        return 1
    print("lossless" if lossless else "lossy")
    return 0


if __name__ == "__main__":
    sys.exit(main())
