#!/usr/bin/env python3
"""Makes the manual pages of the C functions from Doxygen's XML, so that nothing is said twice.

Usage: man_pages.py XML_DIR OUTPUT_DIR VERSION HEADER...

One page for each function of the headers and one for each header, all in section 3.
"""

import pathlib
import re
import sys
import textwrap
import xml.etree.ElementTree as ElementTree

WIDTH = 76
MANUAL = "libgakppc functions"


def escape(text):
    """Roff takes a backslash for itself, and a minus that is to be copied needs one."""
    text = text.replace("\\", "\\e")
    return re.sub(r"(?<![\w-])-(?=\w)", r"\\-", text)


def inline(node):
    """The text of a paragraph, with its markup."""
    out = escape(node.text or "")
    for child in node:
        if child.tag == "ref":
            out += "\\fB" + inline(child) + "\\fP"
        elif child.tag == "computeroutput":
            out += "\\fI" + inline(child) + "\\fP"
        elif child.tag not in ("parameterlist", "simplesect"):
            raise ValueError("no rule for <%s> in a manual page" % child.tag)
        out += escape(child.tail or "")
    return out


def lines(text):
    """Text as input lines: none may begin with a control character."""
    out = []
    for sentence in re.split(r"(?<=[.:;])\s+", " ".join(text.split())):
        out += textwrap.wrap(sentence, WIDTH, break_long_words=False, break_on_hyphens=False)
    return [re.sub(r"^([.'])", r"\\&\1", line) for line in out]


def plain(node):
    return "" if node is None else " ".join("".join(node.itertext()).split())


def paragraphs(node):
    out = []
    for para in node.findall("para"):
        text = lines(inline(para))
        if text:
            out += [".PP"] + text
    return out[1:]


def section(title, content):
    return [".SH " + title] + content if content else []


def heading(name, version):
    return [".\\\" Made from the comments of the headers.",
            '.TH "%s" 3 "" "libgakppc %s" "%s"' % (name, version, MANUAL)]


def summary(node):
    """A brief description as the NAME section wants it: no capital, no full stop."""
    text = plain(node).rstrip(".")
    return escape(text[0].lower() + text[1:])


def quoted(text):
    return '"%s"' % text.replace('"', '\\(dq')


def prototype(function):
    """Lines of .BI: what is fixed in bold, the names of the arguments in italics."""
    opening = plain(function.find("type")) + " "
    opening = opening.replace("* ", "*") if opening.endswith("* ") else opening
    opening += function.findtext("name") + "("
    arguments = [(re.sub(r" ?\*", " *", plain(param.find("type"))), param.findtext("declname"))
                 for param in function.findall("param")]
    if not arguments:
        return [".B " + quoted(opening + "void);")]
    out, indent = [], " " * len(opening)
    fixed, words, width = opening, [], 0
    for index, (kind, name) in enumerate(arguments):
        kind = kind if name is None or kind.endswith("*") else kind + " "
        name = name or ""
        ending = ");" if index + 1 == len(arguments) else ", "
        if words and width + len(fixed) + len(kind) + len(name) + len(ending) > WIDTH:
            out.append(".BI " + " ".join(words + [quoted(fixed.rstrip())]))
            fixed, words, width = indent, [], 0
        words += [quoted(fixed + kind), quoted(name)]
        width += len(fixed) + len(kind) + len(name)
        fixed = ending
    out.append(".BI " + " ".join(words + [quoted(fixed)]))
    return out


def arguments(details):
    out = []
    for item in details.iter("parameteritem"):
        names = ", ".join(plain(n) for n in item.iter("parametername"))
        text = []
        for para in item.find("parameterdescription").findall("para"):
            text += lines(inline(para))
        out += [".TP", ".I " + names] + text
    return out


def returned(details):
    for sect in details.iter("simplesect"):
        if sect.get("kind") == "return":
            return paragraphs(sect)
    return []


def references(names):
    return [".BR %s (%s)%s" % (name, number, "," if index + 1 < len(names) else "")
            for index, (name, number) in enumerate(names)]


def function_page(function, header, functions, version):
    name = function.findtext("name")
    details = function.find("detaileddescription")
    description = paragraphs(details)
    if not description:
        description = lines(inline(function.find("briefdescription/para")))
    mentioned = {plain(ref).rstrip("()") for ref in details.iter("ref")}
    also = [(other, 3) for other in functions if other != name and other in mentioned] + [(header, 3)]
    return (heading(name, version)
            + section("NAME", [name + " \\- " + summary(function.find("briefdescription"))])
            + section("LIBRARY", ["libgakppc (pkg\\-config: gakppc)"])
            + section("SYNOPSIS", [".nf", ".B #include <gakppc/%s>" % header, ".PP"] + prototype(function) + [".fi"])
            + section("DESCRIPTION", description + arguments(details))
            + section("RETURN VALUE", returned(details))
            + section("NOTES", ["What holds for all functions of this header, threads and ownership above",
                                "all, is in", ".BR %s (3)." % header])
            + section("SEE ALSO", references(also)))


def constants(compound):
    out = []
    for value in compound.iter("enumvalue"):
        number = plain(value.find("initializer")).lstrip("= ")
        out += [".TP", ".BR %s \" %s\"" % (value.findtext("name"), number)]
        out += lines(plain(value.find("briefdescription")))
    return out


def header_page(header, compound, functions, version):
    content = []
    for name, function in functions.items():
        content += [".TP", ".BR %s (3)" % name] + lines(inline(function.find("briefdescription/para")))
    also = [("gakppctl", 1), ("gakppctl-status", 1)]
    return (heading(header, version)
            + section("NAME", [header + " \\- " + summary(compound.find("briefdescription"))])
            + section("SYNOPSIS", [".B #include <gakppc/%s>" % header])
            + section("DESCRIPTION", paragraphs(compound.find("detaileddescription")))
            + section("FUNCTIONS", content)
            + section("RESULTS", constants(compound))
            + section("SEE ALSO", references(also)))


def main(xml, output, version, headers):
    output.mkdir(parents=True, exist_ok=True)
    for header in headers:
        path = xml / (header.replace("_", "__").replace(".", "_8") + ".xml")
        compound = ElementTree.parse(path).getroot().find("compounddef")
        functions = {f.findtext("name"): f for f in compound.iter("memberdef") if f.get("kind") == "function"}
        pages = {header: header_page(header, compound, functions, version)}
        for name, function in functions.items():
            pages[name] = function_page(function, header, functions, version)
        for name, page in pages.items():
            (output / (name + ".3")).write_text("\n".join(page) + "\n", encoding="utf-8")


if __name__ == "__main__":
    if len(sys.argv) < 5:
        sys.exit(__doc__)
    main(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3], sys.argv[4:])
