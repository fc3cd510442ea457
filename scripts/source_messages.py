"""The messages of the source: all that a user can be told, as the formats they are made from."""
import re
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

LITERAL = r'"((?:[^"\\\n]|\\.)*)"'
LITERALS = r'((?:"(?:[^"\\\n]|\\.)*"\s*)+)'
# A message stands where its error is made, or in a table of messages of which one is chosen.
TRANSLATABLE = re.compile(r'(?:\blocalized\(|\blocalizedStringForKey\(|\.\w+ = )\s*' + LITERALS)
FINAL = re.compile(r'\bwithFormat\(\s*' + LITERALS)
ESCAPE = re.compile(r"\\(?:x([0-9A-Fa-f]{1,2})[0-9A-Fa-f]*|([0-7]{1,3})|(.))", re.DOTALL)


def _character(escape):
    hexadecimal, octal, other = escape.groups()
    if other is not None:
        return {"n": "\n", "t": "\t", "r": "\r"}.get(other, other)
    return chr(int(hexadecimal, 16) if hexadecimal else int(octal, 8))


def text_of(literals):
    """The text of C++ string literals that stand one after the other."""
    return "".join(ESCAPE.sub(_character, text) for text in re.findall(LITERAL, literals))


def _messages(shape):
    found = {}
    for path in sorted((ROOT / "src").rglob("*.[ch]pp")):
        source = path.read_text(encoding="utf-8")
        for match in shape.finditer(source):
            text = text_of(match.group(1))
            # Sentences and formats; other designated initializers hold names and units.
            if text.endswith(".") or "%" in text:
                line = source.count("\n", 0, match.start(1)) + 1
                found.setdefault(text, []).append(f"{path.relative_to(ROOT)}:{line}")
    return found


def translatable_messages():
    """Every message that is looked up in the strings table, and the places that tell it."""
    return _messages(TRANSLATABLE)


def source_messages():
    """Every message, and the places ("path:line") that tell it."""
    found = translatable_messages()
    for text, places in _messages(FINAL).items():
        found[text] = sorted(found.get(text, []) + places)
    return found
