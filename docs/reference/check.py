#!/usr/bin/env python3
"""Tells the public names that have no page or no text in the reference; fails if there are any.

    check.py DOCS_DIR INCLUDE_DIR...

The names are the compiler's: everything that the headers in the INCLUDE_DIRs declare in their namespaces, without
private members and namespace detail, but for the classes there that public ones derive from. Pages
and texts are Doxygen's, in DOCS_DIR/html and DOCS_DIR/xml. Overloads share a name and may share a
text.
"""

import pathlib
import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

from clang import cindex
from clang.cindex import CursorKind as Kind

CLASSES = {Kind.CLASS_DECL, Kind.STRUCT_DECL, Kind.CLASS_TEMPLATE}
MEMBERS = {
    Kind.FUNCTION_DECL,
    Kind.FUNCTION_TEMPLATE,
    Kind.CXX_METHOD,
    Kind.CONSTRUCTOR,
    Kind.CONVERSION_FUNCTION,
    Kind.FIELD_DECL,
    Kind.VAR_DECL,
    Kind.TYPEDEF_DECL,
    Kind.TYPE_ALIAS_DECL,
    Kind.TYPE_ALIAS_TEMPLATE_DECL,
    Kind.ENUM_CONSTANT_DECL,
}
# Macros that the headers set for themselves.
OWN_MACROS = {"KORVO_SETTINGS_TAG", "KORVO_THREAD_SANITIZER"}


def parse(include_dirs, headers):
    resource_dir = subprocess.run(
        ["clang++-14", "-print-resource-dir"], check=True, capture_output=True, text=True
    ).stdout.strip()
    arguments = ["-x", "c++", "-std=c++20", "-resource-dir", resource_dir]
    arguments += [f"-I{include_dir}" for include_dir in include_dirs]
    source = "".join(f'#include "{header}"\n' for header in headers)
    unit = cindex.Index.create().parse("all.cpp", arguments, unsaved_files=[("all.cpp", source)])
    errors = [str(each) for each in unit.diagnostics if each.severity >= cindex.Diagnostic.Error]
    if errors:
        sys.exit("\n".join(errors))
    return unit


def name_of(cursor):
    """`Row` for a template Row<T>, whose constructors are called so too."""
    name = cursor.spelling
    if cursor.kind == Kind.CONVERSION_FUNCTION:
        return "operator type"  # not every tool writes the type alike
    return name if name.startswith("operator") else name.partition("<")[0]


def full_name_of(cursor):
    scope = cursor.semantic_parent
    if cursor.kind == Kind.ENUM_CONSTANT_DECL and not scope.is_scoped_enum():
        scope = scope.semantic_parent
    is_outermost = scope.kind in (Kind.TRANSLATION_UNIT, Kind.INVALID_FILE)
    return name_of(cursor) if is_outermost else f"{full_name_of(scope)}::{name_of(cursor)}"


def public_names(unit, files):
    """{qualified name: its declaration}"""
    names = {}
    inherited = set()  # classes of namespace detail

    def visit(scope, names=names):
        for child in scope.get_children():
            if child.location.file is None:
                continue
            if str(pathlib.Path(child.location.file.name).resolve()) not in files:
                continue
            if child.access_specifier == cindex.AccessSpecifier.PRIVATE:
                continue
            if child.kind == Kind.NAMESPACE:
                visit(child)
            elif child.kind == Kind.CXX_BASE_SPECIFIER:
                inherited.update(re.findall(r"detail::(\w+)", child.spelling))
            elif child.kind == Kind.FRIEND_DECL:
                friends = {}
                visit(child, friends)
                class_name = full_name_of(scope)
                names |= {f"{class_name}::{name_of(each)}": each for each in friends.values()}
            elif child.kind in CLASSES and child.is_definition():
                names.setdefault(full_name_of(child), child)
                visit(child)
            elif child.kind == Kind.ENUM_DECL:
                names.setdefault(full_name_of(child), child)
                visit(child)
            elif child.kind in MEMBERS and not is_given(child):
                is_body_of_another = (
                    child.semantic_parent != child.lexical_parent
                    and child.semantic_parent.kind in CLASSES
                )
                if not is_body_of_another:
                    names.setdefault(full_name_of(child), child)

    visit(unit.cursor)
    outside = {re.sub(rf"detail::(?=({'|'.join(inherited) or ' '})\b)", "", name): cursor
               for name, cursor in names.items()}  # fmt: skip
    hidden = re.compile(r"^std::|::detail\b|^::|::::")
    return {name: cursor for name, cursor in outside.items() if not hidden.search(name)}


def is_given(cursor):
    """Whether the language says what it does: defaulted and deleted functions."""
    tokens = [token.spelling for token in cursor.get_tokens()]
    return any(a == "=" and b in ("default", "delete") for a, b in zip(tokens, tokens[1:]))


def macros(files):
    found = {}
    for path in files:
        text = pathlib.Path(path).read_text(encoding="utf-8")
        for match in re.finditer(r"^#define (KORVO_\w+)", text, re.MULTILINE):
            if match.group(1) not in OWN_MACROS:
                found[match.group(1)] = f"{path}:{text[:match.start()].count(chr(10)) + 1}"
    return found


def has_text(definition):
    return any(
        "".join(part.itertext()).strip()
        for tag in ("briefdescription", "detaileddescription")
        for part in definition.findall(tag)
    )


def described_names(docs_dir):
    """{qualified name: (whether it has a text, whether it has a page)}, overloads together."""
    described = {}
    anchors = {}

    def has_page(identifier):
        """A page of its own, or a place on its scope's."""
        if (docs_dir / "html" / f"{identifier}.html").is_file():
            return True
        page, _, anchor = identifier.rpartition("_1")
        path = docs_dir / "html" / f"{page}.html"
        if path not in anchors:
            text = path.read_text(encoding="utf-8") if path.is_file() else ""
            anchors[path] = set(re.findall(r'id="(\w+)"', text))
        return anchor in anchors[path]

    def add(name, definition):
        text, page = described.get(name, (False, False))
        page = page or has_page(definition.get("id"))
        described[name] = (text or has_text(definition), page)

    for path in (docs_dir / "xml").glob("*.xml"):
        for compound in ElementTree.parse(path).getroot().findall("compounddef"):
            scope = re.sub(r"<.*", "", compound.findtext("compoundname"))
            if compound.get("kind") in ("class", "struct", "namespace"):
                add(scope, compound)
            scope = scope + "::" if compound.get("kind") in ("class", "struct", "namespace") else ""
            for member in compound.iter("memberdef"):
                name = scope + re.sub(r"^operator \w.*", "operator type", member.findtext("name"))
                add(name, member)
                for value in member.findall("enumvalue"):
                    # Enumerators stand on their enumeration's page.
                    scoped = f"{name}::" if member.get("strong") == "yes" else scope
                    has_value_text = has_text(value)
                    described[scoped + value.findtext("name")] = (
                        has_value_text,
                        has_page(value.get("id")),
                    )
    return described


def main():
    docs_dir, *include_dirs = (pathlib.Path(each) for each in sys.argv[1:])
    headers = sorted(path for each in include_dirs for path in each.resolve().rglob("*.h"))
    files = {str(path) for path in headers}
    names = {
        name: f"{cursor.location.file.name}:{cursor.location.line}"
        for name, cursor in public_names(parse(include_dirs, headers), files).items()
    }
    names |= macros(files)
    if not names:
        sys.exit("the headers declare no public name")
    described = described_names(docs_dir)

    faults = 0
    for name, place in sorted(names.items()):
        text, page = described.get(name, (False, False))
        if not (text and page):
            faults += 1
            print(f"{place}: {name} has no {'page' if text else 'text'}")
    print(f"{len(names)} public names, {faults} without a page or a text")
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
