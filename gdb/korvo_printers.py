"""gdb pretty printers of libKorvoAPI: rows, value references, addresses, units and run queues.

gdb loads this file by itself with the shared library. For a program that has linked the static
library:

    (gdb) source korvo_printers.py

Everything is read from memory and from the names of types; nothing is called in the program. So it
works on core files as well, and a row, a slot or a pointer that is wrong ends in a text between
angle brackets. What is printed of texts, arrays and queues has the length of `print elements`.
"""

import ipaddress
import re
import struct

import gdb
import gdb.printing

HEADER_LENGTH = 8
MAX_ROW_LENGTH = 65535
MAX_BASES = 64  # classes are looked at no further: a limit for debug information that is wrong
ARRAY_COUNT_MASK = 0x0FFF

IPV4, IPV6 = 1, 2
ADDRESS_LENGTH = {IPV4: 4, IPV6: 16}


# --- Memory ---------------------------------------------------------------------------------------


def read(address, length):
    """The bytes there; throws gdb.MemoryError."""
    if length == 0:
        return b""
    if address + length > 1 << 8 * pointer_size():
        raise gdb.MemoryError(f"Cannot access memory at address {address:#x}")
    return bytes(gdb.selected_inferior().read_memory(address, length))


def read_number(address, length):
    return int.from_bytes(read(address, length), "little")


def pointer_size():
    return gdb.lookup_type("void").pointer().sizeof


def address_of(value):
    if value.address is None:
        raise gdb.error("not in memory")
    return int(value.address)


def read_pointer(address):
    return read_number(address, pointer_size())


def shown_elements():
    """How many elements or characters gdb's user wants to see."""
    return gdb.parameter("print elements") or MAX_ROW_LENGTH


def guarded(show):
    """What cannot be read is told in the place of the value."""

    def shown(*arguments):
        try:
            return show(*arguments)
        except gdb.error as error:
            return f"<{error}>"

    return shown


# --- Texts of values ------------------------------------------------------------------------------


def quoted(content, length):
    """`content`: the bytes that are shown, of `length` that there are."""
    out = []
    for char in content.decode("utf-8", "surrogateescape"):
        code = ord(char)
        if char in '"\\':
            out.append("\\" + char)
        elif 0xDC80 <= code <= 0xDCFF:  # a byte that is no UTF-8
            out.append(f"\\{code - 0xDC00:03o}")
        elif char.isprintable() and encodable(char):
            out.append(char)
        else:
            out.extend(f"\\{byte:03o}" for byte in char.encode("utf-8"))
    return '"' + "".join(out) + '"' + ("..." if length > len(content) else "")


def encodable(char):
    charset = gdb.host_charset() if hasattr(gdb, "host_charset") else "ascii"
    try:
        char.encode(charset)
        return True
    except (UnicodeEncodeError, LookupError):
        return False


@guarded
def text_at(address, length):
    return quoted(read(address, min(length, shown_elements())), length)


def address_text(family, content):
    if family == IPV4:
        return ".".join(str(byte) for byte in content[:4])
    if family == IPV6:
        return str(ipaddress.IPv6Address(content[:16]))
    return "<no address>" if family == 0 else f"<address family {family}>"


def prefix_text(family, content, length):
    if family not in ADDRESS_LENGTH:
        return "<no prefix>" if family == 0 else f"<address family {family}>"
    return f"{address_text(family, content)}/{length}"


@guarded
def encoded_address(address, length):
    """An encoded address; its length tells the family."""
    if length not in (4, 16):
        return f"<address of {length} bytes>"
    return address_text(IPV4 if length == 4 else IPV6, read(address, length))


@guarded
def encoded_prefix(address, length):
    if length not in (5, 17):
        return f"<prefix of {length} bytes>"
    content = read(address, length)
    return prefix_text(IPV4 if length == 5 else IPV6, content[1:], content[0])


def number_text(content, kind):
    """A number; `kind` is its code in Python's struct module."""
    value = struct.unpack("<" + kind, content)[0]
    if kind in "fd":  # as many digits as gdb's
        return format(value, ".9g" if kind == "f" else ".17g")
    return value


# --- Types of columns, known by their names -------------------------------------------------------


def template_arguments(name):
    """["a", "b<c, d>"] of "Name<a, b<c, d> >"; quoted text and brackets of all kinds are kept."""
    begin = name.find("<")
    arguments, depth, start, i = [], 0, begin + 1, begin + 1
    while 0 <= begin and i < len(name):
        char = name[i]
        if char == '"':
            i += 1
            while i < len(name) and name[i] != '"':
                i += 2 if name[i] == "\\" else 1
        elif char in "<({[":
            depth += 1
        elif char in ">)}]" or char == ",":
            if depth == 0:
                arguments.append(name[start:i].strip())
                start = i + 1
                if char != ",":
                    break
            elif char != ",":
                depth -= 1
        i += 1
    return [argument for argument in arguments if argument]


def column_name(argument):
    """The text of a ColumnName, which every compiler writes in a way of its own."""
    literal = re.search(r'"((?:[^"\\]|\\.)*)"', argument)
    if literal:
        return re.sub(r"\\(.)", r"\1", literal.group(1))
    codes = re.findall(r"-?\d+", re.sub(r"\([^)]*\)", "", argument[argument.rfind("{") :]))
    content = bytes(int(code) & 0xFF for code in codes).rstrip(b"\0")
    # clang's debug information has the first ten characters only.
    return content.decode("utf-8", "replace") + ("..." if "..." in argument else "")


def integer_kind(name):
    """The struct code of an integer type, None for another type."""
    words = name.split()
    if not words or not set(words) <= {"unsigned", "signed", "char", "short", "int", "long"}:
        return None
    code = "b" if "char" in words else "h" if "short" in words else "q" if "long" in words else "i"
    return code.upper() if "unsigned" in words else code


class ValueType:
    """What a column or an element holds. `width`: its bytes in the fixed area."""

    def __init__(self, name):
        self.width = 4
        self.is_array = False
        self.layout = None
        self.number = {"float": "f", "double": "d"}.get(name) or integer_kind(name)
        self.kind = "?"
        if self.number:
            self.kind, self.width = "number", struct.calcsize("<" + self.number)
        elif name == "bool":
            self.kind, self.width = "bool", 1
        elif name.startswith("std::vector<"):
            self.is_array = True
            self.kind = ValueType(template_arguments(name)[0]).kind
        elif name.startswith("Korvo::Nested<"):
            self.kind = "row"
            self.layout = Layout.named(template_arguments(name)[0])
        elif name == "Korvo::IpAddr":
            self.kind = "IpAddr"
        elif name == "Korvo::Ip6Addr":
            self.kind, self.width = "Ip6Addr", 16
        elif name in ("Korvo::IpGenAddr", "Korvo::IpGenAddrReference"):
            self.kind = "address"
        elif name in ("Korvo::IpGenPrefix", "Korvo::IpGenPrefixReference"):
            self.kind = "prefix"
        elif name == "Korvo::SubRowReference" or name.startswith("Korvo::SubRow<"):
            self.kind = "row"
        elif name == "Korvo::StringValueReference" or "basic_string<" in name:
            self.kind = "text"

    def has_slot(self):
        return self.is_array or self.kind in ("text", "address", "prefix", "row", "?")

    @guarded
    def fixed(self, address):
        content = read(address, self.width)
        if self.kind == "bool":
            return "true" if content[0] else "false"
        if self.kind == "number":
            return number_text(content, self.number)
        return address_text(IPV4 if self.width == 4 else IPV6, content)

    def encoded(self, address, length):
        """One value of the variable area."""
        if self.kind == "text":
            return text_at(address, length)
        if self.kind == "address":
            return encoded_address(address, length)
        if self.kind == "prefix":
            return encoded_prefix(address, length)
        if self.kind == "row":
            return Row(address, self.layout, length).text()
        return f"<{length} bytes>"

    def null(self):
        return {"text": '""'}.get(self.kind, "<null>")


class Layout:
    """The columns of a declared row class, out of the name of its RowLayout."""

    def __init__(self, name):
        arguments = template_arguments(name)
        self.columns = []  # (name, type, offset)
        self.base_length = HEADER_LENGTH
        end = HEADER_LENGTH
        for argument in arguments[1:]:
            column = template_arguments(argument)
            if len(column) != 3:
                continue
            value_type = ValueType(column[1])
            offset = int(re.sub(r"\D", "", column[2]) or 0) or end
            end = offset + value_type.width
            self.base_length = max(self.base_length, end)
            self.columns.append((column_name(column[0]), value_type, offset))

    @staticmethod
    def named(name):
        """The layout that is called so, be it a RowLayout or a struct that derives from one."""
        if name.startswith("Korvo::RowLayout<"):
            return Layout(name)
        try:
            layout = gdb.lookup_type(name)
        except gdb.error:
            return None
        for base in bases(layout):
            if str(base.name).startswith("Korvo::RowLayout<"):
                return Layout(base.name)
        return None


# --- Rows -----------------------------------------------------------------------------------------


class Row:
    """A row's bytes. `room`: how many there are for it, None if that is not known."""

    def __init__(self, address, layout=None, room=None):
        self.address = address
        self.layout = layout
        self.room = room

    def header(self, holders=1):
        if self.address == 0:
            return "null row"
        length, row_type, oid = struct.unpack("<HHI", read(self.address, HEADER_LENGTH))
        text = f"{length} bytes, type {row_type}, oid {oid}"
        if self.room is not None and self.room != length:
            text += f", in a value of {self.room} bytes"
        if 1 < holders < 1 << 20:
            text += f", shared by {holders}"
        return f"row ({text})"

    def columns(self):
        """(name, what to show) of each column."""
        if self.address == 0 or self.layout is None:
            return
        try:
            end = read_number(self.address, 2)
        except gdb.error:
            return
        if self.room is not None:
            end = min(end, self.room)
        if end < self.layout.base_length:
            yield "columns", f"<the row ends before them, at byte {self.layout.base_length}>"
            return
        for name, value_type, offset in self.layout.columns:
            if value_type.has_slot():
                yield name, self.value(value_type, offset, end)
            else:
                yield name, value_type.fixed(self.address + offset)

    @guarded
    def value(self, value_type, slot_offset, end):
        offset, length = read_slot(self.address + slot_offset)
        if length == 0:
            return "{}" if value_type.is_array else value_type.null()
        if offset < self.layout.base_length or offset + length > end:
            return f"<outside the row's values: offset {offset}, length {length}>"
        if value_type.is_array:
            return Array(self.address + offset, value_type, length).text()
        return value_type.encoded(self.address + offset, length)

    @guarded
    def text(self):
        columns = ", ".join(f"{name} = {value}" for name, value in self.columns())
        return f"{self.header()} = {{{columns}}}" if columns else self.header()


def read_slot(address):
    """Offset and length; the array mark is the length's highest bit."""
    offset, length = struct.unpack("<HH", read(address, 4))
    return offset, length & 0x7FFF


class Array:
    """An encoded array. `room`: its bytes, None if that is not known."""

    def __init__(self, address, value_type, room=None):
        self.address = address
        self.value_type = value_type
        self.room = MAX_ROW_LENGTH if room is None else room

    def size(self):
        return read_number(self.address, 2) & ARRAY_COUNT_MASK if self.address else 0

    @guarded
    def element(self, i):
        if self.value_type.kind == "bool":
            return "true" if read(self.address + 2 + i, 1)[0] else "false"
        offset, length = read_slot(self.address + 2 + 4 * i)
        if offset + length > self.room:
            return f"<outside the array: offset {offset}, length {length}>"
        if length == 0:
            return self.value_type.null()
        return self.value_type.encoded(self.address + offset, length)

    def elements(self):
        """(label, what to show) of each element."""
        size = self.size()
        fitting = max(self.room - 2, 0) // (1 if self.value_type.kind == "bool" else 4)
        shown = min(size, fitting, shown_elements())
        for i in range(shown):
            yield f"[{i}]", self.element(i)
        if fitting < size and shown == fitting:
            yield "...", f"<{size - fitting} more do not fit>"
        elif shown < size:
            yield "...", "..."

    @guarded
    def text(self):
        return "{" + ", ".join(str(element) for _, element in self.elements()) + "}"


# --- Classes and objects --------------------------------------------------------------------------


def bases(cls):
    """The class and its base classes, derived ones first."""
    found = [cls.strip_typedefs().unqualified()]
    for current in found:
        if current.code != gdb.TYPE_CODE_STRUCT or len(found) > MAX_BASES:
            continue
        inherited = (field for field in current.fields() if field.is_base_class)
        found.extend(field.type.strip_typedefs() for field in inherited)
    return found


def dynamic_class_name(address):
    """The name of the most derived class of an object, as its virtual table has it, or None."""
    try:
        symbol = gdb.execute(f"info symbol {read_pointer(address):#x}", to_string=True)
    except gdb.error:
        return None
    match = re.match(r"vtable for (.*) \+ \d+(?: in section .*)?$", symbol.strip())
    return match.group(1) if match else None


def class_names(value):
    """The names of an object's classes, of its type's and of those behind a base class."""
    classes = bases(value.type)
    name = dynamic_class_name(address_of(value))
    try:
        classes += bases(gdb.lookup_type(name)) if name else []
    except gdb.error:
        pass
    return [str(cls.name) for cls in classes] + ([name] if name else [])


DECLARED = ("Korvo::TableRow<", "Korvo::SubRow<")


def declared_layout(class_name):
    if class_name.startswith(DECLARED):
        return Layout.named(template_arguments(class_name)[0])
    return None


def own_fields(value, library_classes):
    """(name, value) of the members that the classes derived from the library's have added."""
    for cls in bases(value.type):
        if cls.name is None or not cls.name.startswith(library_classes):
            for field in cls.fields():
                is_member = not field.is_base_class and hasattr(field, "bitpos")
                if is_member and field.name and not field.name.startswith("_vptr"):
                    yield field.name, value.cast(cls)[field]


# --- Members --------------------------------------------------------------------------------------
#
# Compilers describe a class with virtual functions only where its table of them is, and classes of
# the standard library not at all everywhere: without the library's own debug information the
# debugger knows none of their members. They are read from their places, which are part of the
# binary interface and do not change within a major version.


def members(*kinds):
    """Offset of each member, given as (name, kind), in a class with a virtual table."""
    word = pointer_size()
    sizes = {
        "bool": (1, 1),
        "uint32": (4, 4),
        "double": (8, word),
        "pointer": (word, word),
        "timespec": (2 * word, word),
        "string": (2 * word + 16, word),
        "shared_ptr": (2 * word, word),
        "deque": (10 * word, word),
    }
    offsets, end = {}, word
    for name, kind in kinds:
        size, alignment = sizes[kind]
        offsets[name] = -(-end // alignment) * alignment
        end = offsets[name] + size
    return offsets


def row_members():
    return members(("rowBuf_", "shared_ptr"), ("row_", "pointer"))


def unit_members():
    return members(
        ("name_", "string"),
        ("timeSlice_", "timespec"),
        ("schedulingEnabled_", "bool"),
        ("invocations_", "uint32"),
        ("totalRunTime_", "double"),
        ("scheduler_", "shared_ptr"),
        ("runnable_", "bool"),
        ("clientReady_", "bool"),
        ("running_", "bool"),
        ("disabled_", "bool"),
        ("entry_", "pointer"),
    )


def scheduler_members():
    return members(("name_", "string"), ("runQueue_", "deque"))


@guarded
def string_at(address):
    """A std::string: pointer, length."""
    return text_at(read_pointer(address), read_pointer(address + pointer_size()))


def shared_pointer_at(address):
    """What a std::shared_ptr points to, and how many share it: pointer, control block with a
    virtual table and the count."""
    pointee, control = read_pointer(address), read_pointer(address + pointer_size())
    return pointee, read_number(control + pointer_size(), 4) if pointee and control else 0


class RowPrinter:
    """Any class that derives from BaseRow."""

    LIBRARY = ("Korvo::BaseRow", "Korvo::SubRowReference", "Korvo::detail::", *DECLARED)

    def __init__(self, value):
        self.value = value

    def row(self):
        """The row and how many objects hold its buffer."""
        address = address_of(self.value)
        names = class_names(self.value)
        layout = next(filter(None, map(declared_layout, names)), None)
        if "Korvo::SubRowReference" in names:
            return Row(read_pointer(address + row_members()["row_"]), layout), 1
        owner, holders = shared_pointer_at(address + row_members()["rowBuf_"])
        return Row(read_pointer(owner) if owner else 0, layout), holders

    @guarded
    def to_string(self):
        row, holders = self.row()
        return row.header(holders)

    def children(self):
        try:
            yield from self.row()[0].columns()
            yield from own_fields(self.value, self.LIBRARY)
        except gdb.error:
            return  # to_string() tells it


class RowBufferPrinter:
    """KoRowBuf, whose one member is a pointer."""

    def __init__(self, value):
        self.value = value

    @guarded
    def to_string(self):
        address = read_pointer(address_of(self.value))
        return f"{Row(address).header()} at {address:#x}" if address else "no buffer"


class SlotPrinter:
    """VColType."""

    def __init__(self, value):
        self.value = value

    @guarded
    def to_string(self):
        word = [int(self.value[name][i]) for name in ("offsetBytes", "lengthBytes") for i in (0, 1)]
        offset, length = struct.unpack("<HH", bytes(word))
        mark = ", array" if length & 0x8000 else ""
        return f"offset {offset}, length {length & 0x7FFF}{mark}"


class ArrayPrinter:
    """ArrayReference."""

    def __init__(self, value):
        name = template_arguments(value.type.strip_typedefs().name)[0]
        element = ValueType(name)
        address = value["array_"]
        self.array = lambda: Array(int(address), element, self.room(value, int(address)))

    @staticmethod
    def room(value, address):
        end = int(value["rowEnd_"])
        return max(end - address, 0) if end else None

    @guarded
    def to_string(self):
        array = self.array()
        return f"array of {array.size()}"

    def children(self):
        try:
            yield from self.array().elements()
        except gdb.error:
            return  # to_string() tells it

    @staticmethod
    def display_hint():
        return "array"


class TextPrinter:
    """What is one text: value references and addresses. `show` makes it of the value."""

    def __init__(self, value, show):
        self.value = value
        self.show = guarded(show)

    def to_string(self):
        return self.show(self.value)


def member_bytes(value):
    """The bytes of an array member."""
    low, high = value.type.range()
    return bytes(int(value[i]) for i in range(low, high + 1))


def show_string_reference(value):
    address = int(value["data_"])
    return text_at(address, int(value["length_"])) if address else "<null>"


def show_address_reference(value):
    address, family = int(value["addr_"]), int(value["af_"])
    if address == 0:
        return "<null>"
    return address_text(family, read(address, ADDRESS_LENGTH.get(family, 0)))


def show_prefix_reference(value):
    address, family = int(value["addr_"]), int(value["af_"])
    if address == 0:
        return "<null>"
    return prefix_text(family, read(address, ADDRESS_LENGTH.get(family, 0)), int(value["mask_"]))


def show_ipv4(value):
    return address_text(IPV4, int(value["addr_"]).to_bytes(4, "little"))


def show_ipv6(value):
    return address_text(IPV6, member_bytes(value["bytes_"]))


def show_address(value):
    return address_text(int(value["af_"]), member_bytes(value["storage_"]["bytes_"]))


def show_prefix(value):
    address = value["addr_"]
    content = member_bytes(address["storage_"]["bytes_"])
    return prefix_text(int(address["af_"]), content, int(value["mask_"]))


# --- Scheduler ------------------------------------------------------------------------------------


@guarded
def unit_text(address):
    place = {name: address + offset for name, offset in unit_members().items()}
    name = dynamic_class_name(address)
    states = {
        "runnable": read_number(place["runnable_"], 1),
        "client-ready": read_number(place["clientReady_"], 1),
        "running": read_number(place["running_"], 1),
        "disabled": read_number(place["disabled_"], 1),
        "queued": read_pointer(place["entry_"]),
    }
    states = ", ".join(state for state, is_set in states.items() if is_set) or "idle"
    turns = read_number(place["invocations_"], 4)
    seconds = number_text(read(place["totalRunTime_"], 8), "d")
    counters = f"{turns} turn{'s' if turns != 1 else ''}, {seconds} s"
    kind = f" of {name}" if name else ""
    return f"unit {string_at(place['name_'])}{kind} ({states}; {counters})"


@guarded
def entry_text(address):
    """A place in the run queue: whether it is valid, and its unit."""
    unit = read_pointer(address + pointer_size())
    return unit_text(unit) if read_number(address, 1) and unit else "<withdrawn>"


class UnitPrinter:
    """Any class that derives from Schedulable."""

    LIBRARY = ("Korvo::Schedulable",)

    def __init__(self, value):
        self.value = value

    @guarded
    def to_string(self):
        return unit_text(address_of(self.value))

    def children(self):
        try:
            yield from own_fields(self.value, self.LIBRARY)
        except gdb.error:
            return


class EntryPrinter:
    """RunnableEntry."""

    def __init__(self, value):
        self.value = value

    @guarded
    def to_string(self):
        return entry_text(address_of(self.value))


class PointerDeque:
    """The pointers in a std::deque, read without walking into one that is wrong: a map and its
    size, and for either end an element, its block's begin and end, and the block's place."""

    BLOCK = 512

    def __init__(self, address):
        self.word = pointer_size()
        content = read(address + 2 * self.word, 8 * self.word)
        ends = struct.unpack("<8" + ("Q" if self.word == 8 else "I"), content)
        self.begin, self.end = ends[:4], ends[4:]

    def size(self):
        """None where the deque is wrong."""
        for at, first, last, _ in (self.begin, self.end):
            if not first <= at <= last == first + self.BLOCK or (at - first) % self.word:
                return None
        blocks, rest = divmod(self.end[3] - self.begin[3], self.word)
        before, behind = self.begin[0] - self.begin[1], self.end[0] - self.end[1]
        size = (blocks * self.BLOCK + behind - before) // self.word
        return size if size >= 0 and rest == 0 else None

    def elements(self, count):
        start = self.begin[0] - self.begin[1]
        for at in range(start, start + count * self.word, self.word):
            block = read_pointer(self.begin[3] + at // self.BLOCK * self.word)
            yield read_pointer(block + at % self.BLOCK)


class SchedulerPrinter:
    """Any class that derives from Scheduler."""

    LIBRARY = ("Korvo::Scheduler", "Korvo::EventLoop")

    def __init__(self, value):
        self.value = value

    def queue(self):
        return PointerDeque(address_of(self.value) + scheduler_members()["runQueue_"])

    @guarded
    def to_string(self):
        name = string_at(address_of(self.value) + scheduler_members()["name_"])
        size = self.queue().size()
        return f"scheduler {name} (" + ("<no queue>" if size is None else f"{size} queued") + ")"

    def children(self):
        try:
            size = self.queue().size() or 0
            for i, entry in enumerate(self.queue().elements(min(size, shown_elements()))):
                yield f"[{i}]", entry_text(entry)
            yield from own_fields(self.value, self.LIBRARY)
        except gdb.error:
            return


# --- Which printer for which class ----------------------------------------------------------------

EXACT = {
    "Korvo::StringValueReference": lambda value: TextPrinter(value, show_string_reference),
    "Korvo::IpGenAddrReference": lambda value: TextPrinter(value, show_address_reference),
    "Korvo::IpGenPrefixReference": lambda value: TextPrinter(value, show_prefix_reference),
    "Korvo::IpAddr": lambda value: TextPrinter(value, show_ipv4),
    "Korvo::Ip6Addr": lambda value: TextPrinter(value, show_ipv6),
    "Korvo::IpGenAddr": lambda value: TextPrinter(value, show_address),
    "Korvo::IpGenPrefix": lambda value: TextPrinter(value, show_prefix),
    "Korvo::KoRowBuf": RowBufferPrinter,
    "Korvo::VColType": SlotPrinter,
    "Korvo::RunnableEntry": EntryPrinter,
}
DERIVED = {
    "Korvo::BaseRow": RowPrinter,
    "Korvo::Schedulable": UnitPrinter,
    "Korvo::Scheduler": SchedulerPrinter,
}


class KorvoPrinters(gdb.printing.PrettyPrinter):
    """Found by the name of a class or of one of its base classes."""

    def __init__(self):
        names = [*EXACT, "Korvo::ArrayReference", *DERIVED]
        super().__init__("KorvoAPI", [gdb.printing.SubPrettyPrinter(name) for name in names])
        self.by_name = {printer.name: printer for printer in self.subprinters}

    def __call__(self, value):
        cls = value.type.strip_typedefs().unqualified()
        if cls.code != gdb.TYPE_CODE_STRUCT or cls.name is None:
            return None
        if cls.name in EXACT:
            return self.is_on(cls.name) and EXACT[cls.name](value)
        if cls.name.startswith("Korvo::ArrayReference<") and cls.name.endswith(">"):
            return self.is_on("Korvo::ArrayReference") and ArrayPrinter(value)
        for base in bases(cls):
            if base.name in DERIVED:
                return self.is_on(base.name) and DERIVED[base.name](value)
        return None

    def is_on(self, name):
        return self.by_name[name].enabled or None


gdb.printing.register_pretty_printer(gdb.current_objfile(), KorvoPrinters(), replace=True)
