"""Finds the faults of a file in the tree that libclang makes of it."""
import glob
import re

from clang import cindex
from clang.cindex import CursorKind as Kind
from clang.cindex import StorageClass, TypeKind

from . import source
from .fault import Fault

FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR,
             Kind.FUNCTION_TEMPLATE, Kind.CONVERSION_FUNCTION}
SCOPES = {Kind.NAMESPACE, Kind.CLASS_DECL, Kind.STRUCT_DECL, Kind.CLASS_TEMPLATE,
          Kind.CLASS_TEMPLATE_PARTIAL_SPECIALIZATION, Kind.LINKAGE_SPEC, Kind.UNEXPOSED_DECL}
# What the compiler must know, and names, which hold nothing that runs.
COMPILE_TIME = {Kind.STATIC_ASSERT, Kind.TYPE_REF, Kind.TEMPLATE_REF, Kind.NAMESPACE_REF,
                Kind.TYPEDEF_DECL, Kind.TYPE_ALIAS_DECL, Kind.ENUM_DECL, Kind.ENUM_CONSTANT_DECL,
                Kind.CXX_UNARY_EXPR}
VARIABLES = {Kind.VAR_DECL, Kind.FIELD_DECL, Kind.PARM_DECL}
NUMBERS = {TypeKind.CHAR_U, TypeKind.UCHAR, TypeKind.CHAR_S, TypeKind.SCHAR, TypeKind.SHORT,
           TypeKind.USHORT, TypeKind.INT, TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG,
           TypeKind.LONGLONG, TypeKind.ULONGLONG, TypeKind.FLOAT, TypeKind.DOUBLE}
BOUNDS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
EQUALITY = {"==": "!=", "!=": "=="}
LOGIC = {"&&": "||", "||": "&&"}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "&": "|", "|": "&", "^": "|",
              "<<": ">>", ">>": "<<"}
COMPOUND = {"+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "%=": "*=", "&=": "|=", "|=": "&=",
            "<<=": ">>=", ">>=": "<<="}
LOGGERS = re.compile(r"^(trace\s*\.|logsink_message|log_handler|log_candidates)")


def resource_folder():
    """Where clang keeps the headers of its own; Debian's libclang does not look there."""
    return sorted(glob.glob("/usr/lib/llvm-*/lib/clang/*/include"))[-1]


def is_number(cursor):
    return cursor.type.get_canonical().kind in NUMBERS


def is_bool(cursor):
    return cursor.type.get_canonical().kind == TypeKind.BOOL


class Finder:
    """The faults of the files of one translation unit that `wanted` names (path -> name)."""

    def __init__(self, unit_path, arguments, wanted):
        index = cindex.Index.create()
        self.unit = index.parse(unit_path, [*arguments, "-isystem", resource_folder()],
                                options=cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        errors = [str(note) for note in self.unit.diagnostics if note.severity >= 3]
        if errors:
            raise SystemExit("mutate: libclang does not read " + unit_path + "\n" + errors[0])
        self.wanted = wanted
        self.faults = []
        self.constants = {}
        self.function = ""
        self.logging = False
        self.early = False
        self.negated = set()

    def find(self):
        top = list(self.unit.cursor.get_children())
        macros = {}
        for cursor in top:
            if cursor.kind == Kind.MACRO_INSTANTIATION and cursor.location.file:
                name = cursor.location.file.name
                if name in self.wanted:
                    macros.setdefault(name, []).append(self.range(cursor))
        for cursor in top:
            name = cursor.location.file.name if cursor.location.file else ""
            if name not in self.wanted or cursor.kind.is_preprocessing():
                continue
            self.path = self.wanted[name]
            with open(name, "rb") as file:
                self.text = file.read()
            self.macros = macros.get(name, [])
            self.declaration(cursor)
        return self.faults

    # Places

    def range(self, cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def code(self, begin, end):
        return self.text[begin:end].decode()

    def in_macro(self, begin, end):
        return any(first <= begin and end <= last for first, last in self.macros)

    def add(self, kind, begin, end, after, *, before=None, code=None, form="expression"):
        before = self.code(begin, end) if before is None else before
        self.faults.append(Fault(
            file=self.path, line=self.text.count(b"\n", 0, begin) + 1, function=self.function,
            kind=kind, begin=begin, end=end,
            before=source.one_line(before.encode()).decode(),
            after=source.one_line(after.encode()).decode(),
            form=form, code=source.one_line((code or after).encode()).decode(),
            log=self.logging, early=self.early))

    # Declarations

    def declaration(self, cursor):
        if cursor.kind in SCOPES:
            for child in cursor.get_children():
                self.declaration(child)
        elif cursor.kind in FUNCTIONS:
            outer, self.function = self.function, self.name_of(cursor)
            for child in cursor.get_children():
                if child.kind in VARIABLES:
                    self.variable(child)
                elif child.kind == Kind.COMPOUND_STMT:
                    self.body(child)
                elif child.kind == Kind.CALL_EXPR:  # the initial value of a base or a member
                    for argument in child.get_arguments():
                        self.expression(argument)
                elif child.kind.is_expression():
                    self.expression(child)
            self.function = outer
        elif cursor.kind in VARIABLES:
            outer, self.function = self.function, self.name_of(cursor)
            self.variable(cursor)
            self.function = outer

    def name_of(self, cursor):
        scope = cursor.semantic_parent
        names = [cursor.spelling]
        while scope is not None and scope.kind != Kind.TRANSLATION_UNIT:
            if scope.spelling:
                names.insert(0, scope.spelling)
            scope = scope.semantic_parent
        return "::".join(names)

    def variable(self, cursor):
        """The initial value. That of a constant the compiler knows counts where it is used."""
        begin, end = self.range(cursor)
        name = cursor.location.offset
        if cursor.kind == Kind.FIELD_DECL and cursor.is_bitfield():
            return
        if re.search(rb"\bconstexpr\b", self.text[begin:name]):
            if not self.is_table(cursor):
                return
            self.loosen(begin, name)
        at = name + len(cursor.spelling)
        while self.text[at:at + 1] == b"[":
            at = source.closing(self.text, at) + 1
        outer, self.early = self.early, self.is_computed_early(cursor)
        for child in cursor.get_children():
            if child.extent.start.offset >= at and child.kind.is_expression():
                self.initial_value(child)
        self.early = outer

    def is_computed_early(self, cursor):
        """Whether the compiler computes the value itself when it can."""
        return cursor.kind == Kind.VAR_DECL and (
            cursor.storage_class == StorageClass.STATIC or cursor.type.is_const_qualified() or
            cursor.semantic_parent.kind not in FUNCTIONS)

    def is_table(self, cursor):
        kind = cursor.type.get_canonical().kind
        if kind == TypeKind.RECORD:
            return "string_view" not in cursor.type.get_canonical().spelling
        return kind == TypeKind.CONSTANTARRAY and b"{" in self.text[slice(*self.range(cursor))]

    def loosen(self, begin, name):
        """A table of constants that is filled when the program starts can be switched."""
        at = self.text.index(b"constexpr", begin, name)
        self.add("table", at, at + len("constexpr"), "const", form="always")

    def initial_value(self, cursor):
        if is_bool(cursor) and not self.is_plain(cursor):
            self.negate(*self.range(cursor))
        self.expression(cursor)

    # Statements

    def body(self, compound):
        children = list(compound.get_children())
        for child in children:
            self.statement(child, last=child == children[-1])

    def statement(self, cursor, last=False):
        kind = cursor.kind
        begin, end = self.range(cursor)
        if kind == Kind.COMPOUND_STMT:
            for child in cursor.get_children():
                self.statement(child)
        elif kind == Kind.DECL_STMT:
            for child in cursor.get_children():
                if child.kind in VARIABLES:
                    self.variable(child)
                else:
                    self.declaration(child)
        elif kind in (Kind.IF_STMT, Kind.WHILE_STMT):
            self.branch(cursor)
        elif kind == Kind.FOR_STMT:
            self.loop(cursor)
        elif kind == Kind.DO_STMT:
            *bodies, condition = cursor.get_children()
            self.condition(condition, *self.range(condition))
            for child in bodies:
                self.statement(child)
        elif kind in (Kind.CASE_STMT, Kind.DEFAULT_STMT):
            for child in list(cursor.get_children())[kind == Kind.CASE_STMT:]:
                self.statement(child)
        elif kind in (Kind.BREAK_STMT, Kind.CONTINUE_STMT):
            self.drop(begin, end, "jump")
        elif kind == Kind.RETURN_STMT:
            self.return_statement(cursor, last)
        elif kind.is_expression():
            self.expression_statement(cursor)
        else:
            for child in cursor.get_children():
                if child.kind in VARIABLES:
                    self.variable(child)
                elif child.kind.is_statement():
                    self.statement(child)
                elif child.kind.is_expression():
                    self.expression(child)

    def drop(self, begin, end, kind):
        """A statement that is no expression, with its semicolon."""
        while self.text[end:end + 1].isspace():
            end += 1
        if self.text[end:end + 1] == b";" and not self.in_macro(begin, end):
            self.add(kind, begin, end + 1, ";", form="statement")

    def expression_statement(self, cursor):
        begin, end = self.range(cursor)
        if self.in_macro(begin, end) or cursor.kind == Kind.CSTYLE_CAST_EXPR:
            return
        outer = self.logging
        self.logging = outer or LOGGERS.match(self.code(begin, end)) is not None
        self.add("removal", begin, end, "", form="void")
        self.expression(cursor)
        self.logging = outer

    def return_statement(self, cursor, last):
        begin, end = self.range(cursor)
        children = list(cursor.get_children())
        value = children[0] if children else None
        if value is not None and value.kind != Kind.INIT_LIST_EXPR \
                and value.type.get_canonical().kind == TypeKind.VOID:
            self.add("removal", *self.range(value), "", form="void")
        elif not last:
            self.drop(begin, end, "removal")
        if value is None:
            return
        first, final = self.range(value)
        kind = value.type.get_canonical().kind
        if self.is_plain(value) or self.in_macro(first, final):
            pass
        elif kind == TypeKind.BOOL:
            self.negate(first, final)
        elif kind in NUMBERS or kind == TypeKind.POINTER:
            zero = "nullptr" if kind == TypeKind.POINTER else "0"
            text = self.code(first, final)
            self.add("value", first, final, zero, code=f"static_cast<decltype(({text})+0)>({zero})")
        self.expression(value)

    def branch(self, cursor):
        begin, _ = self.range(cursor)
        opening = self.text.index(b"(", begin)
        if b"constexpr" in self.text[begin:opening]:
            children = list(cursor.get_children())[1:]
        else:
            end = source.closing(self.text, opening)
            inside = [child for child in cursor.get_children()
                      if opening < child.extent.start.offset < end]
            children = [child for child in cursor.get_children()
                        if child.extent.start.offset > end]
            declared = [child for child in inside if child.kind == Kind.VAR_DECL]
            ranges = source.parts(self.text, opening + 1, end)
            first, final = source.stripped(self.text, *ranges[-1])
            for child in inside:
                if child.kind == Kind.VAR_DECL:
                    self.variable(child)
                elif child.extent.start.offset >= first and not declared:
                    self.condition(child, first, final)
                elif child.kind.is_statement():
                    self.statement(child)
            if declared and len(ranges) == 1 and cursor.kind == Kind.IF_STMT:
                name = declared[0].spelling
                self.add("condition", final, final, f"; !{name}", before="", form="declared",
                         code=name)
            elif declared and len(ranges) == 2:
                expressions = [child for child in inside if child.kind.is_expression()]
                self.negate(first, final)
                for child in expressions:
                    if child.extent.start.offset >= first:
                        self.expression(child)
        for child in children:
            self.statement(child)

    def loop(self, cursor):
        begin, _ = self.range(cursor)
        opening = self.text.index(b"(", begin)
        end = source.closing(self.text, opening)
        ranges = source.parts(self.text, opening + 1, end)
        first, final = source.stripped(self.text, *ranges[1])
        for child in cursor.get_children():
            at = child.extent.start.offset
            if at > end:
                self.statement(child)
            elif first <= at < final:
                self.condition(child, first, final)
            elif at < first and child.kind == Kind.DECL_STMT:
                self.statement(child)

    # Expressions

    def condition(self, cursor, begin, end):
        self.negate(begin, end)
        self.expression(cursor)

    def negate(self, begin, end):
        if (begin, end) in self.negated or self.in_macro(begin, end):
            return
        self.negated.add((begin, end))
        text = self.code(begin, end)
        shown = f"!({text})" if re.search(r"\W", text.replace("_", "")) else f"!{text}"
        self.add("condition", begin, end, shown, form="truth", code=f"!({text})")

    def is_plain(self, cursor):
        """A literal or a name: faults of their own exist for these."""
        text = self.code(*self.range(cursor))
        return re.fullmatch(r"-?[\w']+|\"[^\"]*\"|[\w:]+", text) is not None and not (
            is_bool(cursor) and text not in ("true", "false"))

    def expression(self, cursor):
        kind = cursor.kind
        begin, end = self.range(cursor)
        if kind in COMPILE_TIME or (kind != Kind.DECL_REF_EXPR and self.in_macro(begin, end)):
            return
        if kind == Kind.BINARY_OPERATOR:
            self.binary(cursor, begin, end)
        elif kind == Kind.COMPOUND_ASSIGNMENT_OPERATOR:
            self.compound(cursor, begin, end)
        elif kind == Kind.UNARY_OPERATOR:
            self.unary(begin, end)
            if re.fullmatch(r"-\s*\d\w*", self.code(begin, end)):
                return  # -1: the sign is fault enough
        elif kind == Kind.CONDITIONAL_OPERATOR:
            first = next(iter(cursor.get_children()))
            self.negate(*self.range(first))
        elif kind == Kind.INTEGER_LITERAL:
            self.integer(begin, end)
        elif kind == Kind.CHARACTER_LITERAL:
            self.character(begin, end)
        elif kind == Kind.STRING_LITERAL:
            self.string(begin, end)
        elif kind == Kind.CXX_BOOL_LITERAL_EXPR:
            text = self.code(begin, end)
            if text in ("true", "false"):
                self.add("constant", begin, end, "false" if text == "true" else "true")
        elif kind == Kind.DECL_REF_EXPR:
            return self.name(cursor, begin, end)
        elif kind == Kind.LAMBDA_EXPR:
            for child in cursor.get_children():
                if child.kind == Kind.COMPOUND_STMT:
                    self.body(child)
            return
        elif kind == Kind.CALL_EXPR:
            self.swap(cursor, begin, end)
        for child in cursor.get_children():
            if kind == Kind.MEMBER_REF_EXPR and child.extent.end.offset > cursor.location.offset:
                continue  # arguments of a template
            if kind in (Kind.CXX_STATIC_CAST_EXPR, Kind.CXX_REINTERPRET_CAST_EXPR,
                        Kind.CXX_CONST_CAST_EXPR, Kind.CSTYLE_CAST_EXPR,
                        Kind.CXX_FUNCTIONAL_CAST_EXPR) and not child.kind.is_expression():
                continue
            if child.kind.is_statement():
                self.statement(child)
            elif child.kind.is_expression():
                self.expression(child)

    def operator(self, cursor):
        """The operator's text and place, and the operands' ranges; None where a macro is between."""
        children = list(cursor.get_children())
        if len(children) != 2:
            return None
        (begin, left_end), (right, end) = self.range(children[0]), self.range(children[1])
        between = self.text[left_end:right]
        text = source.without_comments(between).decode().strip()
        if left_end > right or not text:
            return None
        at = left_end + between.index(text.encode())
        return text, at, (begin, left_end), (right, end), children

    def exchange(self, kind, begin, end, at, old, new, form="expression"):
        text = self.code(begin, end)
        at -= begin
        self.add(kind, begin, end, text[:at] + new + text[at + len(old):], form=form)

    def binary(self, cursor, begin, end):
        found = self.operator(cursor)
        if found is None:
            return
        text, at, left, right, children = found
        if text in BOUNDS:
            self.exchange("bound", begin, end, at, text, BOUNDS[text])
        elif text in EQUALITY and (begin, end) not in self.negated:
            self.exchange("condition", begin, end, at, text, EQUALITY[text])
        elif text in LOGIC:
            self.exchange("logic", begin, end, at, text, LOGIC[text])
            for operand, place in zip(children, (left, right)):
                if not self.is_chain(operand, text):
                    self.negate(*place)
        elif text in ARITHMETIC and is_number(cursor) and all(map(is_number, children)):
            self.exchange("arithmetic", begin, end, at, text, ARITHMETIC[text])
        elif text == "=" and is_bool(children[0]) and not self.is_plain(children[1]):
            self.negate(*right)

    def is_chain(self, operand, text):
        """Whether `a && b` of `a && b && c`."""
        while operand.kind == Kind.UNEXPOSED_EXPR:
            operand = next(operand.get_children(), operand)
        inner = self.operator(operand) if operand.kind == Kind.BINARY_OPERATOR else None
        return inner is not None and inner[0] == text

    def compound(self, cursor, begin, end):
        found = self.operator(cursor)
        if found and found[0] in COMPOUND and is_number(cursor):
            self.exchange("arithmetic", begin, end, found[1], found[0], COMPOUND[found[0]])

    def unary(self, begin, end):
        text = self.code(begin, end)
        for old, new in (("++", "--"), ("--", "++")):
            if text.startswith(old):
                self.exchange("arithmetic", begin, end, begin, old, new)
            elif text.endswith(old):
                self.exchange("arithmetic", begin, end, end - 2, old, new)
        if text.startswith("-") and not text.startswith("--"):
            self.add("arithmetic", begin, end, text[1:].lstrip())

    def integer(self, begin, end):
        literal = re.fullmatch(r"(0[xX][\da-fA-F']+|0[0-7']*|[1-9][\d']*)([uUlLzZ]*)",
                               self.code(begin, end))
        if literal is None:
            return
        digits = literal[1].replace("'", "")
        if digits[:2] in ("0x", "0X"):
            new = f"0x{int(digits, 16) + 1:X}"
        elif digits.startswith("0") and len(digits) > 1:
            new = f"0{int(digits, 8) + 1:o}"
        else:
            new = str(int(digits) + 1)
        self.add("constant", begin, end, new + literal[2])

    def character(self, begin, end):
        text = self.code(begin, end)
        if re.fullmatch(r"'[^\\']'", text):
            following = {"z": "y", "Z": "Y", "9": "8"}.get(text[1], chr(ord(text[1]) + 1))
            self.add("constant", begin, end, f"'{following if text[1].isalnum() else 'x'}'")
        elif re.fullmatch(r"'\\.'", text):
            self.add("constant", begin, end, "'x'")

    def string(self, begin, end):
        """One letter becomes another; the length stays, so that either text fits its place."""
        text = self.code(begin, end)
        if not re.fullmatch(r'"(?:\\.|[^"\\])*"', text):
            return  # several pieces, or a name of a macro
        skipped = re.compile(r'\\.|%[-+ #0]*[\d.*]*(?:hh|h|ll|l|z|j|t)?[a-zA-Z%]')
        at = 1
        while at < len(text) - 1:
            match = skipped.match(text, at)
            if match:
                at = match.end()
                continue
            if text[at].isalnum():
                new = "x" if text[at] not in "xX" else "y"
                return self.add("constant", begin, end, text[:at] + new + text[at + 1:])
            at += 1
        if len(text) == 2:
            self.add("constant", begin, end, '"x"')
        else:
            self.add("constant", begin, end, '"x' + text[1:])

    def name(self, cursor, begin, end):
        target = cursor.referenced
        if target is None:
            return
        if target.kind == Kind.ENUM_CONSTANT_DECL:
            self.enumerator(target, begin, end)
        elif target.kind == Kind.VAR_DECL and target.location.file \
                and target.location.file.name in self.wanted:
            self.constant(target, begin, end)

    def enumerator(self, target, begin, end):
        of_type = list(target.semantic_parent.get_children())
        values = [one for one in of_type if one.kind == Kind.ENUM_CONSTANT_DECL]
        others = [one for one in values if one.enum_value != target.enum_value]
        text = self.code(begin, end)
        if not others or not text.endswith(target.spelling):
            return
        at = next((index for index, one in enumerate(others)
                   if one.enum_value > target.enum_value), len(others) - 1)
        prefix = text[:-len(target.spelling)]
        self.add("constant", begin, end, prefix + others[at].spelling)

    def constant(self, target, begin, end):
        """All uses of a constant that the compiler knows are one fault, told at the constant."""
        first, final = self.range(target)
        path = target.location.file.name
        with open(path, "rb") as file:
            text = file.read()
        if b"constexpr" not in text[first:target.location.offset]:
            return  # its initial value has faults of its own
        value = text[target.location.offset + len(target.spelling):final]
        value = source.one_line(value).decode().strip().lstrip("=").strip()
        kind = target.type.get_canonical().kind
        use = self.code(begin, end)
        if kind in NUMBERS or kind == TypeKind.BOOL:
            after = f"!({value})" if kind == TypeKind.BOOL else f"({value}) + 1"
            if re.fullmatch(r"\w+", value) and kind != TypeKind.BOOL:
                after = f"{value} + 1"
            code = f"lumd_next({use})"
        elif re.fullmatch(r'"[^"\\]+"', value):
            after = '"x' + value[2:] if value[1] != "x" else '"y' + value[2:]
            if kind == TypeKind.POINTER:
                code = after
            elif "string_view" in target.type.get_canonical().spelling:
                code = f"std::string_view{{{after}}}"
            else:
                return
        else:
            return
        key = (self.path, path, first)
        fault = self.constants.get(key)
        if fault is None:
            outer = self.function
            self.function = self.name_of(target)
            self.add("constant", begin, end, after, before=value, code=code, form="constant")
            self.function = outer
            fault = self.constants[key] = self.faults[-1]
        fault.uses.append([begin, end])

    def swap(self, cursor, begin, end):
        """Two neighbouring arguments of one type, except equal texts and two plain numbers."""
        if self.logging:
            return  # the format is one of them
        arguments = [one for one in cursor.get_arguments() if one is not None]
        for left, right in zip(arguments, arguments[1:]):
            first, second = self.range(left), self.range(right)
            texts = self.code(*first), self.code(*second)
            if texts[0] == texts[1] or first[1] > second[0] or not all(texts):
                continue
            types = [one.type.get_canonical().spelling.replace("const ", "")
                     for one in (left, right)]
            if types[0] != types[1] or self.code(first[1], second[0]).strip() != ",":
                continue
            if not (begin <= first[0] and second[1] <= end) or not self.code(begin, end).endswith(")"):
                continue
            swapped = (self.code(begin, first[0]) + texts[1] + self.code(first[1], second[0]) +
                       texts[0] + self.code(second[1], end))
            self.add("swap", begin, end, swapped)
