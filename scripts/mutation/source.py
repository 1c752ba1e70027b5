"""A C++ file as bytes: where brackets close, which parts are comments, text on one line."""
import re

_TOKEN = re.compile(rb'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|\d[\w\']*|[()\[\]{};]',
                    re.DOTALL)
_PAIRS = {b"(": b")", b"[": b"]", b"{": b"}"}


def closing(text, at):
    """Offset of the bracket that closes the one at `at`."""
    depth = 0
    for token in _TOKEN.finditer(text, at):
        if token[0] in _PAIRS:
            depth += 1
        elif token[0] in _PAIRS.values():
            depth -= 1
            if depth == 0:
                return token.start()
    raise ValueError(f"nothing closes the bracket at {at}")


def parts(text, begin, end):
    """The ranges between the semicolons of [begin, end) that no inner bracket holds."""
    found = []
    at = begin
    while True:
        token = _TOKEN.search(text, at, end)
        if token is None:
            return found + [(begin, end)]
        at = token.end()
        if token[0] in _PAIRS:
            at = closing(text, token.start()) + 1
        elif token[0] == b";":
            found.append((begin, token.start()))
            begin = at


def stripped(text, begin, end):
    """The range without the blanks around it."""
    while begin < end and text[begin:begin + 1].isspace():
        begin += 1
    while begin < end and text[end - 1:end].isspace():
        end -= 1
    return begin, end


def one_line(code):
    """The code without comments and line ends."""
    code = _TOKEN.sub(lambda token: b" " if token[0][:2] in (b"//", b"/*") else token[0], code)
    return re.sub(rb"\s*\n\s*", b" ", code)


def without_comments(code):
    return _TOKEN.sub(lambda token: b"" if token[0][:2] in (b"//", b"/*") else token[0], code)
