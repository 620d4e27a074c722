"""Prints objects made of random bytes: nothing is thrown, and everything ends soon."""

import random
import time

import gdb

MAX_LENGTH = 2_000_000  # characters of one value
MAX_SECONDS = 20
ROUNDS = 40

TYPES = [
    "Port", "All", "Odd", "NotedPort", "Host", "Counter", "Korvo::BaseRow",
    "Korvo::SubRowReference",
    "Korvo::VColType",
    "Korvo::StringValueReference", "Korvo::IpGenAddrReference", "Korvo::IpGenPrefixReference",
    "Korvo::ArrayReference<Korvo::StringValueReference>", "Korvo::ArrayReference<bool>",
    "Korvo::IpAddr", "Korvo::Ip6Addr", "Korvo::IpGenAddr", "Korvo::IpGenPrefix",
]  # fmt: skip


def length_of(value):
    """The characters of a printed value. What its printer throws leaves here."""
    printer = gdb.default_visualizer(value)
    length = len(str(printer.to_string()))
    for name, child in printer.children() if hasattr(printer, "children") else ():
        length += len(name) + (len(child) if isinstance(child, str) else 1)
    return length


def check(value, what):
    start = time.monotonic()
    length = length_of(value)
    seconds = time.monotonic() - start
    if length > MAX_LENGTH or seconds > MAX_SECONDS:
        raise gdb.GdbError(f"{what}: {length} characters in {seconds:.1f} s")
    return length


def main():
    rng = random.Random(1)
    memory = gdb.selected_inferior()
    anything = gdb.parse_and_eval("&anything")
    address, size = int(anything), anything.type.target().sizeof
    word = gdb.lookup_type("void").pointer().sizeof
    values = 0

    # Objects whose words are anything: numbers, pointers to memory, pointers to none.
    objects = ("&port", "&everyType", "&first")
    pointers = [int(gdb.parse_and_eval(f"(unsigned long){name}")) for name in objects]
    pointers += [address, address + size // 2, 0, 16, (1 << 8 * word) - 1, (1 << 8 * word - 1)]
    types = {name: gdb.lookup_type(name).pointer() for name in TYPES}
    for pointer in ("queue", "queuePlace", "buffer"):  # classes that may be known by name only
        types[pointer] = gdb.parse_and_eval(pointer).type
    for what, pointer in types.items():
        value = anything.cast(pointer).dereference()
        for _ in range(ROUNDS):
            words = (
                rng.choice(pointers + [rng.randrange(300), rng.randrange(1 << 8 * word)])
                for _ in range(size // word)
            )
            memory.write_memory(address, b"".join(each.to_bytes(word, "little") for each in words))
            check(value, what)
            values += 1

    # Rows whose bytes are anything, and whose lengths and slots mostly are near their buffer.
    for name in ("port", "everyType", "odd"):
        row = gdb.parse_and_eval(name)
        begin = int(gdb.parse_and_eval(f"{name}Bytes"))
        good = bytes(memory.read_memory(begin, 95))
        check(row, name)
        for i in range(10 * ROUNDS):
            content = bytearray(good)
            for _ in range(rng.choice((1, 3, len(content)))):
                content[rng.randrange(2 if i % 2 else 0, len(content))] = rng.randrange(256)
            memory.write_memory(begin, bytes(content))
            check(row, name)
            values += 1
        memory.write_memory(begin, good)
    print(f"{values} values, nothing thrown")


main()
