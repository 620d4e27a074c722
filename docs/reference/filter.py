#!/usr/bin/env python3
"""What Doxygen reads instead of a file: `filter.py FILE` prints it, line for line.

Headers: the comment at the head of a file becomes the text of its page. What row
classes and indexes inherit leaves namespace detail, whose names have no page. What follows from the
names' own rules gets a text: a setter `xIs`, a member `x_`, and the operators that go with another.

Markdown: headings get the anchors that they have where the sources are browsed, and links between
the pages and to headers lead to their pages here.
"""

import html
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = ("*.md", "docs/*.md", "examples/*/README.md")  # as the Doxyfile's INPUT has them


def page_name(path):
    relative = path.relative_to(ROOT).with_suffix("")
    if str(relative) == "README":
        return "mainpage"
    return "-".join(relative.parts).lower().replace("docs-", "").replace("_", "-")


def heading_anchor(path, heading):
    """Unique among all pages; the page's name, then what a browser of the sources makes of it."""
    slug = re.sub(r"[^\w\- ]", "", re.sub(r"`", "", heading).lower()).replace(" ", "-")
    return f"{page_name(path)}-{slug}"


def link_target(path, target):
    """Where a link of the page `path` leads here, or None."""
    if "://" in target:
        return target
    name, _, anchor = target.partition("#")
    linked = (path.parent / name).resolve() if name else path
    if any(linked in ROOT.glob(pages) for pages in PAGES):
        name = page_name(linked)
        return "@ref " + (f"{name}-{anchor}" if anchor else name.replace("mainpage", "index"))
    if linked.suffix == ".h":
        return "@ref " + "/".join(linked.parts[-2:])
    if linked.suffix in (".svg", ".png"):
        return linked.name
    return None


def markdown(path, text):
    out = []
    in_code = False
    has_title = False

    def link(match):
        image, label, target = match.groups()
        target = link_target(path, target)
        if image:
            return f"![{label}]({target})"
        return f"[{label}]({target})" if target else label

    def code(match):  # a backslash in one begins a command
        return "<code>" + html.escape(match.group(1)).replace("\\", "\\\\") + "</code>"

    for line in text.split("\n"):
        if line.startswith("```"):
            in_code = not in_code
            line = line.replace("```cpp", "```{.cpp}")
        elif not in_code:
            heading = re.match(r"(#+) (.*)$", line)
            if heading:
                marks, title = heading.groups()
                anchor = heading_anchor(path, title) if has_title else page_name(path)
                has_title = True
                line = f"{marks} {title} {{#{anchor}}}"
            line = re.sub(r"`([^`]*\\[^`]*)`", code, line)
            if line.startswith("|"):  # a number keeps its unit
                line = re.sub(r"(\d) (ns|us|ms|s|B|KiB|MiB)\b", "\\1\u00a0\\2", line)
            line = re.sub(r"(!?)\[([^\]]*)\]\(([^)\s]+)\)", link, line)
        out.append(line)
    return "\n".join(out)


FOLLOWING = {
    "!=": "==", ">": "<", "<=": "<", ">=": "<=", "<=>": "==",
    "--": "++", "+=": "+", "-=": "+=", "-": "+",
}  # fmt: skip


def with_texts_of_names(text):
    """The same lines; those that declare such a name without a comment get one at their end."""
    lines = text.split("\n")
    for i, line in enumerate(lines):
        above = lines[i - 1].strip()
        if "///" in line or above.startswith("///"):
            continue
        setter = re.match(r" +void (\w+)Is\(.*[;}]$", line)
        member = re.match(r" +(?!return|using|friend)[\w:].* \*?(\w+)_( = .*|\{.*\})?;$", line)
        operator = re.match(r" +(?:friend |constexpr )*[\w:&]+ operator([-+<>=!]+)\(.*[;{}]$", line)
        if setter:
            lines[i] += f" ///< Sets {setter.group(1)}()."
        elif member:
            lines[i] += f" ///< What {member.group(1)}() tells."
        elif operator and operator.group(1) in FOLLOWING:
            lines[i] = f"/** Goes with operator{FOLLOWING[operator.group(1)]}. */ {line}"
    return "\n".join(lines)


def header(text):
    # A specialisation of a variable of the standard library's, which Doxygen takes for an error.
    text = re.sub(r"template <typename T>\n(.*enable_borrowed_range.*)", r"\n", text)

    text = re.sub(r"friend (class )?[\w:]+;", "", text)

    head = re.search(r"(?<=#pragma once\n\n)(//(?!/).*\n)+", text)
    if not head:
        file = "/// @file\n/// Declarations that the other headers share.\n"
        text = text.replace("#pragma once\n\n", f"#pragma once\n{file}\n", 1)
    else:
        lines = head.group().splitlines()
        lines = [re.sub(r"^//(   ?)(?=\S| )", r"///    \1", line) for line in lines]
        lines = [re.sub(r"^//(?!/)", "///", line.replace("\\", "\\\\")) if line.startswith("// ") else
                 re.sub(r"^//(?!/)", "///", line) for line in lines]  # fmt: skip
        lines[0] = lines[0].replace("/// ", "/// @file\n/// ", 1)
        text = text.replace(head.group(), "\n".join(lines) + "\n")
        text = text.replace("#pragma once\n\n", "#pragma once\n", 1)  # one line was added

    names = "(ColumnReaders|ColumnWriters|IndexHandle)"
    inherited = rf"(?<=\n)((?:///[^\n]*\n)+template <[^\n]*\nclass {names} \{{.*?\n\}};)"
    text = re.sub(inherited, r"} \1 namespace detail {", text, flags=re.DOTALL)
    return with_texts_of_names(re.sub(rf"detail::{names}", r"\1", text))


def main():
    path = pathlib.Path(sys.argv[1]).resolve()
    text = path.read_text(encoding="utf-8")
    sys.stdout.write(markdown(path, text) if path.suffix == ".md" else header(text))


if __name__ == "__main__":
    main()
