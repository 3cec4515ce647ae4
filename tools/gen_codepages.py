#!/usr/bin/env python3
"""Generates support/qfs_codepage_tables.cpp: the 20 OEM code pages of FAT names.

Usage: python3 tools/gen_codepages.py [output path]

Needs Python 3 and glibc's iconv (called through ctypes); the generated file
is committed, so building the library needs neither. Run it again only when
a table has to change, and commit the result.

Where the values come from
--------------------------
Single-byte pages 437, 737, 775, 850, 852, 855, 857, 860-866, 869, 874:
  glibc iconv (CP437 ... CP874), byte by byte. Python's codecs give the same
  256-entry tables for all sixteen; the generator checks that they agree.
  Reverse tables (0x00-0x7F plus every mapped high byte) come out at 256
  entries, 250 for 864, 247 for 869 and 225 for 874.

  857 is the exception: both sources leave 0xD5, 0xE7 and 0xF2 unmapped,
  which gives 253 entries where the table must hold 254. The missing entry
  is the euro sign: IBM's euro revision of code page 857 put U+20AC at 0xD5
  (the position the euro also took in 858, the euro revision of 850). We add
  0xD5 -> U+20AC; 0xE7 and 0xF2 stay unmapped.

  864: both sources map 0x25 to U+066A ARABIC PERCENT SIGN (IBM's glyph for
  that position), so U+0025 has no byte in 864 and U+066A goes to 0x25.

Multi-byte pages 932, 936, 949, 950:
  glibc iconv (CP932, CP936, CP949, CP950). Counting rule:
  - single bytes: 0x00-0x7F and every high byte that decodes on its own to
    one character, except C1 controls (U+0080-U+009F; 950 decodes 0x80 to
    U+0080) and private-use values (U+E000-U+F8FF); a left-out byte stays 0
    in the main table, so it converts as unmappable and survives a round
    trip as U+F300 + byte instead of as a control character;
  - multi-byte table: every lead (0x80-0xFF, not a single byte) and trail
    (0x00-0xFF) pair that decodes to exactly one character outside the
    private-use area U+E000-U+F8FF (the end-user-defined rows are left out);
  - reverse table: the distinct UTF-16 values of both.
  This reproduces all eight sizes the tables must have (multi-byte 7,724,
  21,791, 17,048, 13,503; reverse 7,517, 21,920, 17,176, 13,621).
  Python's codecs do not: cp932 also decodes 0x80, 0xA0 and 0xFD-0xFF,
  cp936 lacks 0x80 (the euro sign), cp950 adds the rows C6A1-C8FE.

Several sequences for one character (reverse table picks one):
  932: 396 characters have two or three sequences, because Microsoft's
  code page 932 carries the NEC special characters (row 0x87), the IBM
  extensions (rows 0xFA-0xFC) and NEC's copy of the IBM extensions (rows
  0xED-0xEE) side by side with JIS X 0208. Rule: the lowest sequence outside
  rows 0xED-0xEE. In effect JIS X 0208 first, then NEC row 13, then the IBM
  rows, and NEC's copy of the IBM rows never (it only duplicates). This is
  what Windows writes for these characters, and glibc's encoder agrees on all
  396 (checked below); Python's cp932 takes the lowest sequence and so picks
  rows 0xED-0xEE instead of 0xFA-0xFC (it agrees on only 23). Examples:
  U+2252 -> 81E0 (not 8790), U+2160 -> 8754 (not FA4A), U+2170 -> FA40 (not
  EEEF), U+FFE2 -> 81CA (not EEF9, FA54), U+7E8A -> FA5C (not ED40).
  950: 10 characters have two sequences. Rule: the lowest sequence outside
  the ETEN box-drawing row 0xF9 and the radical-area copies A2CC and A2CE,
  so U+2550 -> A2A4 (not F9F9), U+5341 -> A451 (not A2CC), U+5345 -> A4CA
  (not A2CE). glibc's and Python's encoders both agree (checked below).
  936 and 949 have no such characters.

IBM PC graphics characters:
  Neither source carries the glyphs that the IBM PC shows for the control
  positions 0x01-0x1F and 0x7F; they are written out below from the
  published IBM PC character set. Code page 864 shows different glyphs at
  0x01-0x0F: its upper half has Arabic forms where the other pages have the
  double-line box-drawing characters, so those live in the control range:
  0x01 smiling face, 0x02-0x03 musical notes, 0x04 sun, 0x05-0x0F the eleven
  double-line box-drawing characters. 0x10-0x1F and 0x7F are as in 437.
  (Microsoft's data file for code page 864 maps the same characters to the
  same bytes as best-fit entries.)

  The graphics reverse table has one entry per control position, 0x00-0x1F
  and 0x7F: exactly the bytes that a graphics hit may produce when text is
  converted back (33 entries). Position 0x00 has no glyph and keeps U+0000.
"""

import ctypes
import ctypes.util
import os
import sys
from collections import defaultdict

SINGLE_BYTE_PAGES = [437, 737, 775, 850, 852, 855, 857, 860, 861, 862, 863, 864, 865, 866, 869, 874]
MULTI_BYTE_PAGES = [932, 936, 949, 950]

# Sizes the tables must have.
EXPECTED_REVERSE = {857: 254, 864: 250, 869: 247, 874: 225,
                    932: 7517, 936: 21920, 949: 17176, 950: 13621}
EXPECTED_MULTIBYTE = {932: 7724, 936: 21791, 949: 17048, 950: 13503}
EXPECTED_DUPLICATES = {932: 396, 936: 0, 949: 0, 950: 10}

# Deliberate additions to what iconv decodes.
CORRECTIONS = {857: {0xD5: 0x20AC}}  # euro revision of 857

PAGE_NAMES = {
    437: "IBM PC, United States", 737: "Greek", 775: "Baltic", 850: "Western European",
    852: "Central European", 855: "Cyrillic", 857: "Turkish", 860: "Portuguese",
    861: "Icelandic", 862: "Hebrew", 863: "Canadian French", 864: "Arabic",
    865: "Nordic", 866: "Russian", 869: "Modern Greek", 874: "Thai",
    932: "Japanese, Shift JIS with NEC and IBM extensions", 936: "Simplified Chinese, GBK",
    949: "Korean, Unified Hangul Code", 950: "Traditional Chinese, Big5",
}

# IBM PC graphics characters of the control positions (all pages but 864).
GRAPHICS_IBM_PC = {
    0x01: 0x263A,  # white smiling face
    0x02: 0x263B,  # black smiling face
    0x03: 0x2665,  # heart
    0x04: 0x2666,  # diamond
    0x05: 0x2663,  # club
    0x06: 0x2660,  # spade
    0x07: 0x2022,  # bullet
    0x08: 0x25D8,  # inverse bullet
    0x09: 0x25CB,  # white circle
    0x0A: 0x25D9,  # inverse white circle
    0x0B: 0x2642,  # male sign
    0x0C: 0x2640,  # female sign
    0x0D: 0x266A,  # eighth note
    0x0E: 0x266B,  # beamed eighth notes
    0x0F: 0x263C,  # sun with rays
    0x10: 0x25BA,  # right-pointing pointer
    0x11: 0x25C4,  # left-pointing pointer
    0x12: 0x2195,  # up down arrow
    0x13: 0x203C,  # double exclamation mark
    0x14: 0x00B6,  # pilcrow
    0x15: 0x00A7,  # section sign
    0x16: 0x25AC,  # black rectangle
    0x17: 0x21A8,  # up down arrow with base
    0x18: 0x2191,  # up arrow
    0x19: 0x2193,  # down arrow
    0x1A: 0x2192,  # right arrow
    0x1B: 0x2190,  # left arrow
    0x1C: 0x221F,  # right angle
    0x1D: 0x2194,  # left right arrow
    0x1E: 0x25B2,  # up-pointing triangle
    0x1F: 0x25BC,  # down-pointing triangle
    0x7F: 0x2302,  # house
}

# Code page 864 replaces 0x01-0x0F; the rest is as above.
GRAPHICS_864 = dict(GRAPHICS_IBM_PC)
GRAPHICS_864.update({
    0x01: 0x263A,  # white smiling face
    0x02: 0x266A,  # eighth note
    0x03: 0x266B,  # beamed eighth notes
    0x04: 0x263C,  # sun with rays
    0x05: 0x2550,  # double horizontal
    0x06: 0x2551,  # double vertical
    0x07: 0x256C,  # double vertical and horizontal
    0x08: 0x2563,  # double vertical and left
    0x09: 0x2566,  # double down and horizontal
    0x0A: 0x2560,  # double vertical and right
    0x0B: 0x2569,  # double up and horizontal
    0x0C: 0x2557,  # double down and left
    0x0D: 0x2554,  # double down and right
    0x0E: 0x255A,  # double up and right
    0x0F: 0x255D,  # double up and left
})

CONTROL_POSITIONS = list(range(0x20)) + [0x7F]


# --- glibc iconv through ctypes ---------------------------------------------

_libc = ctypes.CDLL(ctypes.util.find_library("c"), use_errno=True)
_libc.iconv_open.restype = ctypes.c_void_p
_libc.iconv_open.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
_libc.iconv.restype = ctypes.c_size_t
_libc.iconv.argtypes = [ctypes.c_void_p, ctypes.POINTER(ctypes.c_char_p), ctypes.POINTER(ctypes.c_size_t),
                        ctypes.POINTER(ctypes.c_char_p), ctypes.POINTER(ctypes.c_size_t)]
_libc.iconv_close.argtypes = [ctypes.c_void_p]
_FAILED = ctypes.c_size_t(-1).value


class Iconv:
    """One glibc conversion; calling it converts a whole input or returns None."""

    def __init__(self, to_code, from_code):
        self.handle = _libc.iconv_open(to_code.encode(), from_code.encode())
        if self.handle is None or self.handle == ctypes.c_void_p(-1).value:
            sys.exit(f"glibc iconv cannot convert {from_code} to {to_code}")

    def __call__(self, data):
        _libc.iconv(self.handle, None, None, None, None)
        in_buffer = ctypes.create_string_buffer(data, len(data))
        in_pointer = ctypes.c_char_p(ctypes.addressof(in_buffer))
        in_left = ctypes.c_size_t(len(data))
        out_buffer = ctypes.create_string_buffer(64)
        out_pointer = ctypes.c_char_p(ctypes.addressof(out_buffer))
        out_left = ctypes.c_size_t(64)
        if _libc.iconv(self.handle, ctypes.byref(in_pointer), ctypes.byref(in_left),
                       ctypes.byref(out_pointer), ctypes.byref(out_left)) == _FAILED or in_left.value:
            return None
        if _libc.iconv(self.handle, None, None, ctypes.byref(out_pointer), ctypes.byref(out_left)) == _FAILED:
            return None
        return out_buffer.raw[:64 - out_left.value]


def decoder(codepage):
    convert = Iconv("UTF-32LE", f"CP{codepage}")

    def decode(data):
        out = convert(data)
        return None if out is None else out.decode("utf-32-le")
    return decode


def encoder(codepage):
    convert = Iconv(f"CP{codepage}", "UTF-32LE")
    return lambda code_point: convert(chr(code_point).encode("utf-32-le"))


# --- building the tables ------------------------------------------------------

def is_private_use(code_point):
    return 0xE000 <= code_point <= 0xF8FF


def is_c1_control(code_point):
    return 0x80 <= code_point <= 0x9F


def single_bytes(codepage):
    """Byte to code point for every byte that decodes to one character on its own."""
    decode = decoder(codepage)
    table = {}
    for byte in range(256):
        text = decode(bytes([byte]))
        if text is None or len(text) != 1:
            continue
        code_point = ord(text)
        if byte >= 0x80 and (is_c1_control(code_point) or is_private_use(code_point)):
            continue
        table[byte] = code_point
    for byte in range(0x80):
        expected = 0x066A if (codepage, byte) == (864, 0x25) else byte
        assert table.get(byte) == expected, f"CP{codepage} byte 0x{byte:02X} is not ASCII"
    table.update(CORRECTIONS.get(codepage, {}))
    return table


def check_against_python(codepage, table):
    """The single-byte pages of Python's codecs must agree with glibc's."""
    corrections = CORRECTIONS.get(codepage, {})
    for byte in range(256):
        try:
            text = bytes([byte]).decode(f"cp{codepage}")
        except UnicodeDecodeError:
            text = None
        python_value = ord(text) if text is not None else None
        if byte in corrections:
            assert python_value is None, f"cp{codepage} now maps 0x{byte:02X}; drop the correction"
            continue
        assert python_value == table.get(byte), f"cp{codepage} 0x{byte:02X}: Python and glibc differ"


def multibyte_sequences(codepage, singles):
    decode = decoder(codepage)
    table = {}
    for lead in range(0x80, 0x100):
        if lead in singles:
            continue
        for trail in range(0x100):
            text = decode(bytes([lead, trail]))
            if text is None or len(text) != 1 or is_private_use(ord(text)):
                continue
            table[lead * 256 + trail] = ord(text)
    return table


def preferred_sequence(codepage, sequences):
    """The one sequence the reverse table keeps for a character (see the notes above)."""
    if codepage == 932:
        candidates = [s for s in sequences if (s >> 8) not in (0xED, 0xEE)]
    elif codepage == 950:
        candidates = [s for s in sequences if (s >> 8) != 0xF9 and s not in (0xA2CC, 0xA2CE)]
    else:
        candidates = []
    assert len(candidates) >= 1, f"CP{codepage}: no rule for {[hex(s) for s in sequences]}"
    return min(candidates)


def reverse_table(codepage, singles, multibyte):
    sequences = defaultdict(list)
    for byte, code_point in singles.items():
        sequences[code_point].append(byte)
    for sequence, code_point in multibyte.items():
        sequences[code_point].append(sequence)
    duplicates = {u: s for u, s in sequences.items() if len(s) > 1}
    if codepage in EXPECTED_DUPLICATES:
        assert len(duplicates) == EXPECTED_DUPLICATES[codepage], \
            f"CP{codepage}: {len(duplicates)} characters with several sequences"
    else:
        assert not duplicates, f"CP{codepage}: characters with several bytes"
    encode = encoder(codepage) if duplicates else None
    python_agrees = 0
    reverse = {}
    for code_point, choices in sequences.items():
        if len(choices) == 1:
            reverse[code_point] = choices[0]
            continue
        chosen = preferred_sequence(codepage, choices)
        glibc_choice = int.from_bytes(encode(code_point), "big")
        assert glibc_choice == chosen, f"CP{codepage} U+{code_point:04X}: glibc writes {glibc_choice:X}"
        python_agrees += int.from_bytes(chr(code_point).encode(f"cp{codepage}"), "big") == chosen
        reverse[code_point] = chosen
    if codepage == 932:
        assert python_agrees == 23, f"Python's cp932 now agrees on {python_agrees}"
    if codepage == 950:
        assert python_agrees == 10, f"Python's cp950 now agrees on {python_agrees}"
    return reverse


def graphics_reverse(graphics):
    entries = {graphics.get(byte, 0): byte for byte in CONTROL_POSITIONS}
    assert len(entries) == 33, "graphics characters must be distinct"
    return entries


# --- writing C++ --------------------------------------------------------------

def hex_rows(values, digits, per_line, row_comments=False):
    lines = []
    for start in range(0, len(values), per_line):
        row = ", ".join(f"0x{v:0{digits}X}" for v in values[start:start + per_line])
        comment = f"  // 0x{start:02X}" if row_comments else ""
        lines.append(f"    {row},{comment}")
    return "\n".join(lines)


def array(kind, name, values, digits, per_line, comment, row_comments=False):
    return (f"// {comment}\n"
            f"constexpr {kind} {name}[{len(values)}] = {{\n"
            f"{hex_rows(values, digits, per_line, row_comments)}\n"
            f"}};\n")


def packed_reverse(reverse):
    return [(u << 16) | s for u, s in sorted(reverse.items())]


def build():
    out = []
    records = []

    graphics_tables = {"ibm_pc": GRAPHICS_IBM_PC, "864": GRAPHICS_864}
    for name, graphics in graphics_tables.items():
        values = [graphics.get(byte, 0) for byte in range(128)]
        who = "code page 864" if name == "864" else "every page but 864"
        out.append(array("uint16_t", f"graphics_{name}", values, 4, 16,
                         f"IBM PC graphics characters of the control positions, {who}.", True))
        entries = packed_reverse(graphics_reverse(graphics))
        out.append(array("uint32_t", f"graphics_reverse_{name}", entries, 8, 8,
                         f"Graphics characters back to their control positions, {who}."))

    for codepage in SINGLE_BYTE_PAGES + MULTI_BYTE_PAGES:
        singles = single_bytes(codepage)
        if codepage in SINGLE_BYTE_PAGES:
            check_against_python(codepage, singles)
            multibyte = {}
        else:
            multibyte = multibyte_sequences(codepage, singles)
            assert len(multibyte) == EXPECTED_MULTIBYTE[codepage], \
                f"CP{codepage}: {len(multibyte)} multi-byte entries"
        reverse = reverse_table(codepage, singles, multibyte)
        assert len(reverse) == EXPECTED_REVERSE.get(codepage, 256), \
            f"CP{codepage}: {len(reverse)} reverse entries"
        main = [singles.get(byte, 0) for byte in range(256)]
        for byte, code_point in enumerate(main):
            if byte == 0 or code_point:
                assert code_point in reverse
        for code_point in reverse:
            assert not 0xF300 <= code_point <= 0xF3FF, "the raw-byte range must stay free"

        title = f"Code page {codepage} ({PAGE_NAMES[codepage]})"
        out.append(array("uint16_t", f"main_{codepage}", main, 4, 16, f"{title}: byte to UTF-16.", True))
        if multibyte:
            entries = [(u << 16) | s for s, u in sorted(multibyte.items())]
            out.append(array("uint32_t", f"multibyte_{codepage}", entries, 8, 10,
                             f"{title}: two-byte sequence (low half) to UTF-16 (high half)."))
        out.append(array("uint32_t", f"reverse_{codepage}", packed_reverse(reverse), 8, 10,
                         f"{title}: UTF-16 (high half) to byte or sequence (low half)."))
        records.append((codepage, "864" if codepage == 864 else "ibm_pc", bool(multibyte)))

    record_lines = []
    for codepage, graphics, has_multibyte in records:
        multibyte = (f"multibyte_{codepage}, std::size(multibyte_{codepage})"
                     if has_multibyte else "nullptr, 0")
        record_lines.append(
            f"    {{{codepage}, graphics_{graphics}, std::size(graphics_{graphics}), "
            f"main_{codepage}, std::size(main_{codepage}),\n"
            f"     {multibyte}, graphics_reverse_{graphics}, std::size(graphics_reverse_{graphics}),\n"
            f"     reverse_{codepage}, std::size(reverse_{codepage})}},")

    return (
        "// Generated by tools/gen_codepages.py from glibc iconv; do not edit by hand.\n"
        "// The script documents the sources, the corrections and the choices.\n"
        "#include \"support/qfs_codepage_tables.h\"\n\n"
        "#include <iterator>\n\n"
        "namespace {\n\n"
        + "\n".join(out)
        + "\n} // namespace\n\n"
        "// The supported code pages in ascending order.\n"
        f"const qfs_codepage_table qfs_codepage_tables[] = {{\n"
        + "\n".join(record_lines)
        + "\n};\n\n"
        "const size_t qfs_codepage_tables_count = std::size(qfs_codepage_tables);\n"
    )


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "support", "qfs_codepage_tables.cpp")
    text = build()
    with open(path, "w", encoding="ascii") as output:
        output.write(text)
    print(f"wrote {path} ({len(text)} bytes)")


if __name__ == "__main__":
    main()
