"""The texts of mutants: other operators, other literals, and how a change is shown."""

import hashlib
import re

LONGEST = 110

OTHER_OPERATORS = {
    "<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "&": "|", "|": "&", "^": "|", "<<": ">>", ">>": "<<",
    "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "|=": "&=", "&=": "|=", "^=": "|=", "<<=": ">>=", ">>=": "<<=",
}


def shorten(text):
    """The text in one line. A long text ends in a digest, so that it still differs from others."""
    text = re.sub(r"\s+", " ", text).strip()
    if len(text) > LONGEST:
        text = f"{text[:LONGEST]}... {hashlib.sha256(text.encode()).hexdigest()[:6]}"
    return text


def change(original, fault):
    return f"{shorten(original)} -> {shorten(fault)}"


def other_literals(kind, text):
    """Pairs of the expression that replaces a literal and how it is shown."""
    if kind == "CXX_BOOL_LITERAL_EXPR" and text in ("true", "false"):
        other = "false" if text == "true" else "true"
        return [(other, other)]
    if kind == "INTEGER_LITERAL" and re.fullmatch(r"[0-9][0-9a-fA-FxXuUlLzZ']*", text):
        number = re.match(r"(0[xX][0-9a-fA-F']+|[0-9']+)(.*)", text)
        value = int(number[1].replace("'", ""), 0 if not re.fullmatch("0[0-7']+", number[1]) else 8)
        if value in (0, 1):
            other = f"{1 - value}{number[2]}"
            return [(other, other)]
        return [(f"{text} + 1", f"{text} + 1")]
    if kind == "FLOATING_LITERAL" and re.fullmatch(r"[0-9.]+([eE][+-]?[0-9]+)?[fFlL]?", text):
        return [(f"{text} + 1", f"{text} + 1")]
    if kind == "CHARACTER_LITERAL" and text.endswith("'"):
        return [(f"static_cast<decltype({text})>({text} + 1)", f"{text} + 1")]
    if kind == "STRING_LITERAL":
        other = other_string(text)
        return [(other, other)] if other else []
    return []


def other_string(text):
    """The string with another character, so that it has the same type. None if it has no character to change."""
    match = re.match(r'(u8|u|U|L)?"((?:[^"\\\n]|\\.)*)"', text)
    if not match:
        return None
    body = match[2]
    # A character of an escape sequence or of a conversion of printf stays.
    free = re.sub(r"\\(x[0-9a-fA-F]*|[0-7]{1,3}|.)|%[-+ #0-9.*]*[hlzjt]*.", lambda found: "\0" * len(found[0]), body)
    place = re.search(r"[A-Za-z0-9]", free) or re.search(r"[^\0]", free)
    if not place or ord(place[0]) > 126:
        return None
    other = "x" if place[0] == "X" else "X"
    at = match.start(2) + place.start()
    return text[:at] + other + text[at + 1:]
