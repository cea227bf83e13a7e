#!/usr/bin/env python3
"""Writes a few well-formed inputs for each fuzz target.

A fuzzer that starts from bytes that already read as an ID3 tag, a Serato
object or a Serato library file reaches the deep parts of the readers in
seconds instead of hours. The inputs are built here, byte by byte, in the
layouts the readers in core/formats expect.

    fuzz/make_seeds.py [CORPUS_DIR]     (default: build/fuzz/corpus)

One folder per target inside CORPUS_DIR; existing files of the same name are
overwritten, anything else there (what the fuzzers found) is left alone.
"""

import base64
import pathlib
import struct
import sys


def u32(n):
    return struct.pack(">I", n)


def f32(x):
    return struct.pack(">f", x)


def synchsafe(n):
    return bytes([(n >> 21) & 0x7F, (n >> 14) & 0x7F, (n >> 7) & 0x7F, n & 0x7F])


# --- Serato Markers2 and BeatGrid objects -----------------------------------


def rgb(hex_colour):
    return bytes.fromhex(hex_colour)


def entry(kind, body):
    return kind.encode("ascii") + b"\0" + u32(len(body)) + body


def cue_body(index, position_ms, colour, name):
    # flag, slot, position, flag, colour, two unused bytes, then the name
    return (b"\0" + bytes([index]) + u32(position_ms) + b"\0" + rgb(colour) + b"\0\0"
            + name.encode("utf-8") + b"\0")


def loop_body(index, start_ms, end_ms, name, locked=False):
    # flag, slot, start, end, four 0xFF, a colour with its leading zero, a
    # byte, the locked flag, then the name from offset 20.
    return (b"\0" + bytes([index]) + u32(start_ms) + u32(end_ms) + b"\xff" * 4
            + b"\0" + rgb("27AAE1") + b"\0" + bytes([1 if locked else 0])
            + name.encode("utf-8") + b"\0")


def markers2_payload():
    return (b"\x01\x01"
            + entry("COLOR", b"\0" + rgb("FFFFFF"))
            + entry("CUE", cue_body(0, 0, "CC0000", ""))
            + entry("CUE", cue_body(1, 31250, "CC8800", "Drop"))
            + entry("CUE", cue_body(4, 95000, "0000CC", "Break \u00e9 \U0001f3a7"))
            + entry("LOOP", loop_body(0, 64000, 72000, "Intro loop"))
            + entry("BPMLOCK", b"\0")
            + b"\0")


def markers2_object(payload, keep_padding=False, minimum=470):
    # Serato leaves out the "=" padding, wraps lines at 72 characters and
    # pads the frame with NULs.
    text = base64.b64encode(payload)
    if not keep_padding:
        text = text.rstrip(b"=")
    lines = [text[i:i + 72] for i in range(0, len(text), 72)]
    obj = b"\x01\x01" + b"\n".join(lines)
    return obj + b"\0" * max(1, minimum - len(obj))


def beatgrid_object(markers):
    # markers: (position seconds, beats to the next marker as an integer or,
    # for the last, its BPM as a float)
    body = b"\x01\x00" + u32(len(markers))
    for i, (position, tail) in enumerate(markers):
        last = i + 1 == len(markers)
        body += f32(position) + (f32(tail) if last else u32(int(tail)))
    return body + b"\0"  # footer


# --- ID3v2 tags --------------------------------------------------------------


def id3_string(text, encoding):
    if encoding == 1:
        return b"\xff\xfe" + text.encode("utf-16-le") + b"\0\0"
    if encoding == 2:
        return text.encode("utf-16-be") + b"\0\0"
    if encoding == 3:
        return text.encode("utf-8") + b"\0"
    return text.encode("latin-1") + b"\0"


def geob_body(description, obj, encoding=0, file_name=""):
    return (bytes([encoding]) + b"application/octet-stream\0" + id3_string(file_name, encoding)
            + id3_string(description, encoding) + obj)


def unsync(data):
    out = bytearray()
    for i, b in enumerate(data):
        out.append(b)
        if b == 0xFF and (i + 1 == len(data) or data[i + 1] == 0 or data[i + 1] >= 0xE0):
            out.append(0)
    return bytes(out)


def frame(version, frame_id, body, frame_unsync=False):
    if version == 2:
        return frame_id.encode("ascii") + struct.pack(">I", len(body))[1:] + body
    flags = b"\0\x02" if frame_unsync else b"\0\0"
    if frame_unsync:
        body = unsync(body)
    size = synchsafe(len(body)) if version == 4 else u32(len(body))
    return frame_id.encode("ascii") + size + flags + body


def tag(version, frames, flags=0, padding=64, extended=b""):
    body = extended + b"".join(frames) + b"\0" * padding
    if flags & 0x80:
        body = unsync(body)
    return b"ID3" + bytes([version, 0, flags]) + synchsafe(len(body)) + body


def id3_seeds():
    markers = markers2_object(markers2_payload())
    grid = beatgrid_object([(0.05, 128.0), (60.05, 124.0)])
    title = frame(3, "TIT2", b"\x00Seed track")
    seeds = {
        "v23_markers_beatgrid": tag(3, [
            title,
            frame(3, "GEOB", geob_body("Serato Markers2", markers)),
            frame(3, "GEOB", geob_body("Serato BeatGrid", grid)),
        ]),
        "v24_utf16_description": tag(4, [
            frame(4, "TIT2", b"\x03Seed track"),
            frame(4, "GEOB", geob_body("Serato Markers2", markers, encoding=1)),
            frame(4, "GEOB", geob_body("Serato BeatGrid", grid, encoding=3), frame_unsync=True),
        ]),
        "v23_unsync_extended": tag(3, [
            frame(3, "GEOB", geob_body("Serato BeatGrid", beatgrid_object([(0.0, 140.0)]))),
        ], flags=0x80 | 0x40, extended=u32(6) + b"\0\0" + u32(0)),
        "v22_geo": tag(2, [
            frame(2, "TT2", b"\x00Seed track"),
            frame(2, "GEO", geob_body("Serato Markers2", markers, encoding=0, file_name="m")),
        ]),
    }
    return seeds


def markers_seeds():
    payload = markers2_payload()
    return {
        "markers2_object": markers2_object(payload),
        "markers2_object_padded": markers2_object(payload, keep_padding=True, minimum=0),
        "markers2_entries": payload,
        "beatgrid_one": beatgrid_object([(0.0, 120.0)]),
        "beatgrid_three": beatgrid_object([(0.1, 64.0), (30.1, 32.0), (45.3, 126.5)]),
        "cue_body": cue_body(2, 120000, "00CC00", "Vocal"),
        "loop_body": loop_body(1, 1000, 9000, "Loop"),
    }


# --- Serato payloads in other containers ----------------------------------------


def envelope(description, obj):
    # base64 without "=", a line break every 72 characters
    text = base64.b64encode(b"application/octet-stream\0\0" + description.encode("ascii")
                            + b"\0" + obj).rstrip(b"=")
    return b"\n".join(text[i:i + 72] for i in range(0, len(text), 72))


def vorbis_comments(comments):
    out = struct.pack("<I", 4) + b"seed" + struct.pack("<I", len(comments))
    for key, value in comments:
        item = key.encode("ascii") + b"=" + value
        out += struct.pack("<I", len(item)) + item
    return out


def ogg_page(flags, sequence, packet):
    lacing = [255] * (len(packet) // 255) + [len(packet) % 255]
    return (b"OggS\0" + bytes([flags]) + b"\0" * 8 + struct.pack("<III", 7, sequence, 0)
            + bytes([len(lacing)]) + bytes(lacing) + packet)


def box(kind, body):
    return u32(len(body) + 8) + kind.encode("ascii") + body


def container_seeds():
    markers = markers2_object(markers2_payload(), minimum=0)
    grid = beatgrid_object([(0.25, 64), (30.25, 124.0)])
    m = envelope("Serato Markers2", markers)
    g = envelope("Serato BeatGrid", grid)
    comments = vorbis_comments([("SERATO_MARKERS_V2", m), ("SERATO_BEATGRID", g)])
    flac = (b"fLaC\x00\0\0\x22" + b"\x11" * 34 + b"\x84" + struct.pack(">I", len(comments))[1:]
            + comments + b"\xff\xf8")
    ogg = (ogg_page(2, 0, b"\x01vorbis" + b"\0" * 23)
           + ogg_page(0, 1, b"\x03vorbis" + vorbis_comments([("serato_markers2", m),
                                                            ("serato_beatgrid", g)]) + b"\x01"))
    items = b"".join(box("----", box("mean", b"\0" * 4 + b"com.serato.dj")
                         + box("name", b"\0" * 4 + name) + box("data", u32(1) + b"\0" * 4 + value))
                     for name, value in ((b"markersv2", m), (b"beatgrid", g)))
    meta = box("meta", b"\0" * 4 + box("hdlr", b"\0" * 8 + b"mdirappl" + b"\0" * 9)
               + box("ilst", items))
    mp4 = box("ftyp", b"M4A \0\0\0\0") + box("moov", box("udta", meta)) + box("mdat", b"\0" * 8)
    id3 = tag(4, [frame(4, "GEOB", geob_body("Serato Markers2", markers)),
                  frame(4, "GEOB", geob_body("Serato BeatGrid", grid))], padding=0)
    pad = b"\0" if len(id3) % 2 else b""
    aiff_chunks = b"COMM" + u32(18) + b"\0" * 18 + b"ID3 " + u32(len(id3)) + id3 + pad
    aiff = b"FORM" + u32(len(aiff_chunks) + 4) + b"AIFF" + aiff_chunks
    wav = riff_chunk("RIFF", b"WAVE" + riff_chunk("fmt ", wav_fmt(1, 2, 44100, 16))
                     + riff_chunk("id3 ", id3))
    return {"flac": flac, "ogg": ogg, "m4a": mp4, "aiff": aiff, "wav": wav,
            "mp3": id3 + b"\xff\xfb\x90\x00"}


# --- Serato library files ----------------------------------------------------


def tlv(name, payload):
    return name.encode("ascii") + u32(len(payload)) + payload


def text(name, value):
    return tlv(name, value.encode("utf-16-be"))


def number(name, value):
    return tlv(name, u32(value))


def database():
    track_a = (text("ttyp", "mp3") + text("pfil", "Users/dj/Music/House/a.mp3")
               + text("tsng", "Seed Title") + text("tart", "Seed Artist")
               + text("talb", "Album") + text("tgen", "House") + text("tbpm", "124.00")
               + text("tkey", "Am") + text("tlen", "06:12.50") + number("uadd", 1700000000)
               + tlv("bmis", b"\0") + tlv("sbav", b"\x01\x02"))
    track_b = (text("pfil", "/Volumes/Crate/B\u00e9b\u00e9 \U0001f3b5.flac") + text("tsng", "Two")
               + text("tart", "Artist \u00c9") + number("uadd", 1600000000))
    no_path = text("tsng", "No file") + number("uadd", 1)
    return (text("vrsn", "2.0/Serato Scratch LIVE Database") + tlv("otrk", track_a)
            + tlv("otrk", track_b) + tlv("otrk", no_path))


def crate():
    columns = tlv("ovct", text("tvcn", "song") + text("tvcw", "0"))
    return (text("vrsn", "1.0/Serato ScratchLive Crate") + tlv("osrt", text("tvcn", "bpm")
                                                               + tlv("brev", b"\0"))
            + columns + tlv("otrk", text("ptrk", "Users/dj/Music/House/a.mp3"))
            + tlv("otrk", text("ptrk", "/Volumes/Crate/B\u00e9b\u00e9.flac")))


def smart_crate():
    bpm = tlv("rurt", number("urkt", 15) + text("trft", "cond_greq_uint") + number("urpt", 124))
    artist = tlv("rurt", number("urkt", 7) + text("trft", "cond_con_str")
                 + text("trpt", "Daft Punk"))
    unknown = tlv("rurt", number("urkt", 99) + text("trft", "cond_new_kind") + tlv("urpt", b"\0"))
    return (text("vrsn", "1.0/Serato ScratchLive Smart Crate") + tlv("rart", tlv("brut", b"\x01"))
            + tlv("rlut", tlv("brut", b"\x00")) + bpm + artist + unknown)


def tlv_seeds():
    return {
        "database_v2": database(),
        "crate": crate(),
        "smart_crate": smart_crate(),
        "nested": tlv("otrk", tlv("otrk", tlv("otrk", text("ptrk", "deep")))),
    }


def encoding_seeds():
    sample = "Caf\u00e9 \U0001f3a7 \u00c9t\u00e9"
    return {
        "utf16_be": sample.encode("utf-16-be"),
        "utf16_bom_le": b"\xff\xfe" + sample.encode("utf-16-le"),
        "utf16_bom_be": b"\xfe\xff" + sample.encode("utf-16-be"),
        "utf8": sample.encode("utf-8"),
        "latin1": "D\u00e9j\u00e0 vu".encode("latin-1"),
        "base64": base64.b64encode(b"\x01\x01CUE\0"),
        "base64_one_pad": base64.b64encode(b"ab"),
    }


# --- WAV files for orvel-keyfinder ---------------------------------------------


def riff_chunk(name, body):
    pad = b"\0" if len(body) % 2 else b""
    return name.encode("ascii") + struct.pack("<I", len(body)) + body + pad


def wav_file(fmt_body, data, extra=b""):
    chunks = extra + riff_chunk("fmt ", fmt_body) + riff_chunk("data", data)
    return riff_chunk("RIFF", b"WAVE" + chunks)


def wav_fmt(tag, channels, rate, bits):
    block = channels * bits // 8
    return struct.pack("<HHIIHH", tag, channels, rate, rate * block, block, bits)


def wav_seeds():
    guid_tail = bytes.fromhex("000000001000800000aa00389b71")
    extensible = wav_fmt(0xFFFE, 2, 48000, 24) + struct.pack("<HHIH", 22, 24, 3, 1) + guid_tail
    return {
        "pcm16_stereo": wav_file(wav_fmt(1, 2, 44100, 16),
                                 struct.pack("<8h", 0, 1, -1, 300, -300, 32767, -32768, 5)),
        "float_mono": wav_file(wav_fmt(3, 1, 44100, 32),
                               struct.pack("<4f", 0.0, 0.5, -0.25, 1.0)),
        "pcm24_extensible": wav_file(extensible, bytes(range(24))),
        "pcm32_with_list": wav_file(wav_fmt(1, 1, 22050, 32), struct.pack("<3i", 1, -1, 1 << 30),
                                    riff_chunk("LIST", b"INFOISFT\x03\0\0\0ab\0")),
    }


def music_xml_seeds():
    # The library XML Music exports, written by plistlib as Music writes it.
    import plistlib
    library = {
        "Major Version": 1, "Minor Version": 1, "Application Version": "1.4",
        "Music Folder": "file:///Users/dj/Music/Music/Media/",
        "Tracks": {
            "101": {"Track ID": 101, "Name": "Nachtflug", "Artist": "Zoë", "Album": "Ä",
                    "Persistent ID": "00AB34CD56EF7890", "Play Count": 7, "Rating": 80,
                    "Loved": True, "Total Time": 301000, "Start Time": 1200, "Stop Time": 299000,
                    "Date Added": __import__("datetime").datetime(2024, 3, 1, 10, 0, 0),
                    "Location": "file:///Users/dj/Music/Zo%C3%AB/Nacht%20flug.mp3"},
            "102": {"Track ID": 102, "Name": "Clip", "Persistent ID": "1A2B3C4D5E6F7081",
                    "Has Video": True, "Music Video": True, "Disliked": True,
                    "Location": "file:///Users/dj/Movies/clip.m4v"},
        },
        "Playlists": [
            {"Name": "Library", "Master": True, "Playlist ID": 1,
             "Playlist Persistent ID": "0000000000000001", "Visible": False,
             "Playlist Items": [{"Track ID": 101}, {"Track ID": 102}]},
            {"Name": "Music", "Distinguished Kind": 4, "Playlist ID": 2,
             "Playlist Persistent ID": "0000000000000002"},
            {"Name": "Sets", "Folder": True, "Playlist ID": 3,
             "Playlist Persistent ID": "00000000000000F0"},
            {"Name": "Warm-up", "Playlist ID": 4, "Playlist Persistent ID": "00000000000000F1",
             "Parent Persistent ID": "00000000000000F0",
             "Playlist Items": [{"Track ID": 102}, {"Track ID": 101}]},
        ],
    }
    return {"library": plistlib.dumps(library, fmt=plistlib.FMT_XML),
            "empty": plistlib.dumps({}, fmt=plistlib.FMT_XML)}


def main(argv):
    root = pathlib.Path(__file__).resolve().parent.parent
    out = pathlib.Path(argv[1]) if len(argv) > 1 else root / "build" / "fuzz" / "corpus"
    targets = {
        "id3_fuzz": id3_seeds(),
        "serato_markers_fuzz": markers_seeds(),
        "serato_tlv_fuzz": tlv_seeds(),
        "encoding_fuzz": encoding_seeds(),
        "wav_reader_fuzz": wav_seeds(),
        "music_xml_fuzz": music_xml_seeds(),
        "serato_containers_fuzz": container_seeds(),
    }
    for target, seeds in targets.items():
        folder = out / target
        folder.mkdir(parents=True, exist_ok=True)
        for name, data in seeds.items():
            (folder / ("seed_" + name)).write_bytes(data)
    print(f"seeds written to {out}", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
