#!/usr/bin/env python3
"""Makes the golden vectors: rows as bytes, with their layout, JSON, hashes and check result.

    tests/vectors/make_vectors.py FOLDER

Written from the row format's rules alone. It does not use the library, which tests itself with what
stands here. The JSON texts are written out by hand.
"""

import hashlib
import ipaddress
import struct
import sys
from pathlib import Path

FIXED = {
    "uint8_t": "<B", "uint16_t": "<H", "uint32_t": "<I", "uint64_t": "<Q",
    "int8_t": "<b", "int16_t": "<h", "int32_t": "<i", "int64_t": "<q",
    "float": "<f", "double": "<d", "bool": "<B",
}
WIDTH = {name: struct.calcsize(form) for name, form in FIXED.items()}
WIDTH.update({"IpAddr": 4, "Ip6Addr": 16})


# --- Layouts: (row type, base length, [(name, type, offset)]); a type is a name, a name with [], or
# --- a layout, or [layout] for an array of rows.

def width(kind):
    return WIDTH.get(kind, 4) if isinstance(kind, str) else 4


def place(row_type, *columns):
    """A layout with its columns one behind the other."""
    placed, at = [], 8
    for name, kind in columns:
        placed.append((name, kind, at))
        at += width(kind)
    return (row_type, at, placed)


def quoted(name):
    if name.isidentifier() and name.isascii():
        return name
    text = ""
    for char in name:
        if char in '"\\':
            text += "\\" + char
        elif ord(char) < 0x20 or ord(char) == 0x7F:
            text += "\\x%02x" % ord(char)
        else:
            text += char
    return '"%s"' % text


def layout_text(layout, indent=""):
    row_type, base, columns = layout
    lines = "row %d base %d {\n" % (row_type, base)
    for name, kind, offset in sorted(columns, key=lambda column: column[2]):
        mark = ""
        if isinstance(kind, list):
            kind, mark = kind[0], "[]"
        if not isinstance(kind, str):
            kind = layout_text(kind, indent + "  ")
        lines += "%s  %s %s%s @%d\n" % (indent, quoted(name), kind, mark, offset)
    return lines + indent + "}"


# --- Values

def address(text):
    return ipaddress.ip_address(text).packed


def prefix(text):
    addr, length = text.split("/")
    return bytes([int(length)]) + address(addr)


def value(kind, given):
    """The encoded value of a variable-length type."""
    if given is None:
        return b""
    if kind == "string_t":
        return given if isinstance(given, bytes) else given.encode()
    if kind == "IpGenAddr":
        return address(given)
    if kind == "IpGenPrefix":
        return prefix(given)
    return row(kind, given)


def array(kind, given):
    if not given:
        return b""
    if kind == "bool":
        return struct.pack("<H", len(given)) + bytes(given)
    elements = [value(kind, element) for element in given]
    head = struct.pack("<H", 0x1000 | len(given))
    at = 2 + 4 * len(given)
    for element in elements:
        head += struct.pack("<HH", at, len(element))
        at += len(element)
    return head + b"".join(elements)


def row(layout, values, oid=0, gap=b"", order=None):
    """A row whose values stand in the order of the columns, or in that of the names given; `gap`
    stands in front of each."""
    row_type, base, columns = layout
    bytes_ = bytearray(base)
    struct.pack_into("<HI", bytes_, 2, row_type, oid)
    names = order or [name for name, _, _ in columns]
    for name in names:
        (_, kind, offset), = [column for column in columns if column[0] == name]
        if name not in values:
            continue
        given = values[name]
        if isinstance(kind, str) and kind in FIXED:
            struct.pack_into(FIXED[kind], bytes_, offset, given)
        elif kind in ("IpAddr", "Ip6Addr"):
            bytes_[offset:offset + WIDTH[kind]] = address(given)
        else:
            is_array = isinstance(kind, list) or (isinstance(kind, str) and kind.endswith("[]"))
            if is_array:
                encoded = array(kind[0] if isinstance(kind, list) else kind[:-2], given)
            else:
                encoded = value(kind, given)
            if not encoded:
                continue
            bytes_ += gap
            struct.pack_into("<HH", bytes_, offset, len(bytes_),
                             len(encoded) | (0x8000 if is_array else 0))
            bytes_ += encoded
    struct.pack_into("<H", bytes_, 0, len(bytes_))
    return bytes(bytes_)


# --- Hashes of columns

def murmur2(data, seed):
    mask, m = 0xFFFFFFFF, 0x5BD1E995
    h = (seed ^ len(data)) & mask
    while len(data) >= 4:
        k = struct.unpack("<I", data[:4])[0] * m & mask
        k = (k ^ k >> 24) * m & mask
        h = (h * m & mask) ^ k
        data = data[4:]
    if data:
        h = ((h ^ int.from_bytes(data, "little")) * m) & mask
    h = (h ^ h >> 13) * m & mask
    return h ^ h >> 15


def byte_hash(data):
    h = 0
    for byte in data:
        h ^= ((h << 6) + (h >> 2) + byte + 0x9E3779B9) & 0xFFFFFFFF
    return h


def column_hash(kind, encoded):
    if kind == "string_t":
        return murmur2(encoded, 0xC70F6907)
    if kind == "IpGenAddr":
        return byte_hash(encoded) if encoded else 0
    if not encoded:
        return 0
    s = (encoded[0] + 0x9E3779B9) & 0xFFFFFFFF
    return (s ^ (byte_hash(encoded[1:]) + 0x9E3779B9 + (s << 6) + (s >> 2))) & 0xFFFFFFFF


# --- Vectors

class File:
    def __init__(self, folder, name, about):
        self.path = folder / (name + ".txt")
        self.text = "# %s\n" % about

    def add(self, name, layout, bytes_, json=None, check="ok", hashes=(), rule=None):
        text = layout_text(layout)
        self.text += "\nname: %s\n" % name
        self.text += "layout: %s\n" % " ".join(text.split())
        self.text += "fingerprint: %s\n" % hashlib.sha1((text + "\n").encode()).hexdigest()
        self.text += "bytes: %s\n" % bytes_.hex(" ")
        if rule:
            self.text += "prefixes: %s\n" % rule
        self.text += "check: %s\n" % check
        if json is not None:
            self.text += "json: %s\n" % json
        for column, kind, encoded in hashes:
            self.text += "hash: %s %d\n" % (column, column_hash(kind, encoded))

    def write(self):
        self.path.write_text(self.text)


def fixed(folder):
    file = File(folder, "fixed", "Columns of fixed width: the ends of every type's range.")
    edges = {
        "uint8_t": [0, 255], "uint16_t": [0, 65535], "uint32_t": [0, 4294967295],
        "uint64_t": [0, 18446744073709551615], "int8_t": [-128, 127], "int16_t": [-32768, 32767],
        "int32_t": [-2147483648, 2147483647],
        "int64_t": [-9223372036854775808, 9223372036854775807],
    }
    for kind, numbers in edges.items():
        layout = place(1, ("value", kind))
        for number in numbers:
            file.add("%s %d" % (kind, number), layout, row(layout, {"value": number}),
                     '{"value":%d}' % number)
    reals = [("0.1", "float", 0.1), ("-0", "float", -0.0), ("1.1754944e-38", "float", 2.0 ** -126),
             ("1e-45", "float", 2.0 ** -149),
             ("3.4028235e+38", "float", (2 - 2.0 ** -23) * 2.0 ** 127),
             ("16777216", "float", 16777216.0), ("null", "float", float("inf")),
             ("null", "float", float("nan")),
             ("0.1", "double", 0.1), ("-0", "double", -0.0), ("5e-324", "double", 5e-324),
             ("1.7976931348623157e+308", "double", 1.7976931348623157e308),
             ("0.30000000000000004", "double", 0.1 + 0.2), ("null", "double", float("-inf"))]
    for text, kind, number in reals:
        layout = place(1, ("value", kind))
        file.add("%s %s" % (kind, number), layout, row(layout, {"value": number}),
                 '{"value":%s}' % text)
    layout = place(1, ("no", "bool"), ("yes", "bool"), ("also", "bool"))
    file.add("bool, 2 is true as well", layout, row(layout, {"no": 0, "yes": 1, "also": 2}),
             '{"no":false,"yes":true,"also":true}')
    layout = place(1, ("v4", "IpAddr"), ("v6", "Ip6Addr"))
    file.add("addresses of fixed width", layout,
             row(layout, {"v4": "10.1.2.3", "v6": "2001:db8::ff"}, oid=4294967295),
             '{"v4":"10.1.2.3","v6":"2001:0db8:0000:0000:0000:0000:0000:00ff"}')
    file.add("addresses that are zero", layout, row(layout, {}),
             '{"v4":"0.0.0.0","v6":"0000:0000:0000:0000:0000:0000:0000:0000"}')
    file.write()


def values(folder):
    file = File(folder, "values", "Columns of variable length, with their hashes.")
    layout = place(7, ("text", "string_t"))
    texts = [("", '""'), ("eth0", '"eth0"'), ('"\\/\n\t\r\b\x1f', '"\\"\\\\/\\n\\t\\r\\u0008\\u001f"'),
             ("a\0b", '"a\\u0000b"'), ("Größe €𝄞", '"Größe €𝄞"'), ("x" * 300, '"%s"' % ("x" * 300)),
             (b"\xff.", '"\ufffd."'), (b"\xed\xa0\x80", '"\ufffd\ufffd\ufffd"')]
    for number, (text, json) in enumerate(texts):
        encoded = value("string_t", text)
        file.add("string_t %d" % number, layout, row(layout, {"text": text}), '{"text":%s}' % json,
                 hashes=[("text", "string_t", encoded)])
    layout = place(7, ("addr", "IpGenAddr"), ("net", "IpGenPrefix"))
    pairs = [
        ("10.1.2.3", "10.1.0.0/16", "10.1.2.3", "10.1.0.0/16"),
        ("0.0.0.0", "0.0.0.0/0", "0.0.0.0", "0.0.0.0/0"),
        ("255.255.255.255", "10.1.2.3/32", "255.255.255.255", "10.1.2.3/32"),
        ("::", "::/0", "0000:0000:0000:0000:0000:0000:0000:0000",
         "0000:0000:0000:0000:0000:0000:0000:0000/0"),
        ("2001:db8::1", "2001:db8::/32", "2001:0db8:0000:0000:0000:0000:0000:0001",
         "2001:0db8:0000:0000:0000:0000:0000:0000/32"),
        ("fe80::1", "fe80::1/128", "fe80:0000:0000:0000:0000:0000:0000:0001",
         "fe80:0000:0000:0000:0000:0000:0000:0001/128"),
    ]
    for addr, net, addr_json, net_json in pairs:
        file.add("%s %s" % (addr, net), layout, row(layout, {"addr": addr, "net": net}),
                 '{"addr":"%s","net":"%s"}' % (addr_json, net_json),
                 hashes=[("addr", "IpGenAddr", address(addr)), ("net", "IpGenPrefix", prefix(net))])
    file.add("null addresses", layout, row(layout, {}), '{"addr":null,"net":null}',
             hashes=[("addr", "IpGenAddr", b""), ("net", "IpGenPrefix", b"")])
    layout = place(7, ("net", "IpGenPrefix"))
    file.add("a prefix with host bits", layout, row(layout, {"net": "10.1.2.3/16"}),
             '{"net":"10.1.2.3/16"}')
    file.add("a prefix with host bits, where they are refused", layout,
             row(layout, {"net": "10.1.2.3/16"}), check="hostBits 12", rule="noHostBits")
    file.write()


def arrays(folder):
    file = File(folder, "arrays", "Array columns.")
    layout = place(7, ("tags", "string_t[]"))
    file.add("three texts", layout, row(layout, {"tags": ["a", "", "xyz"]}),
             '{"tags":["a","","xyz"]}')
    file.add("no element", layout, row(layout, {"tags": []}), '{"tags":[]}')
    empty = bytearray(row(layout, {"tags": []}))
    empty[11] = 0x80
    file.add("no element, still marked as an array", layout, bytes(empty), '{"tags":[]}')
    many = ["%d" % (i % 10) for i in range(4095)]
    file.add("as many elements as there can be", layout, row(layout, {"tags": many}),
             '{"tags":[%s]}' % ",".join('"%s"' % tag for tag in many))
    layout = place(7, ("addrs", "IpGenAddr[]"), ("nets", "IpGenPrefix[]"), ("flags", "bool[]"))
    file.add("addresses, prefixes, flags", layout,
             row(layout, {"addrs": ["10.1.2.3", None, "::1"], "nets": ["10.0.0.0/8", None, "::/0"],
                          "flags": [1, 0, 1]}),
             '{"addrs":["10.1.2.3",null,"0000:0000:0000:0000:0000:0000:0000:0001"],'
             '"nets":["10.0.0.0/8",null,"0000:0000:0000:0000:0000:0000:0000:0000/0"],'
             '"flags":[true,false,true]}')
    kept = bytearray(row(layout, {"flags": [1, 0, 1]}))
    kept[21] |= 0xE0
    file.add("bits 13 to 15 of the header say nothing", layout, bytes(kept),
             '{"addrs":[],"nets":[],"flags":[true,false,true]}')
    file.write()


def nested(folder):
    file = File(folder, "nested", "Rows in rows.")
    link = place(2, ("up", "bool"), ("peer", "IpGenAddr"))
    port = place(7, ("speed", "uint32_t"), ("link", link), ("name", "string_t"))
    file.add("a row in a row", port,
             row(port, {"speed": 10000, "link": {"up": 1, "peer": "10.1.2.3"}, "name": "eth0"}, 1001),
             '{"speed":10000,"link":{"up":true,"peer":"10.1.2.3"},"name":"eth0"}')
    file.add("no row in a row", port, row(port, {"name": "eth0"}),
             '{"speed":0,"link":null,"name":"eth0"}')
    several = place(8, ("links", [link]))
    file.add("an array of rows", several,
             row(several, {"links": [{"up": 1}, {"peer": "::2"}]}),
             '{"links":[{"up":true,"peer":null},'
             '{"up":false,"peer":"0000:0000:0000:0000:0000:0000:0000:0002"}]}')
    layout, given, json = place(1, ("text", "string_t")), {"text": "x"}, '{"text":"x"}'
    for level in range(2, 18):
        layout, given, json = place(level, ("next", layout)), {"next": given}, '{"next":%s}' % json
    file.add("16 levels", layout, row(layout, given), json)
    file.write()


def places(folder):
    file = File(folder, "places", "Gaps, odd offsets, any order.")
    odd = (9, 47, [("late", "double", 31), ("name", "string_t", 9), ("flag", "bool", 14),
                   ("word", "uint16_t", 17), ("list", "string_t[]", 21), ("end", "uint8_t", 46)])
    given = {"late": -2.5, "name": "eth0", "flag": 1, "word": 513, "list": ["up"], "end": 255}
    json = '{"name":"eth0","flag":true,"word":513,"list":["up"],"late":-2.5,"end":255}'
    file.add("odd offsets, unused bytes", odd, row(odd, given, 5), json)
    file.add("gaps in front of the values", odd, row(odd, given, 5, gap=b"\xaa\xbb\xcc"), json)
    file.add("values in another order", odd,
             row(odd, given, 5, order=["list", "late", "flag", "name", "word", "end"]), json)
    behind = bytearray(row(odd, given, 5) + b"\xee" * 9)
    struct.pack_into("<H", behind, 0, len(behind))
    file.add("a gap behind the values", odd, bytes(behind), json)
    blank = place(3)
    file.add("no columns", blank, row(blank, {}, 77), "{}")
    names = place(4, ("größe", "uint8_t"), ('a "b"\\\n', "uint8_t"), ("", "uint8_t"),
                  ("9", "uint8_t"))
    file.add("names that are no identifiers", names, row(names, {"größe": 1, "9": 4}),
             '{"größe":1,"a \\"b\\"\\\\\\n":0,"":0,"9":4}')
    text = place(5, ("text", "string_t"))
    stale = bytearray(row(text, {}))
    stale[8:10] = b"\xff\xff"
    file.add("an offset beside length 0 says nothing", text, bytes(stale), '{"text":""}')
    long = {"text": "y" * 32767}
    file.add("the longest value", text, row(text, long), '{"text":"%s"}' % ("y" * 32767))
    file.write()


def refused(folder):
    file = File(folder, "refused", "Rows that do not pass the check, one for each fault.")
    text = place(1, ("text", "string_t"), ("other", "string_t"))
    good = bytearray(row(text, {"text": "abcd", "other": "ef"}))

    def changed(at, *new):
        bytes_ = bytearray(good)
        bytes_[at:at + len(new)] = bytes(new)
        return bytes(bytes_)

    def sized(bytes_):
        bytes_ = bytearray(bytes_)
        struct.pack_into("<H", bytes_, 0, len(bytes_))
        return bytes(bytes_)

    file.add("fewer bytes than a header", text, bytes(good[:7]), check="shortHeader 7")
    file.add("no bytes", text, b"", check="shortHeader 0")
    file.add("one byte is missing", text, bytes(good[:-1]), check="truncated 0")
    file.add("one byte too many", text, bytes(good) + b"\0", check="trailingBytes 22")
    file.add("no room for the columns", text, sized(good[:12]), check="shortFixedArea 12")
    file.add("a value in the header", text, changed(8, 4), check="valueInHeader 8")
    file.add("a value in the fixed area", text, changed(12, 15), check="valueInHeader 12")
    file.add("a value beyond the row", text, changed(12, 21), check="valueBeyondRow 12")
    file.add("two values share a byte", text, changed(12, 19), check="overlap 12")
    file.add("an array where a value is", text, changed(11, 0x80), check="arrayMark 8")

    tags = place(1, ("tags", "string_t[]"))
    good = bytearray(row(tags, {"tags": ["ab", "cd"]}))  # 12: header, 14 and 18: slots, 22: data
    file.add("a value where an array is", tags, changed(11, 0), check="arrayMark 8")
    file.add("elements of fixed width where they vary", tags, changed(13, 0), check="elementMark 12")
    file.add("a count that the array has no room for", tags, changed(12, 9), check="arrayLength 12")
    file.add("an element in its array's header", tags, changed(14, 2), check="elementOutside 14")
    file.add("an element over another", tags, changed(18, 11), check="elementOutside 18")
    file.add("an element beyond its array", tags, changed(20, 3), check="elementOutside 18")
    short = bytearray(good)
    struct.pack_into("<H", short, 10, 0x8001)
    file.add("no room for an array's header", tags, bytes(short), check="arrayLength 12")
    flags = place(1, ("flags", "bool[]"))
    good = bytearray(row(flags, {"flags": [1, 0, 1]}))
    file.add("elements that vary where they are fixed", flags, changed(13, 0x10),
             check="elementMark 12")
    file.add("a count that is not the flags'", flags, changed(12, 2), check="arrayLength 12")

    addr = place(1, ("addr", "IpGenAddr"))
    good = bytearray(row(addr, {"addr": "10.1.2.3"}))
    file.add("an address of three bytes", addr, changed(10, 3), check="addressLength 12")
    net = place(1, ("net", "IpGenPrefix"))
    good = bytearray(row(net, {"net": "10.0.0.0/8"}))
    file.add("a prefix of four bytes", net, changed(10, 4), check="prefixLength 12")
    file.add("33 bits of an IPv4 address", net, changed(12, 33), check="prefixBits 12")
    good = bytearray(row(net, {"net": "::/0"}))
    file.add("129 bits of an IPv6 address", net, changed(12, 129), check="prefixBits 12")

    inner = place(2, ("text", "string_t"))
    outer = place(1, ("row", inner))
    good = bytearray(row(outer, {"row": {"text": "abc"}}))  # 12: the nested row, 24: its value
    file.add("a nested row of another length", outer, changed(12, 14), check="nestedLength 12")
    file.add("a nested row's value beyond it", outer, changed(20, 13), check="valueBeyondRow 20")
    file.add("a nested value that is no row", outer, changed(10, 7), check="nestedLength 12")
    file.write()


def main():
    folder = Path(sys.argv[1])
    for make in (fixed, values, arrays, nested, places, refused):
        make(folder)


if __name__ == "__main__":
    main()
